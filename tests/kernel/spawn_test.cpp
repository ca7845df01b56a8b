// Starting programs: what the child gets, what a failed start reports, and what it leaves behind.

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <vector>

#include "foundation/sys.h"
#include "kernel/child.h"
#include "kernel/command_line.h"
#include "support/fault_injection.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace {

using namespace traiklofox::test;
using traiklofox::kernel::CommandLine;

TEST(CommandLine, SplitsIntoWordsByTheRules) {
    using Rules = CommandLine::Rules;
    struct Case {
        const char* line;
        Rules rules;
        std::vector<std::string> words;  // none: refused
        int error = 0;
    };
    const std::string fifteen = "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15";
    const std::string sixteen = fifteen + " 16";
    const Case cases[] = {
        {" a\t b  c\t", Rules::Quotes, {"a", "b", "c"}},
        {"'a b' \"c\td\"", Rules::Quotes, {"a b", "c\td"}},
        {"a'b c'd\"e f\"", Rules::Quotes, {"ab cde f"}},
        {"\"it's\" 'a \"b\"'", Rules::Quotes, {"it's", "a \"b\""}},
        {R"(\"a b\' "c \" d" 'e \' f')", Rules::Quotes, {"\"a", "b'", "c \" d", "e ' f"}},
        {R"(a\b c:\d\ \\"e)", Rules::Quotes, {"a\\b", "c:\\d\\", "\\\"e"}},
        {"a '' \"\"b", Rules::Quotes, {"a", "", "b"}},
        {"a 'b c", Rules::Quotes, {"a", "b c"}},
        {"a\\", Rules::Quotes, {"a\\"}},
        {"a\nb", Rules::Quotes, {"a\nb"}},
        {"", Rules::Quotes, {}, EINVAL},
        {" \t ", Rules::Quotes, {}, EINVAL},
        {sixteen.c_str(), Rules::Quotes, {}, E2BIG},
        {"  a   'b c' d\te \"", Rules::BlanksOnly, {"a", "'b", "c'", "d\te", "\""}},
        {"   ", Rules::BlanksOnly, {}, EINVAL},
        {sixteen.c_str(), Rules::BlanksOnly, {}, E2BIG},
    };
    for (const Case& c : cases) {
        errno = 0;
        const auto split = CommandLine::split(c.line, c.rules);
        EXPECT_EQ(split.has_value(), !c.words.empty()) << c.line;
        EXPECT_EQ(errno, c.error) << c.line;
        std::vector<std::string> words;
        if (split) {
            for (char* const* word = split->words(); *word != nullptr; ++word) words.emplace_back(*word);
        }
        EXPECT_EQ(words, c.words) << c.line;
    }
    for (const Rules rules : {Rules::Quotes, Rules::BlanksOnly})
        EXPECT_EQ(CommandLine::split((fifteen + "  ").c_str(), rules).value().words()[15], nullptr);
}

struct Start {
    DWORD flags = 0;
    Handle* token = nullptr;
    const char* directory = nullptr;
    DWORD dwFlags = 0;
};

/// What a program writes to its standard output and error; its end is waited for.
std::string outputOf(const char* commandLine, const Start& start = {}) {
    PipeEnds output;
    _STARTUPINFO startup{sizeof startup, start.dwFlags, nullptr, output.out.get(), output.out.get()};
    const int pid = Spawn(start.flags, start.token, commandLine, start.directory, &startup);
    if (pid < 0) return std::string("not started: ") + strerror(errno);
    output.out.reset();
    std::string text = readAll(output.in);
    const OwnedHandle process{OpenProcess(0, FALSE, static_cast<DWORD>(pid))};
    EXPECT_EQ(WaitForSingleObject(process.get(), INFINITE), WAIT_OBJECT_0);
    return text;
}

