// Starting programs: what the child gets, what a failed start reports, and what it leaves behind.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>

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
    const std::string fifteen = "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15";
    const std::string sixteen = fifteen + " 16";
    const struct {
        std::string line;
        Rules rules;
        std::string words;  // each with a bar behind it; none: refused
        int error = 0;
    } cases[] = {
        {" a\t b  c\t", Rules::Quotes, "a|b|c|"},
        {"'a b' \"c\td\" e\nf", Rules::Quotes, "a b|c\td|e\nf|"},
        {"a'b c'd\"e f\"", Rules::Quotes, "ab cde f|"},
        {"\"it's\" 'a \"b\"'", Rules::Quotes, "it's|a \"b\"|"},
        {R"(\"a b\' "c \" d" 'e \' f')", Rules::Quotes, "\"a|b'|c \" d|e ' f|"},
        {R"(a\b c:\d\ \\"e)", Rules::Quotes, "a\\b|c:\\d\\|\\\"e|"},
        {"a '' \"\"b", Rules::Quotes, "a||b|"},
        {"a 'b c", Rules::Quotes, "a|b c|"},
        {"a\\", Rules::Quotes, "a\\|"},
        {"", Rules::Quotes, "", EINVAL},
        {" \t ", Rules::Quotes, "", EINVAL},
        {sixteen, Rules::Quotes, "", E2BIG},
        {fifteen + "  ", Rules::Quotes, "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|"},
        {"  a   'b c' d\te \"", Rules::BlanksOnly, "a|'b|c'|d\te|\"|"},
        {"   ", Rules::BlanksOnly, "", EINVAL},
        {sixteen, Rules::BlanksOnly, "", E2BIG},
        {fifteen + "  ", Rules::BlanksOnly, "1|2|3|4|5|6|7|8|9|10|11|12|13|14|15|"},
    };
    for (const auto& c : cases) {
        errno = 0;
        const auto split = CommandLine::split(c.line.c_str(), c.rules);
        EXPECT_EQ(errno, c.error) << c.line;
        std::string words;
        for (char* const* word = split ? split->words() : nullptr; word != nullptr && *word != nullptr;
             ++word)
            words += std::string(*word) + "|";
        EXPECT_EQ(words, c.words) << c.line;
    }
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
    const std::string text = readAll(output.in);
    EXPECT_EQ(waitFor(openProcess(pid), INFINITE), WAIT_OBJECT_0);
    return text;
}

TEST(Spawn, GivesTheProgramACleanStart) {
    const TempDir directory;
    const char* const there = directory.path().c_str();
    ASSERT_EQ(::symlink("/bin/pwd", (directory / "where").c_str()), 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGUSR1, [](int) {});
    const traiklofox::sys::UniqueFd inheritable(::dup(0));
    const traiklofox::sys::UniqueFd high(::fcntl(0, F_DUPFD, 900));
    ::setenv("CHILD_TEST", "inherited", 1);
    const struct {
        const char* commandLine;
        std::string output;
        const char* directory = nullptr;
    } cases[] = {
        {"/usr/bin/printf '%s|' a \"b c\" ''", "a|b c||"},
        {"/usr/bin/printenv CHILD_TEST", "inherited\n"},
        {"/usr/bin/readlink /proc/self/fd/0", "/dev/null\n"},
        {"/bin/ls /proc/self/fd", "0\n1\n2\n3\n"},
        // Without those of numbers 32 and 33, which the C library keeps to itself and leaves as they came.
        {"/bin/sed -n '/^Sig[BIC]/s/\\t\\(.*\\)[01][08]\\(.\\{7\\}\\)$/ \\1 \\2/p' /proc/self/status",
         "SigBlk: 0000000 0000000\nSigIgn: 0000000 0000000\nSigCgt: 0000000 0000000\n"},
        {"/bin/pwd", directory.path() + "\n", there},
        {"./where", directory.path() + "\n", there},
    };
    for (const auto& c : cases)
        for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS})
            EXPECT_EQ(outputOf(c.commandLine, {.flags = flags, .directory = c.directory}), c.output) << flags;
    {
        const FailCall missing{faults::Call::CloseRange, ENOSYS, {.andAllLater = true}};
        EXPECT_EQ(outputOf("/bin/ls /proc/self/fd"), "0\n1\n2\n3\n") << "a kernel without close_range";
    }
    const std::string session = std::to_string(::getsid(0)) + "\n";
    EXPECT_EQ(outputOf("/usr/bin/cut '-d ' -f6 /proc/self/stat"), session);
    EXPECT_NE(outputOf("/usr/bin/cut '-d ' -f6 /proc/self/stat", {.flags = CREATE_NEW_PROCESS_GROUP}),
              session);
    EXPECT_TRUE(soon(isChildless));
    Child detached{Via::DetachedProcess};
    EXPECT_EQ(::kill(detached.pid(), 0), 0) << "its own id is given";
    EXPECT_TRUE(isChildless());
    detached.end();
    EXPECT_EQ(waitFor(detached.handle, INFINITE), WAIT_OBJECT_0);
    EXPECT_FALSE(GetExitCodeProcess(detached.handle.get(), nullptr));
}

