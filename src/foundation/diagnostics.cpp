// unix_err, and the last error.

#include <traiklofox/diagnostics.h>

#include <errno.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "foundation/bounded_copy.h"

namespace {

constexpr size_t kShortReport = 4096;

/// Turns every "%%" into "%", in place: what reading the text as a format once more comes to when any other
/// "%" is harmless.
void readAgain(char* text) {
    char* written = text;
    for (const char* read = text; *read != '\0'; ++read) {
        if (read[0] == '%' && read[1] == '%') ++read;
        *written++ = *read;
    }
    *written = '\0';
}

/// The formatted text, in `shortText` or, when it does not fit, in memory that `longText` then owns.
char* formatReport(char (&shortText)[kShortReport], std::unique_ptr<char[]>& longText, const char* format,
                   va_list arguments) {
    va_list firstTry;
    va_copy(firstTry, arguments);
    const int length = std::vsnprintf(shortText, sizeof shortText, format, firstTry);
    va_end(firstTry);
    if (length < 0)
        traiklofox::foundation::copyBounded(shortText, format);  // better the bare format than nothing
    if (length < static_cast<int>(sizeof shortText)) return shortText;

    const size_t size = static_cast<size_t>(length) + 1;
    longText.reset(new (std::nothrow) char[size]);
    if (!longText || std::vsnprintf(longText.get(), size, format, arguments) < 0) return shortText;
    return longText.get();
}

}  // namespace

void unix_err(const char* format, ...) {
    const int error = errno;
    char shortText[kShortReport];
    std::unique_ptr<char[]> longText;
    va_list arguments;
    va_start(arguments, format);
    char* text = formatReport(shortText, longText, format, arguments);
    va_end(arguments);
    readAgain(text);
    (void)std::fwrite(text, 1, std::strlen(text), stderr);  // nowhere is left to report a failure to
    errno = error;
}

DWORD GetLastError() {
    return static_cast<DWORD>(errno);
}

void SetLastError(DWORD error) {
    errno = static_cast<int>(error);
}
