// profile_api.cpp: the exported functions over profiles.

#include <traiklofox/profiles.h>

#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "foundation/install_path.h"
#include "foundation/sys.h"
#include "profiles/profile_cache.h"

using namespace traiklofox::profiles;

namespace {

using Kind = ProfileLine::Kind;
using traiklofox::viewOf;

constexpr const char* kSystemProfile = "win.ini";

/// The exported edge: lets no exception out.
template <class Body, class Result = decltype(std::declval<Body>()())>
Result profileCall(Body body, Result failure) {
    try {
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;       // pthread_cancel: swallowing it aborts the process
    } catch (...) {  // a text that cannot be had
        errno = ENOMEM;
        return failure;
    }
}

/// The path from the root on, as long as the current directory has one: a change may be written under another.
std::string fromRoot(const std::string& path) {
    const int error = errno;
    char directory[PATH_MAX];
    if (path.starts_with('/')) return path;
    if (traiklofox::sys::getcwd(directory, sizeof directory) != nullptr) return directory + ("/" + path);
    errno = error;
    return path;
}

/// Calls `use` with the path that a file name stands for.
template <class Use>
auto withPath(const char* fileName, Use use) {
    if (fileName == nullptr) fileName = kSystemProfile;
    if (*fileName == '/') return use(std::string_view(fileName));
    const bool isPath = std::strchr(fileName, '/') != nullptr;
    const std::string path = isPath ? fileName : traiklofox::foundation::installPath() + fileName;
    return use(std::string_view(fromRoot(path)));
}

template <class Look>
auto readProfile(const char* fileName, Look look) {
    return withPath(fileName, [&](std::string_view path) { return profileOf(path)->read(look); });
}

/// Copies as much as fits, and a NUL. `size` is not 0.
DWORD giveCut(std::string_view text, char* buffer, DWORD size) {
    const size_t length = std::min<size_t>(text.size(), size - 1);
    std::ranges::copy(text.substr(0, length), buffer);  // which may be of nothing, at no address
    buffer[length] = '\0';
    if (length < text.size()) errno = ERANGE;
    return static_cast<DWORD>(length);
}

/// Puts texts into a buffer of which the last two places are for the NULs of a list that is cut.
class ListWriter {
  public:
    ListWriter(char* buffer, DWORD size) : buffer_(buffer), size_(size) {}

    void put(std::string_view text) {
        const size_t length = std::min<size_t>(text.size(), room());
        std::ranges::copy(text.substr(0, length), buffer_ + used_);
        used_ += static_cast<DWORD>(length);
        if (length < text.size()) isCut_ = true;
    }
    void endText() {
        // The last text's own NUL may take the place before the list's.
        if (isCut_ || used_ + 1 >= size_)
            isCut_ = true;
        else
            buffer_[used_++] = '\0';
    }
    DWORD finish() {
        if (isCut_) {
            errno = ERANGE;
            used_ = size_ >= 2 ? size_ - 2 : 0;
            buffer_[used_] = '\0';
        }
        for (DWORD i = used_; i < std::min(used_ + 2, size_); ++i) buffer_[i] = '\0';
        return used_;
    }

  private:
    size_t room() const { return isCut_ || used_ + 2 > size_ ? 0 : size_ - 2 - used_; }

