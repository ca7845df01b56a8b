#include <traiklofox/assertions.h>

#include <gmock/gmock.h>
#include <signal.h>

#include <memory>
#include <string>
#include <tuple>

#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using ::testing::KilledBySignal;
using ::testing::MatchesRegex;

/// Runs a failing AssertPrompt that reads `answers`; returns what it wrote to its output.
std::string prompt(std::string answers) {
    using File = std::unique_ptr<FILE, decltype(&fclose)>;
    const File in(fmemopen(answers.data(), answers.size(), "r"), fclose);
    std::string written(1000, '\0');
    File out(fmemopen(written.data(), written.size(), "w"), fclose);
    AssertPrompt(false, "a == b", "file.cpp", 7, in.get(), out.get());
    out.reset();
    return written.c_str();
}

TEST(AssertPrompt, AsksUntilYesIsAnsweredWhenTheConditionIsFalse) {
    AssertPrompt(true, "a == b", "file.cpp", 7, nullptr, nullptr);
    for (const auto& [answers, standardOutput, questions] :
         {std::tuple{"y\n", "", 1},
          {"Yes, go on\n", "", 1},
          {"y", "", 1},
          {"x\ny\n", "Unsupported response. ", 2},
          {" y\n\xff\nY\n", "Unsupported response. Unsupported response. ", 3}}) {
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

TEST(AbortDeathTest, NothingKeepsItFromEndingTheProcess) {
    const auto blockedAndIgnored = [] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        signal(SIGABRT, SIG_IGN);
        kz_abort();
    };
    const auto handled = [] {
        signal(SIGABRT, [](int) {
            (void)!write(STDERR_FILENO, "handled", 7);
            raise(SIGTERM);  // must stay pending
        });
        kz_abort();
    };
    EXPECT_EXIT(blockedAndIgnored(), KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(handled(), KilledBySignal(SIGABRT), "^handled$");
    EXPECT_EXIT(kz_assert("a < b", "file.cpp", 12), KilledBySignal(SIGABRT),
                "^assertion \"a < b\" failed: file \"file.cpp\", line 12\n$");
}

TEST(Beep, IsWrittenToStandardError) {
    const CapturedStderr captured;
    EXPECT_EQ(Beep(440, -1), 0);
    EXPECT_EQ(captured.text(), "Beep( 440, -1 ) consider yourself \x07 beeped\n");
}

TEST(CKZIException, RespondsWithContextOnlyWhenThereIsOneAndCutsBoth) {
    const std::string text(200, 'x');
    const std::string kept(80, 'x');
    for (const auto& [message, context, response] : {std::tuple{"bad-date", "", std::string("bad-date")},
                                                     {"bad-date", "parse", "parse: bad-date"},
                                                     {text.c_str(), text.c_str(), kept + ": " + kept},
                                                     {nullptr, nullptr, ""}}) {
        const CapturedStderr captured;
        CKZIException(message, context).response();
        EXPECT_EQ(captured.text(), "CKZIException: " + response + "\n");
    }
}

}  // namespace
}  // namespace traiklofox::test
