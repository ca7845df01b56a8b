// Each system call that starting, writing and reading the registry make fails, one after the other, with each error.
// The file is then the old one or the new one, the change is kept for the next write, and nothing stays behind.

#include <sys/resource.h>

#include <filesystem>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using faults::Call;
namespace fs = std::filesystem;

/// Which failures of a call the operation outlives: it then succeeds.
enum class Outlives { None, Interruptions, All };
using enum Outlives;

struct Seam {
    Call call;
    Outlives outlives;
};

// clang-format off
// All that `strace` shows of the operation, but for memory and the process's id.
constexpr Seam kWriteCalls[] = {
    {Call::Getrandom, All},  // another source will do
    {Call::Lstat, All},      // the temporary file is made exclusively anyway
    {Call::Lseek, All},      // like a pipe, which has no position
    {Call::Fchown, All},     // only root may
    {Call::Close, All},      // what is to be on the disk has been synced
    // A later write tidies up.
    {Call::Opendir, All}, {Call::Readdir, All}, {Call::Closedir, All}, {Call::Kill, All}, {Call::Unlink, All},
    {Call::Open, Interruptions}, {Call::Lockf, Interruptions}, {Call::Ftruncate, Interruptions},
    {Call::Semop, Interruptions}, {Call::Read, Interruptions}, {Call::Write, Interruptions},
    {Call::Fdatasync, Interruptions}, {Call::Fsync, Interruptions},
    {Call::Fstat, None}, {Call::Fchmod, None}, {Call::Rename, None}, {Call::Malloc, None}};
constexpr Seam kReadCalls[] = {{Call::Semop, Interruptions}, {Call::Open, Interruptions}, {Call::Read, Interruptions},
                               {Call::Close, All}, {Call::Fstat, All}, {Call::Malloc, None}};

constexpr struct Fault { const char* name; int error; faults::Options options = {}; } kFaults[] = {
    {"ENOSPC", ENOSPC}, {"EIO", EIO}, {"EMFILE", EMFILE}, {"EACCES", EACCES}, {"ENOMEM", ENOMEM}, {"EINTR", EINTR},
    {"one byte, then all the rest", EINTR, {.transferAtMost = 1}},
    {"1000 bytes, then ENOSPC", ENOSPC, {.andAllLater = true, .transferAtMost = 1000}}};
// clang-format on

/// A failing semaphore ends the process; that has a test of its own.
bool isToBeMade(Call call, const Fault& fault) {
    if (fault.options.transferAtMost != SIZE_MAX) return call == Call::Read || call == Call::Write;
    if (call == Call::Malloc) return fault.error == ENOMEM;
    return call != Call::Semop || fault.error == EINTR;
}

class Faults : public StartedRegistryTest {
  protected:
    /// A file of several reads and writes, as another process has left it.
    static std::string fileOfRound(int round) {
        std::string text = keyLine("") + keyLine("software") + keyLine(kExample) + valueLine("gone", "1") +
                           valueLine("theirs", std::to_string(round));
        for (int i = 0; i < 85; ++i) text += valueLine("z" + std::to_string(i), std::string(3500, 'x'));
        return text + keyLine(kExample + std::string("\\doomed"));
    }
    /// The same with what this process makes of it.
    static FileKeys changedFileOfRound(int round) {
        const FileValue ours{"REG_SZ", std::to_string(round)};
        FileKeys keys = parseRegistry(fileOfRound(round));
        keys.at(kExamplePath).erase("gone");
        keys.at(kExamplePath)["mine"] = ours;
        keys.erase(std::string(kExamplePath) + "\\doomed");
        keys[std::string(kExamplePath) + "\\made"]["v"] = ours;
        return keys;
    }
    static void expectNoLockHeld() {
        EXPECT_EQ(semaphoreValue(), 1);
        EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 0) << "still held by this thread";
    }

    /// For each call of the table, the first, the second and so on, with each fault: `prepare(round)`, then with the
    /// fault `operate()`, then `check(result, round, must it have succeeded)`.
    template <size_t kSeams, class Prepare, class Operate, class Check>
    static void sweep(const Seam (&seams)[kSeams], Prepare prepare, Operate operate, Check check) {
        int round = 0;
        for (const auto& [call, outlives] : seams)
            for (const Fault& fault : kFaults) {
                bool fired = isToBeMade(call, fault);
                for (int onCall = 1; fired; ++onCall) {
                    SCOPED_TRACE("call kind " + std::to_string(static_cast<int>(call)) + " number " +
                                 std::to_string(onCall) + ": " + fault.name);
                    const int descriptors = openDescriptors();
                    prepare(++round);
                    faults::Options options = fault.options;
                    options.onCall = onCall;
                    options.thisThreadOnly = true;
                    std::optional<FailCall> rule(std::in_place, call, fault.error, options);
                    const int result = operate();
                    fired = rule->fired() > 0;
                    rule.reset();
                    check(result, round,
                          !fired || outlives == All || (outlives == Interruptions && fault.error == EINTR));
                    EXPECT_EQ(openDescriptors(), descriptors);
                    EXPECT_TRUE(fired || onCall > 1) << "no longer called, or not through the seam";
                    if (HasFailure()) return;
                }
            }
    }
};

