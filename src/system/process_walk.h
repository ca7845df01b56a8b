#pragma once

#include <traiklofox/types.h>

#include <span>

namespace traiklofox::system {

/// What a walk through /proc came to.
struct ProcessWalk {
    bool succeeded = false;    // else errno says why
    bool wasCutShort = false;  // by the room for ids, of which every entry takes some
    size_t count = 0;          // ids stored
};

/// The walk of `EnumProcesses`.
ProcessWalk walkProcesses(std::span<DWORD> ids);

}  // namespace traiklofox::system
