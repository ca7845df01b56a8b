#include "registry/key_name.h"

#include <cctype>

namespace {

constexpr std::array<unsigned char, 256> lowerAscii() {
    std::array<unsigned char, 256> lower{};
    for (size_t byte = 0; byte < lower.size(); ++byte)
        lower[byte] = static_cast<unsigned char>(byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte);
    return lower;
}

}  // namespace

constinit std::array<unsigned char, 256> CKZStringPc::lower_ = lowerAscii();

void CKZStringPc::takeLocale() {
    for (size_t byte = 0; byte < lower_.size(); ++byte)
        lower_[byte] = static_cast<unsigned char>(std::tolower(static_cast<int>(byte)));
}
