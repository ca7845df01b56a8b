// Assertions, diagnostics, interlocked counters and critical sections.

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <traiklofox/assertions.h>
#include <traiklofox/atomics.h>
#include <traiklofox/critical_section.h>
#include <traiklofox/diagnostics.h>
#include <traiklofox/memory_blocks.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/captured_output.h"

namespace traiklofox::test {
namespace {

using ::testing::KilledBySignal;

/// Runs a failing AssertPrompt that reads `answers`; returns what it wrote to its output.
std::string prompt(std::string answers) {
    using File = std::unique_ptr<FILE, int (*)(FILE*)>;
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
          {" y\n\xff\nY\n", "Unsupported response. Unsupported response. ", 3}}) {
        const CapturedStdout captured;
        const std::string written = prompt(answers);
        EXPECT_EQ(captured.text(), standardOutput) << answers;
        std::string expected = ", Assertion in file.cpp, line 7. Expression: a == b\n";
        for (int i = 0; i < questions; ++i) expected += "Continue? y/[n] ";
        EXPECT_TRUE(written.starts_with("Thread=") && written.ends_with(expected)) << written;
    }
}

TEST(AbortDeathTest, IsTheAnswerToNoAndNothingKeepsItFromEndingTheProcess) {
    for (const char* answers : {"n\n", "No", "\n", "", "x", "x\n\ny\n"}) {
        const auto run = [&] {
            dup2(STDERR_FILENO, STDOUT_FILENO);  // a death test sees standard error only
            prompt(answers);
        };
        EXPECT_EXIT(run(), KilledBySignal(SIGABRT), "Aborting\\.\\.\\.\n$") << answers;
    }
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

TEST(Diagnostics, GoToStandardErrorAsTheyAreFormatted) {
    const std::string text(200, 'x'), kept(80, 'x');
    std::string expected = "Beep( 440, -1 ) consider yourself \x07 beeped\n";
    const CapturedStderr captured;
    EXPECT_EQ(Beep(440, -1), 0);
    for (const auto& [message, context, response] : {std::tuple{"bad-date", "", std::string("bad-date")},
                                                     {"bad-date", "parse", "parse: bad-date"},
                                                     {text.c_str(), text.c_str(), kept + ": " + kept},
                                                     {nullptr, nullptr, ""}}) {
        CKZIException(message, context).response();
        expected += "CKZIException: " + response + "\n";
    }
    for (const auto& [argument, written] :
         {std::pair{"plain", "<plain>"},  // the formatted text is a format again
          {"/tmp/%n%s%d", "</tmp/%n%s%d>"},
          {"100%%", "<100%>"},
          {"%%%%n", "<%%n>"},
          {"%%%", "<%%>"},
          {"%", "<%>"}}) {
        unix_err("<%s>", argument);
        expected += written;
    }
    unix_err("%s: %#x, %d of 100%%%%, %s\n", "Open", 255u, -3, "no");
    SetLastError(ENOENT);
    unix_err("Open: %ls\n", L"\x263a");  // no such character in the "C" locale: the format is shown
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ENOENT));
    EXPECT_EQ(captured.text(), expected + "Open: 0xff, -3 of 100%, no\nOpen: %ls\n");
}