    char* buffer_;
    DWORD size_;
    DWORD used_ = 0;
    bool isCut_ = false;
};

bool isBuffer(const char* buffer, DWORD size) {
    if (buffer != nullptr && size > 0) return true;
    errno = EINVAL;
    return false;
}

DWORD emptyList(char* buffer, DWORD size) {
    const int error = errno;
    (void)ListWriter(buffer, size).finish();  // an empty one is never cut
    errno = error;
    return 0;
}

DWORD listSections(char* buffer, DWORD size, const char* fileName) {
    const auto list = [&] {
        return readProfile(fileName, [&](const ProfileText& profile, int error) {
            if (error != 0) errno = error;
            ListWriter writer(buffer, size);
            for (const ProfileLine& line : profile.lines()) {
                if (line.kind != Kind::Section || line.name.empty()) continue;
                writer.put(line.name);
                writer.endText();
            }
            return writer.finish();
        });
    };
    emptyList(buffer, size);
    return profileCall(list, DWORD{0});
}

/// Stores what `put` says of each line of the section, as a list.
template <class Put>
DWORD listSection(const char* section, char* buffer, DWORD size, const char* fileName, Put put) {
    const auto list = [&] {
        return readProfile(fileName, [&](const ProfileText& profile, int error) {
            const auto begin = profile.section(trimmed(section));
            ListWriter writer(buffer, size);
            if (!begin) errno = error != 0 ? error : ENOENT;
            for (size_t i = begin ? *begin + 1 : 0; begin && i < profile.endOfSection(*begin); ++i)
                put(profile.lines()[i], writer);
            return writer.finish();
        });
    };
    emptyList(buffer, size);
    return profileCall(list, DWORD{0});
}

void putName(const ProfileLine& line, ListWriter& writer) {
    if (line.kind != Kind::Key || line.name.empty()) return;
    writer.put(line.name);
    writer.endText();
}

void putLine(const ProfileLine& line, ListWriter& writer) {
    if (line.kind != Kind::Key && line.kind != Kind::Other) return;
    writer.put(line.name);
    if (line.kind == Kind::Key) {
        writer.put("=");
        writer.put(line.value);
    }
    writer.endText();
}

/// Calls `use` with the key's value; returns `none`, with errno, when there is none.
template <class Use, class Result>
Result withValue(const char* section, const char* key, const char* fileName, Result none, Use use) {
    const auto look = [&] {
        return withPath(fileName, [&](std::string_view path) {
            const FullName name{trimmed(section), trimmed(key)};
            return profileOf(path)->readValue(
                name, [&](std::optional<std::string_view> value, int error) -> Result {
                    if (value) return use(withoutQuotes(*value));
                    errno = error != 0 ? error : ENOENT;
                    return none;
                });
        });
    };
    return profileCall(look, none);
}

std::string_view withoutBlanksBehind(std::string_view text) {
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(0, last == text.npos ? 0 : last + 1);
}

UINT numberOf(std::string_view text) {
    text = trimmed(text);
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) text.remove_prefix(1);
    const bool isHexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (isHexadecimal) text.remove_prefix(2);
    const UINT base = isHexadecimal ? 16 : 10;
    UINT number = 0;
    for (const char character : text) {
        UINT digit = base;
        if (character >= '0' && character <= '9') digit = static_cast<UINT>(character - '0');
        const char letter = static_cast<char>(character | 0x20);
        if (letter >= 'a' && letter <= 'f') digit = static_cast<UINT>(letter - 'a') + 10;
        if (digit >= base) break;
        number = number * base + digit;
    }
    return isNegative ? 0 - number : number;
}

BOOL change(const char* fileName, ProfileEdit edit) {
    if (!edit.canBeWritten()) {
        errno = EINVAL;
        return FALSE;
    }
    return withPath(fileName, [&](std::string_view path) { return changeProfile(path, std::move(edit)); });
}

BOOL flush(const char* fileName) {
    const bool isWritten = fileName == nullptr
                               ? flushAllProfiles()
                               : withPath(fileName, [](std::string_view path) { return flushProfile(path); });
    if (isWritten) errno = 0;
    return FALSE;
}

/// A null section's changes: none can be made.
BOOL refuseNull() {
    errno = EINVAL;
    return FALSE;
}

constexpr char kHexadecimal[] = "0123456789ABCDEF";

void appendByte(std::string& text, BYTE byte) {
    text += kHexadecimal[byte >> 4];
    text += kHexadecimal[byte & 15];
}

/// Nothing when it is no digit.
int digitOf(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    const char letter = static_cast<char>(character | 0x20);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

/// Stores the bytes of a text of their hexadecimal digits and a checksum's.
BOOL takeBytes(std::string_view text, BYTE* bytes, size_t size) {
    std::string taken;
    BYTE sum = 0;
    if (text.size() % 2 == 0 && text.size() / 2 == size + 1) {
        for (size_t i = 0; i <= size; ++i) {
            const int high = digitOf(text[2 * i]);
            const int low = digitOf(text[2 * i + 1]);
            if (high < 0 || low < 0) break;
            taken += static_cast<char>(high << 4 | low);
        }
    }
    for (size_t i = 0; i < size && i < taken.size(); ++i)
        sum = static_cast<BYTE>(sum + static_cast<BYTE>(taken[i]));
    if (taken.size() != size + 1 || static_cast<BYTE>(taken.back()) != sum) {
        errno = EBADMSG;
        return FALSE;
    }
    if (size > 0) std::memcpy(bytes, taken.data(), size);
    return TRUE;
}

}  // namespace

DWORD GetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR buffer, DWORD size,
                              LPCSTR fileName) {
    if (!isBuffer(buffer, size)) return 0;
    if (section == nullptr) return listSections(buffer, size, fileName);
    if (key == nullptr) return listSection(section, buffer, size, fileName, putName);
    constexpr auto kNone = static_cast<DWORD>(-1);  // longer than any value
    const DWORD length = withValue(section, key, fileName, kNone,
                                   [&](std::string_view value) { return giveCut(value, buffer, size); });
    return length != kNone ? length : giveCut(withoutBlanksBehind(viewOf(defaultValue)), buffer, size);
}

