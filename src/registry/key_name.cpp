#include "registry/key_name.h"

#include <cctype>

const std::array<unsigned char, 256>& CKZStringPc::table() {
    static const std::array<unsigned char, 256> lower = [] {
        std::array<unsigned char, 256> made{};
        for (int byte = 0; byte < 256; ++byte)
            made[static_cast<size_t>(byte)] = static_cast<unsigned char>(std::tolower(byte));
        return made;
    }();
    return lower;
}
