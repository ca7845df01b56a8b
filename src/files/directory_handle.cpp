#include "files/directory_handle.h"

#include <cerrno>

namespace traiklofox::files {

Handle* openChangeNotification(const char*) {
    errno = ENOSYS;
    return nullptr;
}

}  // namespace traiklofox::files