TEST(Spawn, GivesTheProgramACleanStart) {
    const TempDir directory;
    ASSERT_EQ(::symlink("/bin/pwd", (directory / "where").c_str()), 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGUSR1, [](int) {});
    const traiklofox::sys::UniqueFd inheritable(::dup(0));
    const traiklofox::sys::UniqueFd high(::fcntl(0, F_DUPFD, 900));
    ::setenv("CHILD_TEST", "inherited", 1);

    struct Case {
        const char* what;
        const char* commandLine;
        std::string output;
        Start start = {};
    };
    const Case cases[] = {
        {"words", "/usr/bin/printf '%s|' a \"b c\" ''", "a|b c||"},
        {"environment", "/usr/bin/printenv CHILD_TEST", "inherited\n"},
        {"no standard handle is /dev/null", "/usr/bin/readlink /proc/self/fd/0", "/dev/null\n"},
        {"no other descriptor but its own", "/bin/ls /proc/self/fd", "0\n1\n2\n3\n"},
        // Without those of numbers 32 and 33, which the C library keeps to itself and leaves as they came.
        {"signals",
         "/bin/sed -n '/^Sig[BIC]/s/\\t\\(.*\\)[01][08]\\(.\\{7\\}\\)$/ \\1 \\2/p' /proc/self/status",
         "SigBlk: 0000000 0000000\nSigIgn: 0000000 0000000\nSigCgt: 0000000 0000000\n"},
        {"directory", "/bin/pwd", directory.path() + "\n", {.directory = directory.path().c_str()}},
        {"the path counts from there",
         "./where",
         directory.path() + "\n",
         {.directory = directory.path().c_str()}},
    };
    for (const Case& c : cases) {
        for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS}) {
            Start start = c.start;
            start.flags = flags;
            EXPECT_EQ(outputOf(c.commandLine, start), c.output) << c.what << ", flags " << flags;
        }
    }
    {
        const FailCall missing{faults::Call::CloseRange, ENOSYS, {.andAllLater = true}};
        EXPECT_EQ(outputOf("/bin/ls /proc/self/fd"), "0\n1\n2\n3\n") << "a kernel without close_range";
    }
    const std::string session = std::to_string(::getsid(0));
    EXPECT_EQ(outputOf("/usr/bin/cut '-d ' -f6 /proc/self/stat"), session + "\n");
    EXPECT_NE(outputOf("/usr/bin/cut '-d ' -f6 /proc/self/stat", {.flags = CREATE_NEW_PROCESS_GROUP}),
              session + "\n");
    EXPECT_TRUE(becomesChildless());
}

TEST(Spawn, DetachedProcessIsNoChildAndItsIdIsReturned) {
    Child detached{Via::DetachedProcess};
    ASSERT_GT(detached.pid(), 0);
    EXPECT_FALSE(isChild(detached.pid()));
    EXPECT_EQ(::kill(detached.pid(), 0), 0);
    EXPECT_TRUE(isChildless());
    detached.end();
    EXPECT_EQ(WaitForSingleObject(detached.handle.get(), INFINITE), WAIT_OBJECT_0);
    DWORD code = 0;
    EXPECT_FALSE(GetExitCodeProcess(detached.handle.get(), &code));
}

TEST(Spawn, FailedStartReportsWhyAndLeavesNothing) {
    const OwnedHandle event = makeEvent(Kind::Auto);
    const OwnedHandle noFile{new File(-1)};
    const OwnedHandle closedFile{new File(::fcntl(0, F_DUPFD_CLOEXEC, 700))};
    ::close(fdOf(closedFile));
    struct Case {
        const char* what;
        const char* commandLine;
        int error;
        Handle* token = nullptr;
        const char* directory = nullptr;
        Handle* input = nullptr;
    };
    const Case cases[] = {
        {"no command line", nullptr, EINVAL},
        {"an empty one", "", EINVAL},
        {"one of blanks", "  ", EINVAL},
        {"16 words", "/bin/true 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", E2BIG},
        {"no program", "/no/program", ENOENT},
        {"a program that is none", "/etc/passwd", EACCES},
        {"no directory", "/bin/true", ENOENT, nullptr, "/no/directory"},
        {"a bad token", "/bin/true", EINVAL, INVALID_HANDLE_VALUE},
        {"an event as token", "/bin/true", EINVAL, event.get()},
        {"an event as input", "/bin/true", EBADF, nullptr, nullptr, event.get()},
        {"a file without a descriptor", "/bin/true", EBADF, nullptr, nullptr, noFile.get()},
        {"a file with a closed descriptor", "/bin/true", EBADF, nullptr, nullptr, closedFile.get()},
    };
    const int descriptors = openDescriptors();
    for (const Case& c : cases) {
        for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS}) {
            _STARTUPINFO startup{sizeof startup, 0, c.input, nullptr, nullptr};
            errno = 0;
            EXPECT_EQ(Spawn(flags, c.token, c.commandLine, c.directory, &startup), -1) << c.what;
            EXPECT_EQ(errno, c.error) << c.what << ", flags " << flags;
        }
    }
    EXPECT_EQ(failEveryCall(faults::Call::Pipe2, EMFILE,
                            [](const FailCall& fault, int) {
                                const int pid =
                                    Spawn(DETACHED_PROCESS, nullptr, "/bin/true", nullptr, nullptr);
                                EXPECT_EQ(pid<0, fault.fired()> 0);
                            }),
              2);
    const FailCall noNull{faults::Call::Open, EMFILE};
    EXPECT_EQ(Spawn(0, nullptr, "/bin/true", nullptr, nullptr), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(isChildless());
}

