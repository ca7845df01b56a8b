#include "registry/key_name.h"

namespace {

constexpr std::array<unsigned char, 256> lowerAscii() {
    std::array<unsigned char, 256> lower{};
    for (size_t byte = 0; byte < lower.size(); ++byte)
        lower[byte] = static_cast<unsigned char>(byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte);
    return lower;
}

}  // namespace

constinit const std::array<unsigned char, 256> CKZStringPc::lower_ = lowerAscii();
