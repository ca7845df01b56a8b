// locale_api.cpp: the exported locale queries.

#include <errno.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "locale/locale_list.h"
#include "locale/locale_query.h"
#include "locale/time_format.h"

using namespace traiklofox::locale;

namespace {

PosixLocale findFor(LCID locale, const char* posixName, int categories) {
    if (posixName != nullptr) return PosixLocale::find(posixName, categories);
    if (const LocaleRow* row = findLocaleRow(locale)) return PosixLocale::find(row->posixName, categories);
    if (!isDefaultLocale(locale)) return {};
    PosixLocale english = PosixLocale::find("en_US", categories);
    return english ? std::move(english) : PosixLocale::find("C", categories);
}

int failWith(int error) {
    errno = error;
    return 0;
}

int answer(LCID locale, LCTYPE query, char* buffer, int size, const char* posixName) {
    const auto categories = categoriesOf(query);
    if (!categories || size < 0 || (buffer == nullptr && size > 0)) return failWith(EINVAL);
    const PosixLocale data = findFor(locale, posixName, *categories);
    if (!data) return failWith(ENOENT);
    const auto text = answerQuery(data, locale, query);
    if (!text) return failWith(EINVAL);
    const int needed = static_cast<int>(text->size()) + 1;
    if (size == 0) return needed;
    if (size < needed) return failWith(ERANGE);
    std::memcpy(buffer, text->c_str(), static_cast<size_t>(needed));
    return needed;
}

}  // namespace

int GetLocaleInfoA(LCID locale, LCTYPE query, char* buffer, int size, const char* posixName) {
    try {
        return answer(locale, query & ~(LOCALE_NOUSEROVERRIDE | LOCALE_USE_CP_ACP), buffer, size, posixName);
    } catch (const std::bad_alloc&) {
        return failWith(ENOMEM);
    }
}

char* snProcessLocaleInfo(const char* format, LCTYPE query) {
    if (format == nullptr) return nullptr;
    PictureKind kind = PictureKind::LiteralOnly;
    if (query == LOCALE_SSHORTDATE || query == LOCALE_SLONGDATE) kind = PictureKind::Date;
    if (query == LOCALE_STIMEFORMAT) kind = PictureKind::Time;
    try {
        const std::string picture = pictureOf(piecesOf(format), kind);
        // Callers may rely on the room of three bytes for each of the format's.
        const size_t room = std::max(3 * std::strlen(format), picture.size()) + 1;
        auto* copy = static_cast<char*>(std::calloc(room, 1));
        if (copy != nullptr) std::memcpy(copy, picture.c_str(), picture.size() + 1);
        return copy;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
