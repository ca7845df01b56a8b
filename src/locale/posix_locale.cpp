#include "locale/posix_locale.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

namespace traiklofox::locale {

namespace {

/// The name that the C library has for a locale that our list names otherwise.
struct Renamed {
    std::string_view listed;
    std::string_view present;
};
constexpr Renamed kRenamed[] = {
    {"en_UK", "en_GB"},
    {"no_NO", "nb_NO"},
    {"no_NO@nynorsk", "nn_NO"},
};

/// The name with an encoding, which stands before a modifier.
std::string withEncoding(std::string_view name, std::string_view encoding) {
    std::string whole(name);
    return whole.insert(std::min(name.find('@'), name.size()), encoding);
}

locale_t findWithAnyEncoding(std::string_view name, int mask) {
    for (const char* encoding : {"", ".utf8", ".UTF-8"})
        if (const locale_t found = newlocale(mask, withEncoding(name, encoding).c_str(), nullptr))
            return found;
    return nullptr;
}

}  // namespace

PosixLocale PosixLocale::find(const char* name, int mask) {
    PosixLocale locale;
    mask |= LC_CTYPE_MASK;
    const std::string_view own = name;
    const auto* const renamed = std::ranges::find(kRenamed, own, &Renamed::listed);
    const std::string_view other = renamed != std::end(kRenamed) ? renamed->present : own;
    // Where the C library has no such modifier it gives the locale without one, which is another language.
    const bool otherFirst = own.find('@') != std::string_view::npos;
    locale.locale_.reset(findWithAnyEncoding(otherFirst ? other : own, mask));
    if (!locale && other != own) locale.locale_.reset(findWithAnyEncoding(otherFirst ? own : other, mask));
    return locale;
}

unsigned PosixLocale::word(nl_item item) const {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(text(item)));
}

bool PosixLocale::isUtf8() const {
    return std::strcmp(text(CODESET), "UTF-8") == 0;
}

}  // namespace traiklofox::locale
