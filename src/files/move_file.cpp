// move_file.cpp: moving and deleting files.

#include <traiklofox/copy_file.h>
#include <traiklofox/move_file.h>

#include "files/arguments.h"
#include "files/report.h"
#include "foundation/sys.h"

using traiklofox::files::isGiven;
namespace sys = traiklofox::sys;

namespace {

bool moveByCopying(const char* from, const char* to, BYTE failIfExists) {
    return CopyFile(from, to, failIfExists) && sys::unlink(from) == 0;
}

int renameToNewName(const char* from, const char* to) {
    if (sys::renameNoReplace(from, to) == 0) return 0;
    if (errno != EINVAL) return -1;
    struct statx status;
    if (sys::lstat(to, &status) != 0) return errno == ENOENT ? sys::rename(from, to) : -1;
    errno = EEXIST;
    return -1;
}

}  // namespace

BOOL DeleteFile(const char* path) {
    return isGiven(path) && sys::unlink(path) == 0;
}

BOOL MoveFileEx(const char* from, const char* to, DWORD flags) {
    if ((flags & (MOVEFILE_DELAY_UNTIL_REBOOT | MOVEFILE_WRITE_THROUGH)) != 0)
        traiklofox::files::report("MoveFileEx: called with unsupported dwflags\n");
    if ((flags & MOVEFILE_REPLACE_EXISTING) == 0) return TRUE;
    if (!isGiven(from) || !isGiven(to)) return FALSE;
    if (sys::rename(from, to) == 0) return TRUE;
    return errno == EXDEV && (flags & MOVEFILE_COPY_ALLOWED) != 0 &&
           moveByCopying(from, to, /*failIfExists=*/FALSE);
}

BOOL MoveFile(const char* from, const char* to) {
    if (!isGiven(from) || !isGiven(to)) return FALSE;
    if (renameToNewName(from, to) == 0) return TRUE;
    return errno == EXDEV && moveByCopying(from, to, /*failIfExists=*/TRUE);
}
