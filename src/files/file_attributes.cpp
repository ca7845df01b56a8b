// file_attributes.cpp: attributes made from a file's mode, its mode from attributes, and their names.

#include "files/file_attributes.h"

#include "files/arguments.h"
#include "foundation/sys.h"

using traiklofox::files::isGiven;
namespace sys = traiklofox::sys;

namespace {

constexpr mode_t kWrite = S_IWUSR | S_IWGRP | S_IWOTH;
constexpr mode_t kExecute = S_IXUSR | S_IXGRP | S_IXOTH;
constexpr mode_t kModeBits = 07777;

constexpr struct {
    DWORD attribute;
    const char* name;
} kNames[] = {
    {FILE_ATTRIBUTE_ARCHIVE, "Archive"},     {FILE_ATTRIBUTE_COMPRESSED, "Compressed"},
    {FILE_ATTRIBUTE_HIDDEN, "Hidden"},       {FILE_ATTRIBUTE_OFFLINE, "Offline"},
    {FILE_ATTRIBUTE_READONLY, "ReadOnly"},   {FILE_ATTRIBUTE_SYSTEM, "System"},
    {FILE_ATTRIBUTE_TEMPORARY, "Temporary"}, {FILE_ATTRIBUTE_NORMAL, "Normal"},
    {FILE_ATTRIBUTE_DIRECTORY, "Directory"},
};

}  // namespace

CKZString traiklofox::files::attributeNames(DWORD attributes) {
    CKZString names;
    for (const auto& row : kNames) {
        if ((attributes & row.attribute) == 0) continue;
        if (!names.empty()) names += ",";
        names += row.name;
        attributes &= ~row.attribute;
    }
    if (attributes != 0) {
        CKZString excess;
        excess.Format(", Excess bits:%#x", static_cast<unsigned int>(attributes));
        names += excess;
    }
    return names;
}

CKZString FileAttribs2String(mode_t mode) {
    return traiklofox::files::attributeNames(traiklofox::files::typeAttributeOf(mode));
}

DWORD GetFileAttributes(const char* path) {
    struct statx status;
    if (!isGiven(path) || sys::stat(path, &status) != 0) return INVALID_FILE_ATTRIBUTES;
    return traiklofox::files::attributesOf(status.stx_mode);
}

BOOL SetFileAttributes(const char* path, DWORD attributes) {
    struct statx status;
    if (!isGiven(path) || sys::stat(path, &status) != 0) return FALSE;
    const mode_t write = (attributes & FILE_ATTRIBUTE_READONLY) != 0 ? 0 : kWrite;
    const mode_t execute = (attributes & FILE_ATTRIBUTE_SYSTEM) != 0 ? kExecute : 0;
    return sys::chmod(path, (status.stx_mode & kModeBits & ~(kWrite | kExecute)) | write | execute) == 0;
}
