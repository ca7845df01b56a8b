#pragma once

/// Assertions, aborts, and the library's exception.

#include <traiklofox/types.h>

#include <cstdio>

/// When `ok` is false, reports the failed assertion on `out` (thread, local time, file, line, expression) and
/// asks there whether to go on, until `in` answers: "y" returns; "n", an empty line or the end of `in` aborts
/// the process. Of a longer answer the first character counts, without regard to case; any other answer is
/// refused on standard output. Does nothing when `ok` is true.
TRAIKLOFOX_API void AssertPrompt(bool ok, const char* expression, const char* file, int line, FILE* in,
                                 FILE* out);

/// Writes `assertion "<expression>" failed: file "<file>", line <line>` to standard error, then does as
/// `kz_abort`.
[[noreturn]] TRAIKLOFOX_API void kz_assert(const char* expression, const char* file, int line);

/// Ends the process with SIGABRT, blocking every other signal. The application's handler for SIGABRT runs
/// first, on this thread; should it return, the default action follows, and `exit(1)` should even that fail.
/// It is the terminate handler of every thread that the library starts.
[[noreturn]] TRAIKLOFOX_API void kz_abort();

/// Tells on standard error, with a bell, that it was called; makes no other sound. Returns 0.
TRAIKLOFOX_C_API BOOL Beep(int frequency, int duration);

/// What the library's own classes throw.
class TRAIKLOFOX_API CKZIException {
  public:
    /// The longest context and message, in characters.
    static constexpr int kTextLength = 80;

    /// Note the order. Of each text the first 80 characters are kept; a null one is empty.
    CKZIException(const char* messageText, const char* contextText);

    /// Writes a line to standard error: the prefix, then the context followed by ": " unless it is empty,
    /// then the message.
    void response() const;

    const char* prefix;             ///< "CKZIException: "
    char context[kTextLength + 1];  ///< where it happened; may be empty
    char message[kTextLength + 1];  ///< what happened
};