// In a process of its own, because it may close and exchange the standard descriptors.
TEST_ROLE(withoutStandardDescriptors) {
    PipeEnds input;
    PipeEnds output;
    constexpr std::string_view kText = "through";
    if (::write(fdOf(input.out), kText.data(), kText.size()) != static_cast<ssize_t>(kText.size())) return 1;
    input.out.reset();
    ::dup2(fdOf(output.out), 0);  // each in the other's place
    ::dup2(fdOf(input.in), 1);
    const OwnedHandle in{new File(1)};
    const OwnedHandle out{new File(0)};
    _STARTUPINFO startup{sizeof startup, 0, in.get(), out.get(), nullptr};
    const int exchanged = Spawn(0, nullptr, "/bin/cat", nullptr, &startup);
    ::waitpid(exchanged, nullptr, 0);
    char text[16] = {};
    if (::read(fdOf(output.in), text, sizeof text) < 0 || text != kText) return 2;

    for (int fd = 0; fd < 3; ++fd) ::close(fd);  // the start's own descriptors now come first
    const int quiet = Spawn(0, nullptr, "/bin/sh -c 'test -w /proc/self/fd/2 && exit 7'", nullptr, nullptr);
    int status = 0;
    if (::waitpid(quiet, &status, 0) != quiet || status != 7 << 8) return 3;
    if (Spawn(0, nullptr, "/no/program", nullptr, nullptr) != -1 || errno != ENOENT) return 4;
    return Spawn(DETACHED_PROCESS, nullptr, "/bin/true", nullptr, nullptr) > 0 ? 0 : 5;
}

TEST(Spawn, CopesWithAnyStandardDescriptorsOfItsOwn) {
    EXPECT_EQ(RoleProcess{"withoutStandardDescriptors"}.wait(), ExitStatus::exited(0));
}

constexpr uid_t kNobody = 65534;
constexpr int kNoSuchUser = 77;

TEST_ROLE(asNobody) {
    if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) return kNoSuchUser;
    const OwnedHandle root{new SecurityToken(0, 0)};
    if (Spawn(0, root.get(), "/bin/true", nullptr, nullptr) != -1 || errno != EPERM) return 2;
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_NPROC, &none);
    for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS}) {
        if (Spawn(flags, nullptr, "/bin/true", nullptr, nullptr) != -1 || errno != EAGAIN) ::_exit(3);
    }
    ::_exit(0);  // a sanitizer would look for leaks in a process of its own
}

TEST(Spawn, RunsAsTheTokensUserAndGroup) {
    const ExitStatus nobody = RoleProcess{"asNobody"}.wait();
    if (nobody == ExitStatus::exited(kNoSuchUser)) GTEST_SKIP() << "no second user here";
    EXPECT_EQ(nobody, ExitStatus::exited(0));
    const OwnedHandle token{new SecurityToken(kNobody, kNobody)};
    constexpr const char* kIds = "/bin/sh -c 'id -u; id -g; stat -Lc %u /proc/self/fd/1'";
    for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS}) {
        EXPECT_EQ(outputOf(kIds, {flags, token.get()}), "65534\n65534\n0\n");
        EXPECT_EQ(outputOf(kIds, {flags, token.get(), nullptr, STARTF_GIVE_TO_TOKEN_OWNER}),
                  "65534\n65534\n65534\n");
    }
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), 1) << "the child's change of user reached its parent";
    struct stat null {};
    ASSERT_EQ(::stat("/dev/null", &null), 0);
    EXPECT_EQ(null.st_uid, 0U) << "/dev/null was given away";
}

#if !defined(__SANITIZE_THREAD__)  // whose forks count a fault's calls for themselves
TEST(Spawn, StartThatHangsIsKilledAndMadeAgain) {
    const FailCall hang{faults::Call::Chdir, faults::kHangs};
    const auto begin = now();
    EXPECT_EQ(outputOf("/bin/pwd", {.directory = "/usr"}), "/usr\n");
    EXPECT_EQ(hang.calls(), 2);
    EXPECT_GE(now() - begin, std::chrono::seconds(30));
    EXPECT_TRUE(becomesChildless());
}
#endif

}  // namespace
