#include <traiklofox/assertions.h>

#include <gmock/gmock.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "support/captured_output.h"

using namespace traiklofox::test;
using ::testing::KilledBySignal;
using ::testing::MatchesRegex;

namespace {

using File = std::unique_ptr<FILE, decltype(&fclose)>;

/// Runs a failing AssertPrompt that reads `answers`; returns what it wrote to its output.
std::string prompt(const std::string& answers) {
    const File in(tmpfile(), fclose);
    fputs(answers.c_str(), in.get());
    rewind(in.get());
    char* text = nullptr;
    size_t size = 0;
    File out(open_memstream(&text, &size), fclose);
    AssertPrompt(false, "a == b", "file.cpp", 7, in.get(), out.get());
    out.reset();
    std::string written(text, size);
    free(text);
    return written;
}

TEST(AssertPrompt, TrueConditionIsSilent) {
    EXPECT_NO_FATAL_FAILURE(AssertPrompt(true, "a == b", "file.cpp", 7, nullptr, nullptr));
}

TEST(AssertPrompt, AsksUntilYesIsAnswered) {
    struct Case {
        const char *answers, *standardOutput;
        int questions;
    };
    for (const auto& [answers, standardOutput, questions] :
         {Case{"y\n", "", 1}, Case{"Yes, go on\n", "", 1}, Case{"y", "", 1},
          Case{"x\ny\n", "Unsupported response. ", 2},
          Case{" y\n\xff\nY\n", "Unsupported response. Unsupported response. ", 3}}) {
        const CapturedStdout captured;
        const std::string written = prompt(answers);
        EXPECT_EQ(captured.text(), standardOutput) << answers;
        std::string expected =
            "Thread=-?[0-9]+, [0-9/]+ [0-9:]+, Assertion in file.cpp, line 7. Expression: a == b\n";
        for (int i = 0; i < questions; ++i) expected += "Continue\\? y/\\[n\\] ";
        EXPECT_THAT(written, MatchesRegex(expected)) << answers;
    }
}

TEST(AssertPromptDeathTest, AbortsOnNoAnEmptyLineAndTheEnd) {
    for (const char* answers : {"n\n", "No", "\n", "", "x", "x\n", "x\n\ny\n"}) {
        const auto run = [&] {
            dup2(STDERR_FILENO, STDOUT_FILENO);  // a death test sees standard error only
            prompt(answers);
        };
        EXPECT_EXIT(run(), KilledBySignal(SIGABRT), "Aborting\\.\\.\\.\n$") << answers;
    }
}

TEST(AbortDeathTest, AssertionTellsWhereAndAborts) {
    EXPECT_EXIT(kz_assert("a < b", "file.cpp", 12), KilledBySignal(SIGABRT),
                "^assertion \"a < b\" failed: file \"file.cpp\", line 12\n$");
}

TEST(AbortDeathTest, AbortsAlthoughTheSignalIsBlockedOrIgnored) {
    const auto run = [] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        signal(SIGABRT, SIG_IGN);
        kz_abort();
    };
    EXPECT_EXIT(run(), KilledBySignal(SIGABRT), "");
}

TEST(AbortDeathTest, HandlerRunsFirstWithAllOtherSignalsBlocked) {
    const auto run = [] {
        signal(SIGABRT, [](int) {
            (void)!write(STDERR_FILENO, "handled", 7);
            raise(SIGTERM);  // must stay pending
        });
        kz_abort();
    };
    EXPECT_EXIT(run(), KilledBySignal(SIGABRT), "^handled$");
}

TEST(Beep, IsWrittenToStandardError) {
    const CapturedStderr captured;
    EXPECT_EQ(Beep(440, -1), 0);
    EXPECT_EQ(captured.text(), "Beep( 440, -1 ) consider yourself \x07 beeped\n");
}

TEST(CKZIException, RespondsWithContextOnlyWhenThereIsOne) {
    const std::string longText(200, 'x');
    const std::string kept(80, 'x');
    struct Case {
        const char *message, *context;
        std::string response;
    };
    for (const auto& [message, context, response] :
         {Case{"bad-date", "", "CKZIException: bad-date\n"},
          Case{"bad-date", "parse", "CKZIException: parse: bad-date\n"},
          Case{longText.c_str(), longText.c_str(), "CKZIException: " + kept + ": " + kept + "\n"},
          Case{nullptr, nullptr, "CKZIException: \n"}}) {
        const CKZIException exception(message, context);
        const CapturedStderr captured;
        exception.response();
        EXPECT_EQ(captured.text(), response);
    }
}

}  // namespace