TEST_F(Faults, AWriteLeavesTheOldFileOrTheNewOneAndKeepsTheChange) {
    const CapturedStderr said;
    int failures = 0;
    size_t saidBefore = 0;
    const auto prepare = [&](int round) {
        const std::string text = std::to_string(round);
        replaceFile(fileOfRound(round));
        EXPECT_EQ(textAt(kExample, "theirs"), text);
        bLazyFlush = 1;  // so that nothing is written yet
        EXPECT_EQ(setText(OpenKey::createBelow(key, "made"), "v", text) + setText(key, "mine", text) +
                      RegDeleteValue(key, "gone") + RegDeleteKey(key, "doomed"),
                  0);
        bLazyFlush = 0;
        fs::permissions(file(), fs::perms{0640});
        writeText(directory() + "/.kztmp.99999999.0-0", "left by a process that is no more");
        RegBumpVersion();  // so that the write reads first
        saidBefore = said.text().size();
    };
    const auto check = [&](LONG result, int round, bool mustSucceed) {
        const std::string after = fileText();
        const bool written = result == 0;
        EXPECT_TRUE(written || !mustSucceed);
        EXPECT_TRUE(written || said.text().find("WriteRegistry: ", saidBefore) != std::string::npos);
        EXPECT_TRUE((!written && after == fileOfRound(round)) ||
                    parseRegistry(after) == changedFileOfRound(round));
        EXPECT_EQ(fs::status(file()).permissions(), fs::perms{0640}) << "a secret let out";
        failures += !written;
        expectNoLockHeld();
        EXPECT_EQ(textOf(key, "mine"), std::to_string(round));
        EXPECT_EQ(textOf(key, "gone"), std::nullopt);
        EXPECT_EQ(textAt(std::string(kExample) + "\\made", "v"), std::to_string(round));
        EXPECT_FALSE(keyExists(std::string(kExample) + "\\doomed"));
        EXPECT_TRUE(written ? WriteRegistry() == 1 : RegFlushKey(key) == 0)
            << "what a failed write left is carried";
        EXPECT_EQ(fileKeys(), changedFileOfRound(round));
        EXPECT_EQ(otherFiles(), Names{});
    };
    sweep(
        kWriteCalls, prepare, [this] { return RegFlushKey(key); }, check);
    EXPECT_GT(failures, 30);
}

TEST_F(Faults, AReadThatFailsTakesNothingAwayAndIsMadeUpFor) {
    const CapturedStderr quiet;
    replaceFile(fileOfRound(0));
    ASSERT_EQ(textAt(kExample, "theirs"), "0");
    const auto prepare = [&](int round) {
        EXPECT_EQ(setText(key, "mine", std::to_string(round)), 0);
        replaceFile(fileOfRound(round));
    };
    const auto check = [&](int result, int round, bool mustSucceed) {
        const std::string text = std::to_string(round);
        EXPECT_TRUE(!mustSucceed || (result == 1 && textOf(key, "theirs") == text));
        EXPECT_EQ(valuesOf(key).size(), 88u) << "purged by a reading that did not reach them";
        EXPECT_EQ(textOf(key, "mine"), text);
        expectNoLockHeld();
        EXPECT_EQ(textAt(kExample, "theirs"), text) << "the next look-up reads again";
    };
    sweep(
        kReadCalls, prepare, [] { return ReadRegistry(/*purge=*/1); }, check);
}

/// Starts and writes while the call `args[0]` number `args[2]` fails with the error `args[1]`; tells whether it did.
TEST_ROLE(startsWithAFault) {
    const rlimit noCoreFile{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCoreFile);
    {
        const FailCall fails(static_cast<Call>(std::stoi(args.at(0))), std::stoi(args.at(1)),
                             std::stoi(args.at(2)));
        InitRegistry(REG_INIT_BACKUP, /*create=*/true);
        const OpenKey key(kExample);
        const bool isSet = setText(key, "v", "new") == 0 && RegFlushKey(key) == 0;
        tellTest(fails.fired() > 0 ? "failed" : isSet ? "all well" : "failed for nothing");
    }
    tellTest(textAt(kExample, "Name").value_or("(none)"));
    return 0;
}

class FaultsAtTheStart : public RegistryTest {
  protected:
    /// Whether the call was made, and failed.
    bool startFails(int call, int error, int onCall) const {
        fs::remove(file());
        const CapturedStderr said;
        RoleProcess process("startsWithAFault",
                            {std::to_string(call), std::to_string(error), std::to_string(onCall)});
        const auto outcome = process.readLine();
        const auto name = process.readLine();
        const ExitStatus status = process.wait();
        if (outcome) {
            EXPECT_EQ(name, "primary") << said.text();
            EXPECT_EQ(status, ExitStatus::exited(0));
        } else {
            EXPECT_TRUE(status == ExitStatus::exited(1) || status == ExitStatus::killedBy(SIGABRT)) << status;
            EXPECT_NE(said.text(), "") << "it ended without a word";
        }
        EXPECT_TRUE(!fs::exists(file()) || fileText() == readText(templateFile()) || inFile("v") == "new");
        EXPECT_EQ(semaphoreValue(), 1) << "the kernel takes it from the dead";
        return outcome != "all well";
    }
};

// Without the semaphore nothing is safe, and one that is kept blocks everybody: one that fails ends the process.
TEST_F(FaultsAtTheStart, EachIsOutlivedOrEndsTheProcessWithAWordAndLeavesNoHalfFile) {
    constexpr int kNone = -1;
    ASSERT_TRUE(!startFails(kNone, EIO, 1)) << "the shared objects are made by this one";
    int failures = 0;
    for (int call = 0; call < faults::kCallKinds; ++call)
        for (const int error :
             static_cast<Call>(call) == Call::Malloc ? std::vector{ENOMEM} : std::vector{EIO, EMFILE})
            for (int onCall = 1; startFails(call, error, onCall); ++onCall, ++failures)
                ASSERT_FALSE(HasFailure()) << "kind " << call << ", number " << onCall;
    EXPECT_GT(failures, 60);
    EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
}

}  // namespace
}  // namespace traiklofox::test