UINT GetPrivateProfileInt(LPCSTR section, LPCSTR key, INT defaultValue, LPCSTR fileName) {
    const auto number = static_cast<UINT>(defaultValue);
    if (section == nullptr || key == nullptr) {
        errno = EINVAL;
        return number;
    }
    return withValue(section, key, fileName, number,
                     [&](std::string_view value) { return value.empty() ? number : numberOf(value); });
}

DWORD GetPrivateProfileSection(LPCSTR section, LPSTR buffer, DWORD size, LPCSTR fileName) {
    if (!isBuffer(buffer, size)) return 0;
    if (section == nullptr) {
        errno = EINVAL;
        return emptyList(buffer, size);
    }
    return listSection(section, buffer, size, fileName, putLine);
}

DWORD GetPrivateProfileSectionNames(LPSTR buffer, DWORD size, LPCSTR fileName) {
    return isBuffer(buffer, size) ? listSections(buffer, size, fileName) : 0;
}

BOOL GetPrivateProfileStruct(LPCSTR section, LPCSTR key, LPVOID data, UINT size, LPCSTR fileName) {
    if (section == nullptr || key == nullptr || data == nullptr) return refuseNull();
    return withValue(section, key, fileName, FALSE, [&](std::string_view value) {
        return takeBytes(value, static_cast<BYTE*>(data), size);
    });
}

BOOL WritePrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR value, LPCSTR fileName) {
    const auto write = [&]() -> BOOL {
        if (section == nullptr && key == nullptr && value == nullptr) return flush(fileName);
        if (section == nullptr) return refuseNull();
        ProfileEdit edit{.kind = ProfileEdit::Kind::DeleteSection, .section = std::string(trimmed(section))};
        if (key != nullptr) {
            edit.kind = value != nullptr ? ProfileEdit::Kind::SetKey : ProfileEdit::Kind::DeleteKey;
            edit.key = trimmed(key);
            edit.value = trimmed(viewOf(value));
        }
        return change(fileName, std::move(edit));
    };
    return profileCall(write, FALSE);
}

BOOL WritePrivateProfileSection(LPCSTR section, LPCSTR lines, LPCSTR fileName) {
    const auto write = [&] {
        if (section == nullptr) return refuseNull();
        ProfileEdit edit{.kind = ProfileEdit::Kind::DeleteSection, .section = std::string(trimmed(section))};
        if (lines != nullptr) edit.kind = ProfileEdit::Kind::ReplaceSection;
        for (const char* line = lines; line != nullptr && *line != '\0'; line += std::strlen(line) + 1)
            edit.lines.emplace_back(line);
        return change(fileName, std::move(edit));
    };
    return profileCall(write, FALSE);
}

BOOL WritePrivateProfileStruct(LPCSTR section, LPCSTR key, LPVOID data, UINT size, LPCSTR fileName) {
    if (section == nullptr || key == nullptr) return refuseNull();
    if (data == nullptr) return WritePrivateProfileString(section, key, /*value=*/nullptr, fileName);
    const auto write = [&] {
        std::string text;
        BYTE sum = 0;
        for (const BYTE* byte = static_cast<const BYTE*>(data); byte != static_cast<const BYTE*>(data) + size;
             ++byte) {
            appendByte(text, *byte);
            sum = static_cast<BYTE>(sum + *byte);
        }
        appendByte(text, sum);
        return WritePrivateProfileString(section, key, text.c_str(), fileName);
    };
    return profileCall(write, FALSE);
}

DWORD GetProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR buffer, DWORD size) {
    return GetPrivateProfileString(section, key, defaultValue, buffer, size, kSystemProfile);
}

UINT GetProfileInt(LPCSTR section, LPCSTR key, INT defaultValue) {
    return GetPrivateProfileInt(section, key, defaultValue, kSystemProfile);
}

DWORD GetProfileSection(LPCSTR section, LPSTR buffer, DWORD size) {
    return GetPrivateProfileSection(section, buffer, size, kSystemProfile);
}

BOOL WriteProfileString(LPCSTR section, LPCSTR key, LPCSTR value) {
    return WritePrivateProfileString(section, key, value, kSystemProfile);
}

BOOL WriteProfileSection(LPCSTR section, LPCSTR lines) {
    return WritePrivateProfileSection(section, lines, kSystemProfile);
}

BOOL SetProfileWriteCaching(BOOL enabled) {
    return profileCall([&]() -> BOOL { return setWriteCaching(enabled != FALSE); }, FALSE);
}
