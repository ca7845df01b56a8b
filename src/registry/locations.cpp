#include "registry/locations.h"

#include <traiklofox/registry.h>

#include <unistd.h>

#include <cstdlib>

#include "foundation/mutex.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

struct StaticRegistryPath {
    foundation::Mutex<foundation::LockRank::Leaf> lock;
    CKZString path TRAIKLOFOX_GUARDED_BY(lock);
};

StaticRegistryPath& sStaticRegistryPath() {
    static auto& made = *new StaticRegistryPath;
    return made;
}

CKZString installPathFromEnvironment() {
    const char* home = std::getenv("TWHOME");
    CKZString path = home != nullptr ? home : TRAIKLOFOX_DEFAULT_HOME;
    if (path.empty() || path.back() != '/') path += '/';
    return path;
}

}  // namespace

const CKZString& sRealInstallPath() {
    static const auto& path = *new CKZString(installPathFromEnvironment());
    return path;
}

CKZString registryPath() {
    StaticRegistryPath& set = sStaticRegistryPath();
    const LockGuard guard(set.lock);
    return set.path;
}

CKZString templatePath() {
    return registryPath() + ".template";
}

CKZString backupPath() {
    return registryPath() + ".bak";
}

CKZString registryDirectory() {
    const CKZString path = registryPath();
    return path.substr(0, path.rfind('/') + 1);
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

int SetRegistryPath(CKZString installPath) {
    const CKZString path = installPath + "registry/tw.registry";
    {
        StaticRegistryPath& set = sStaticRegistryPath();
        const traiklofox::foundation::LockGuard guard(set.lock);
        set.path = path;
    }
    return traiklofox::sys::access(path.c_str(), F_OK) == 0;
}

CKZString GetRegistryPath() {
    CKZString path = registryPath();
    if (!path.empty()) return path;
    ensureStarted();
    return registryPath();
}
