#pragma once

// The C library's locale data, read without touching the process's locale.

#include <langinfo.h>
#include <locale.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace traiklofox::locale {

class PosixLocale {
  public:
    /// Finds the locale's data of the categories in `mask` (LC_TIME_MASK, ...), and its encoding: under the name,
    /// with the encoding UTF-8, or under the name that a machine of today has for it.
    static PosixLocale find(const char* name, int mask);

    /// False: the machine has no such locale.
    explicit operator bool() const { return locale_ != nullptr; }
    locale_t get() const { return locale_.get(); }
    const char* text(nl_item item) const { return nl_langinfo_l(item, locale_.get()); }
    /// An item that is a small number: CHAR_MAX stands for none.
    int byte(nl_item item) const { return static_cast<signed char>(*text(item)); }
    /// An item that the C library stores as a number in the pointer's place.
    unsigned word(nl_item item) const;
    bool isUtf8() const;

  private:
    struct Free {
        void operator()(locale_t locale) const { freelocale(locale); }
    };
    std::unique_ptr<std::remove_pointer_t<locale_t>, Free> locale_;
};

}  // namespace traiklofox::locale
