// file_search.cpp: directory search by handles.

#include <traiklofox/file_search.h>

#include <cerrno>
#include <memory>
#include <new>

#include "files/arguments.h"
#include "files/file_attributes.h"
#include "files/file_time.h"
#include "files/search_path.h"
#include "foundation/bounded_copy.h"
#include "kernel/handle_arguments.h"

using traiklofox::files::fileTimeOf;
using traiklofox::kernel::handleAs;
using traiklofox::kernel::isNone;

namespace {

constexpr BOOL kFindCloseResult = 2;

void describe(const KZGlobResult& entry, _WIN32_FIND_DATA& data) {
    data.dwFileAttributes = traiklofox::files::typeAttributeOf(entry.mode);
    data.ftCreationTime = fileTimeOf(entry.modificationTime);
    data.ftLastAccessTime = fileTimeOf(entry.accessTime);
    data.ftLastWriteTime = data.ftCreationTime;
    data.nFileSizeHigh = 0;
    data.nFileSizeLow = static_cast<DWORD>(entry.size & 0xFFFFFFFF);
    data.dwReserved0 = 0;
    data.dwReserved1 = 0;
    traiklofox::foundation::copyBounded(data.cFileName, entry.name);
    traiklofox::foundation::copyBounded(data.cAlternateFileName, "");
}

Handle* beginSearch(const char* path, _WIN32_FIND_DATA* data) {
    const int before = errno;
    const auto [directory, pattern] = traiklofox::files::searchPathOf(path);
    errno = 0;
    auto handle = std::make_unique<FindFileHandle>(directory, pattern);
    const int error = errno;
    if (data != nullptr && handle->CopyOutFile(data) == INVALID_HANDLE_VALUE) {
        handle.reset();
        errno = error != 0 ? error : ENOENT;
        return INVALID_HANDLE_VALUE;
    }
    errno = before;
    return handle.release();
}

}  // namespace

FindFileHandle::FindFileHandle(const CKZString& directory, const CKZString& pattern) : Handle(1) {
    glob.ClearPatterns();
    const bool isEverything = pattern == CKZString(traiklofox::files::kEverything);
    const DWORD flags = isEverything ? 0 : DWORD{KZSuperGlob::ExplicitPeriod};
    if (glob.AddPattern(pattern, flags)) (void)glob.GlobMore(directory);  // without results, errno tells why
    position = glob.begin();
}

FindFileHandle::~FindFileHandle() = default;

DWORD FindFileHandle::What() const {
    return HANDLE_KIND_FIND_FILE;
}

Handle* FindFileHandle::CopyOutFile(_WIN32_FIND_DATA* data) {
    if (position == glob.end()) return INVALID_HANDLE_VALUE;
    describe(*position++, *data);
    return this;
}

Handle* FindFirstFile(const char* path, _WIN32_FIND_DATA* data) {
    if (!traiklofox::files::isGiven(path)) return INVALID_HANDLE_VALUE;
    try {
        return beginSearch(path, data);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return INVALID_HANDLE_VALUE;
    }
}

BOOL FindNextFile(Handle* search, _WIN32_FIND_DATA* data) {
    auto* const handle = handleAs<FindFileHandle>(search, HANDLE_KIND_FIND_FILE);
    if (handle == nullptr || data == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    if (handle->CopyOutFile(data) != INVALID_HANDLE_VALUE) return TRUE;
    errno = ENOENT;
    return FALSE;
}

BOOL FindClose(Handle* search) {
    if (!isNone(search)) delete search;
    return kFindCloseResult;
}
