#include <traiklofox/copy_file.h>
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

using namespace traiklofox::registry;

int RegBackupRegistry() {
    ensureStarted();
    const CacheLockGuard guard;
    const CKZString temporary = KZTempNam(registryDirectory());
    auto removeTemporary =
        traiklofox::foundation::onExit([&] { (void)traiklofox::sys::unlink(temporary.c_str()); });
    bool done = CopyFile(registryPath().c_str(), temporary.c_str(), /*failIfExists=*/TRUE) != FALSE;
    if (done) {
        giveToRegistryOwner(temporary);
        done = traiklofox::sys::rename(temporary.c_str(), backupPath().c_str()) == 0;
    }
    if (!done) {
        unix_err("RegBackupRegistry: Unable to back up %s to %s.  errno = %s\n", registryPath().c_str(),
                 backupPath().c_str(), std::strerror(errno));
        return 0;
    }
    removeTemporary.dismiss();
    return 1;
}
