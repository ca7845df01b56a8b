// Assertions, the abort sequence, and CKZIException.

#include <traiklofox/assertions.h>

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <cctype>
#include <cstdlib>

#include "foundation/bounded_copy.h"
#include "foundation/sys.h"

namespace sys = traiklofox::sys;
using traiklofox::foundation::copyBounded;

namespace {

void reportFailure(const char* expression, const char* file, int line, FILE* out) {
    const time_t now = sys::wallSeconds();
    tm fields{};
    localtime_r(&now, &fields);
    char when[64];
    strftime(when, sizeof when, "%D %H:%M:%S", &fields);
    std::fprintf(out, "Thread=%d, %s, Assertion in %s, line %i. Expression: %s\n",
                 static_cast<int>(pthread_self()), when, file, line, expression);
}

void discardLine(FILE* in) {
    int character = std::getc(in);
    while (character != '\n' && character != EOF) character = std::getc(in);
}

/// Blocks every signal but SIGABRT and sends that one to the calling thread.
void raiseAbort() {
    sigset_t others;
    sigfillset(&others);
    sigdelset(&others, SIGABRT);
    sigprocmask(SIG_SETMASK, &others, nullptr);
    pthread_kill(pthread_self(), SIGABRT);
}

}  // namespace

void AssertPrompt(bool ok, const char* expression, const char* file, int line, FILE* in, FILE* out) {
    if (ok) return;
    reportFailure(expression, file, line, out);
    for (;;) {
        std::fputs("Continue? y/[n] ", out);
        std::fflush(out);  // it ends no line, and the reader waits for it
        const int answer = std::tolower(std::getc(in));
        if (answer == 'n' || answer == EOF || answer == '\n') {
            std::fputs("Aborting...\n", stdout);
            std::fflush(stdout);  // abort does not
            std::abort();
        }
        if (answer != 'y') std::fputs("Unsupported response. ", stdout);
        discardLine(in);
        if (answer == 'y') return;
    }
}

void kz_assert(const char* expression, const char* file, int line) {
    std::fprintf(stderr, "assertion \"%s\" failed: file \"%s\", line %d\n", expression, file, line);
    kz_abort();
}

void kz_abort() {
    raiseAbort();
    signal(SIGABRT, SIG_DFL);
    raiseAbort();
    std::exit(1);
}

BOOL Beep(int frequency, int duration) {
    std::fprintf(stderr, "Beep( %d, %d ) consider yourself \a beeped\n", frequency, duration);
    return FALSE;
}

CKZIException::CKZIException(const char* messageText, const char* contextText) : prefix("CKZIException: ") {
    copyBounded(context, contextText != nullptr ? contextText : "");
    copyBounded(message, messageText != nullptr ? messageText : "");
}

void CKZIException::response() const {
    const char* separator = context[0] != '\0' ? ": " : "";
    std::fprintf(stderr, "%s%s%s%s\n", prefix, context, separator, message);
}