TEST(Diagnostics, WriteATextOfAnyLengthAtOnce) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);  // a message for each write
    const int standardError = dup(STDERR_FILENO);
    for (const size_t length : {1u, 4094u, 4095u, 4096u, 60'000u}) {
        const std::string path(length, 'p');
        dup2(ends[1], STDERR_FILENO);
        unix_err("%s\n", path.c_str());
        dup2(standardError, STDERR_FILENO);
        std::string message(100'000, '\0');
        message.resize(static_cast<size_t>(recv(ends[0], message.data(), message.size(), MSG_DONTWAIT)));
        EXPECT_EQ(message, path + "\n") << length;
    }
    for (const int fd : {ends[0], ends[1], standardError}) close(fd);
}

TEST(Atomics, ReturnOldOrNewValueAsEachPromises) {
    LONG target = 10;
    EXPECT_EQ(AtomicAdd32(&target, 5, 1), 10);
    EXPECT_EQ(AtomicAdd32(&target, -5, 0), 10);
    EXPECT_EQ(AtomicExchange32(&target, 3), 10);
    EXPECT_EQ(InterlockedIncrement(&target), 4);
    EXPECT_EQ(InterlockedDecrement(&target), 3);
    EXPECT_EQ(InterlockedExchangeAdd(&target, 5), 3);
    EXPECT_EQ(InterlockedExchange(&target, 9), 8);
    EXPECT_EQ(InterlockedCompareExchange(&target, 1, 9), 9);
    EXPECT_EQ(InterlockedCompareExchange(&target, 2, 9), 1);
    EXPECT_EQ(target, 1);
}

TEST(MemoryBlocks, AreMovedCopiedFilledAndCleared) {
    char block[] = "abcdef";
    MoveMemory(block + 1, block, 4);
    EXPECT_STREQ(block, "aabcdf");
    FillMemory(block, 2, 'x');
    ZeroMemory(block + 3, 1);
    CopyMemory(block + 4, "yz", 2);
    EXPECT_EQ(std::string(block, 6), std::string("xxb\0yz", 6));
}

int tryEnterFromAnotherThread(_critsection& section) {
    int entered = -1;
    std::thread([&] {
        entered = TryEnterCriticalSection(&section);
        if (entered == 1) LeaveCriticalSection(&section);
    }).join();
    return entered;
}

TEST(CriticalSection, IsHeldUntilEveryEnterIsLeft) {
    const pthread_mutex_t free = PTHREAD_MUTEX_INITIALIZER;
    _critsection section;
    memset(&section, 0, sizeof section);
    EXPECT_EQ(memcmp(&free, &section.mutex, sizeof free), 0) << "zero-filled memory is a free one";
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
        EXPECT_EQ(EnterCriticalSection(&section) + EnterCriticalSection(&section), 0);
        EXPECT_EQ(TryEnterCriticalSection(&section), 1);
        EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
        EXPECT_EQ(LeaveCriticalSection(&section), 3);
        EXPECT_EQ(LeaveCriticalSection(&section), 2);
        EXPECT_EQ(tryEnterFromAnotherThread(section), 0);
        EXPECT_EQ(LeaveCriticalSection(&section), 0);
        EXPECT_EQ(LeaveCriticalSection(&section), 0) << "of a free one";
    }
    EXPECT_EQ(
        EnterCriticalSection(nullptr) + TryEnterCriticalSection(nullptr) + LeaveCriticalSection(nullptr), 0);
#ifndef __SANITIZE_THREAD__  // which rightly takes an unlock by a thread that never locked for a fault
    EXPECT_EQ(EnterCriticalSection(&section) + EnterCriticalSection(&section), 0);
    std::thread([&] { EXPECT_EQ(LeaveCriticalSection(&section), 0) << "frees it at any depth"; }).join();
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
    EXPECT_EQ(EnterCriticalSection(&section) + LeaveCriticalSection(&section), 0);

    // A stranger who leaves while the owner does frees it once for each time that it was taken.
    std::atomic<int> inUse = 2;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20'000; ++round) {
                EnterCriticalSection(&section);
                EnterCriticalSection(&section);
                LeaveCriticalSection(&section);
                LeaveCriticalSection(&section);
            }
            --inUse;
        });
    while (inUse > 0) LeaveCriticalSection(&section);
    threads.clear();
    EXPECT_EQ(tryEnterFromAnotherThread(section), 1);
#endif
}

TEST(CriticalSection, GuardsWhatItsThreadsShareAndNoInterlockedUpdateIsLost) {
    constexpr int kRounds = 20'000;
    _critsection section{};
    LONG guarded = 0, sum = 0;
    {
        std::vector<std::jthread> threads(4);
        for (std::jthread& thread : threads) {
            thread = std::jthread([&] {
                for (int round = 0; round < kRounds; ++round) {
                    if (round % 2 == 0 || TryEnterCriticalSection(&section) == 0)
                        EnterCriticalSection(&section);
                    EnterCriticalSection(&section);
                    ++guarded;
                    LeaveCriticalSection(&section);
                    ++guarded;
                    LeaveCriticalSection(&section);
                    InterlockedIncrement(&sum);
                    AtomicAdd32(&sum, 3, round % 2);
                    InterlockedDecrement(&sum);
                }
            });
        }
    }
    EXPECT_EQ(guarded, 2 * 4 * kRounds);
    EXPECT_EQ(InterlockedExchange(&sum, 0), 3 * 4 * kRounds);
}

}  // namespace
}  // namespace traiklofox::test