TEST(Spawn, FailedStartReportsWhyAndLeavesNothing) {
    const OwnedHandle event = makeEvent();
    const OwnedHandle noFile = makeFile();
    const OwnedHandle closedFile = makeFile(::fcntl(0, F_DUPFD_CLOEXEC, 700));
    ::close(fdOf(closedFile));
    const OwnedHandle self{new SecurityToken(::getuid(), ::getgid())};
    const struct {
        const char* commandLine;
        int error;
        Handle* token = nullptr;
        const char* directory = nullptr;
        Handle* input = nullptr;
    } cases[] = {
        {nullptr, EINVAL},
        {"  ", EINVAL},
        {"/bin/true 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", E2BIG},
        {"/no/program", ENOENT},
        {"/etc/passwd", EACCES, self.get()},  // whose start has a memory of its own
        {"/etc/passwd", EACCES},
        {"/bin/true", ENOENT, nullptr, "/no/directory"},
        {"/bin/true", EINVAL, INVALID_HANDLE_VALUE},
        {"/bin/true", EINVAL, event.get()},
        {"/bin/true", EBADF, nullptr, nullptr, event.get()},
        {"/bin/true", EBADF, nullptr, nullptr, noFile.get()},
        {"/bin/true", EBADF, nullptr, nullptr, closedFile.get()},
    };
    const int descriptors = openDescriptors();
    for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << &c - cases << ", flags " << flags);
            _STARTUPINFO startup{sizeof startup, 0, c.input, nullptr, nullptr};
            errno = 0;
            EXPECT_EQ(Spawn(flags, c.token, c.commandLine, c.directory, &startup), -1);
            EXPECT_EQ(errno, c.error);
        }
    }
    const auto startDetached = [](const FailCall& fault, int) {
        const int pid = Spawn(DETACHED_PROCESS, nullptr, "/bin/true", nullptr, nullptr);
        EXPECT_EQ(pid == -1, fault.fired() > 0);
    };
    EXPECT_EQ(failEveryCall(faults::Call::Pipe2, EMFILE, startDetached), 2);
    const FailCall noNull{faults::Call::Open, EMFILE};
    EXPECT_EQ(Spawn(0, nullptr, "/bin/true", nullptr, nullptr), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(isChildless());
}

// In a process of its own, because it may close and exchange the standard descriptors.
TEST_ROLE(withoutStandardDescriptors) {
    PipeEnds input, output;
    constexpr std::string_view kText = "through";
    if (::write(fdOf(input.out), kText.data(), kText.size()) != static_cast<ssize_t>(kText.size())) return 1;
    input.out.reset();
    ::dup2(fdOf(output.out), 0);  // each in the other's place
    ::dup2(fdOf(input.in), 1);
    const OwnedHandle in = makeFile(1), out = makeFile(0);
    _STARTUPINFO startup{sizeof startup, 0, in.get(), out.get(), nullptr};
    ::waitpid(Spawn(0, nullptr, "/bin/cat", nullptr, &startup), nullptr, 0);
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
    SecurityToken nobody(0, 0);
    if (nobody.SetUid(kNobody) + nobody.SetGid(kNobody) != 0) return 4;
    if (!nobody.InvokeSecurityToken()) return kNoSuchUser;
    if (::getuid() != kNobody || ::getgid() != kNobody || nobody.GetSavedUid() == kNobody) return 5;
    const OwnedHandle root{new SecurityToken(0, 0)};
    if (Spawn(0, root.get(), "/bin/true", nullptr, nullptr) != -1 || errno != EPERM) return 2;
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_NPROC, &none);
    for (const DWORD flags : {DWORD{0}, DETACHED_PROCESS})
        if (Spawn(flags, nullptr, "/bin/true", nullptr, nullptr) != -1 || errno != EAGAIN) ::_exit(3);
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
    SecurityToken self(kNobody, kNobody);
    EXPECT_EQ(self.SetUid(self.GetSavedUid()) + self.SetGid(self.GetSavedGid()), 2 * kNobody);
    EXPECT_EQ(self.InvokeSecurityToken(), 1);
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
    EXPECT_TRUE(soon(isChildless));
}
#endif

}  // namespace
