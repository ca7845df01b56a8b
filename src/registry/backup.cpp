#include "registry/backup.h"

#include <traiklofox/diagnostics.h>
#include <traiklofox/registry.h>
#include <traiklofox/temp_name.h>

#include <cerrno>
#include <cstring>

#include "foundation/on_exit.h"
#include "foundation/sys.h"
#include "registry/cache_lock.h"
#include "registry/file_owner.h"
#include "registry/locations.h"
#include "registry/registry_call.h"

namespace traiklofox::registry {

bool copyToBackup() {
    const CKZString temporary = KZTempNam(registryDirectory());
    auto removeTemporary = foundation::onExit([&] { (void)sys::unlink(temporary.c_str()); });
    if (!copyForRegistryOwner(registryPath(), temporary)) return false;
    if (sys::rename(temporary.c_str(), backupPath().c_str()) != 0) return false;
    removeTemporary.dismiss();
    return true;
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;

int RegBackupRegistry() {
    const LONG result = registryCall(
        []() -> LONG {
            const CacheLockGuard guard;
            if (copyToBackup()) return 1;
            unix_err("RegBackupRegistry: Unable to back up %s to %s.  errno = %s\n", registryPath().c_str(),
                     backupPath().c_str(), std::strerror(errno));
            return 0;
        },
        /*failure=*/0);
    return static_cast<int>(result);
}
