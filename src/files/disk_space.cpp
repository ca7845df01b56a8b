#include <traiklofox/disk_space.h>

#include <cstring>

#include "files/arguments.h"
#include "files/report.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;

BOOL GetDiskFreeSpaceEx(const char* path, _ULARGE_INTEGER* available, _ULARGE_INTEGER* total,
                        _ULARGE_INTEGER* free) {
    if (!traiklofox::files::isGiven(path)) return FALSE;
    struct statfs space {};
    if (sys::statfs(path, &space) != 0) {
        traiklofox::files::report("GetDiskFreeSpaceEx: Error from statvfs(%s), errno=%s\n", path,
                                  std::strerror(errno));
        return FALSE;
    }
    const auto store = [&](_ULARGE_INTEGER* number, fsblkcnt_t blocks) {
        if (number != nullptr)
            number->QuadPart = static_cast<DWORD>(blocks * static_cast<ULONGLONG>(space.f_bsize));
    };
    store(available, space.f_bavail);
    store(total, space.f_blocks);
    store(free, space.f_bfree);
    return TRUE;
}
