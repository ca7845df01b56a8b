#include "registry/locations.h"

#include <traiklofox/registry.h>

#include <unistd.h>

#include <atomic>

#include "foundation/install_path.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"

namespace traiklofox::registry {

namespace {

/// A registry path, and those set before it, which somebody may still be reading.
struct PathNode {
    CKZString path;
    const PathNode* before;
};

// Without a lock, so that no thread can hold one while another forks.
constinit std::atomic<const PathNode*> sStaticRegistryPath{nullptr};

}  // namespace

const CKZString& sRealInstallPath() {
    return foundation::installPath();
}

CKZString registryPath() {
    const PathNode* set = sStaticRegistryPath.load(std::memory_order_acquire);
    return set != nullptr ? set->path : CKZString();
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
    auto* set = new PathNode{path, sStaticRegistryPath.load(std::memory_order_acquire)};
    while (!sStaticRegistryPath.compare_exchange_weak(set->before, set, std::memory_order_acq_rel)) continue;
    if (traiklofox::sys::access(path.c_str(), F_OK) != 0) return 0;
    noteTreeOutOfDate();  // it is the other installation's
    return 1;
}

CKZString GetRegistryPath() {
    CKZString path = registryPath();
    if (!path.empty()) return path;
    ensureStarted();
    return registryPath();
}
