#include "registry/value_data.h"

#include <algorithm>
#include <cstring>

#include "registry/file_number.h"

namespace traiklofox::registry {

namespace {

LONG copyNumber(const RegValue& value, LPBYTE data, LPDWORD size) {
    if (size != nullptr) {
        const bool tooSmall = data != nullptr && *size < sizeof(DWORD);
        *size = sizeof(DWORD);
        if (tooSmall) return ERROR_MORE_DATA;
    }
    if (data == nullptr) return ERROR_SUCCESS;
    const DWORD number = readNumber(value.data.c_str(), /*end=*/nullptr);
    std::memcpy(data, &number, sizeof number);  // the caller's buffer need not be aligned
    return ERROR_SUCCESS;
}

/// Copies the text with its NUL, blanks of a multiple text turned into NULs.
void copyText(const RegValue& value, LPBYTE data) {
    const size_t size = value.data.size() + 1;
    std::memcpy(data, value.data.c_str(), size);
    if (value.type == REG_MULTI_SZ) std::replace(data, data + size, BYTE{' '}, BYTE{0});
}

DWORD neededFor(const RegValue& value) {
    return static_cast<DWORD>(value.data.size() + 1);
}

bool fits(const RegValue& value, LPBYTE data, LPDWORD size) {
    return data == nullptr || size == nullptr || *size >= neededFor(value);
}

}  // namespace

bool formDataText(DWORD type, const BYTE* data, DWORD size, CKZString& text) {
    text.clear();
    switch (type) {
        case REG_SZ: text = reinterpret_cast<const char*>(data); return true;
        case REG_DWORD: {
            if (data == nullptr) return false;
            DWORD number = 0;
            std::memcpy(&number, data, sizeof number);
            text.Format("%#x", static_cast<unsigned int>(number));
            return true;
        }
        case REG_MULTI_SZ:
            if (data == nullptr || size == 0) return true;
            text.assign(reinterpret_cast<const char*>(data), size - 1);
            std::replace(text.begin(), text.end(), '\0', ' ');
            return true;
        default: return true;  // kept without data
    }
}

DWORD multiStringSize(DWORD type, const BYTE* data) {
    if (type != REG_MULTI_SZ || data == nullptr) return 0;
    const char* text = reinterpret_cast<const char*>(data);
    const char* end = text;
    while (*end != '\0') end += std::strlen(end) + 1;
    return static_cast<DWORD>(end - text + 1);
}

LONG copyOutQueried(const RegValue& value, LPBYTE data, LPDWORD size) {
    if (value.type == REG_DWORD) return copyNumber(value, data, size);
    if (!value.writable()) return ERROR_SUCCESS;
    const bool stores = size != nullptr;
    if (!fits(value, data, size)) {
        if (value.type == REG_SZ) *size = neededFor(value);
        return ERROR_MORE_DATA;
    }
    if (stores && value.type == REG_MULTI_SZ) *size = neededFor(value);
    if (data != nullptr) copyText(value, data);
    return ERROR_SUCCESS;
}

LONG copyOutEnumerated(const RegValue& value, LPBYTE data, LPDWORD size) {
    if (value.type == REG_DWORD) return copyNumber(value, data, size);
    if (!value.writable()) return -1;
    if (!fits(value, data, size)) return ERROR_MORE_DATA;
    if (data != nullptr) copyText(value, data);
    return ERROR_SUCCESS;
}

}  // namespace traiklofox::registry
