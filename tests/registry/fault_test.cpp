// Each system call that writing and reading the registry make fails, one after the other, with each error. The file is
// then the old one or the new one, the change is kept for the next write, and no descriptor or lock stays behind.

#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>

#include <cstring>
#include <filesystem>
#include <iostream>

#include "registry/registry_fixture.h"
#include "registry/shared_state.h"
#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using faults::Call;
namespace fs = std::filesystem;
using registry::ShmStruct;

/// Which failures of a call the operation outlives: it then succeeds.
enum class Outlives { None, Interruptions, All };

struct Seam {
    Call call;
    const char* name;
    Outlives outlives;
};

// All that `strace` shows of the operation, but for memory and the process's id.
constexpr Seam kWriteCalls[] = {
    {Call::Getrandom, "getrandom", Outlives::All},  // another source will do
    {Call::Lstat, "lstat", Outlives::All},          // the temporary file is made exclusively anyway
    {Call::Open, "open", Outlives::Interruptions},
    {Call::Lseek, "lseek", Outlives::All},  // like a pipe, which has no position
    {Call::Lockf, "lockf", Outlives::Interruptions},
    {Call::Fstat, "fstat", Outlives::None},
    {Call::Ftruncate, "ftruncate", Outlives::Interruptions},
    {Call::Semop, "semop", Outlives::Interruptions},
    {Call::Read, "read", Outlives::Interruptions},
    {Call::Opendir, "opendir", Outlives::All},  // a later write tidies up
    {Call::Readdir, "readdir", Outlives::All},
    {Call::Closedir, "closedir", Outlives::All},
    {Call::Kill, "kill", Outlives::All},
    {Call::Unlink, "unlink", Outlives::All},
    {Call::Fchown, "fchown", Outlives::All},  // only root may
    {Call::Fchmod, "fchmod", Outlives::None},
    {Call::Write, "write", Outlives::Interruptions},
    {Call::Fdatasync, "fdatasync", Outlives::Interruptions},
    {Call::Rename, "rename", Outlives::None},
    {Call::Fsync, "fsync", Outlives::Interruptions},
    {Call::Close, "close", Outlives::All},  // what is to be on the disk has been synced
    {Call::Malloc, "malloc", Outlives::None},
};

constexpr Seam kReadCalls[] = {
    {Call::Semop, "semop", Outlives::Interruptions}, {Call::Open, "open", Outlives::Interruptions},
    {Call::Read, "read", Outlives::Interruptions},   {Call::Close, "close", Outlives::All},
    {Call::Malloc, "malloc", Outlives::None},
};

struct Fault {
    const char* name;
    int error;
    faults::Options options = {};
};

constexpr Fault kFaults[] = {
    {"ENOSPC", ENOSPC},
    {"EIO", EIO},
    {"EMFILE", EMFILE},
    {"EACCES", EACCES},
    {"ENOMEM", ENOMEM},
    {"EINTR", EINTR},
    {"one byte, then all the rest", EINTR, {.transferAtMost = 1}},
    {"1000 bytes, then ENOSPC", ENOSPC, {.andAllLater = true, .transferAtMost = 1000}},
};

/// A failing semaphore ends the process; that has a test of its own.
bool isToBeMade(Call call, const Fault& fault) {
    if (fault.options.transferAtMost != SIZE_MAX) return call == Call::Read || call == Call::Write;
    if (call == Call::Malloc) return fault.error == ENOMEM;
    return call != Call::Semop || fault.error == EINTR;
}

/// One call that is to fail in one way.
class Attempt {
  public:
    Attempt(const Seam& seam, const Fault& fault, int onCall)
        : seam_(seam), error_(fault.error), options_(fault.options) {
        options_.onCall = onCall;
    }
    template <class Operation>
    int make(Operation operation) {
        options_.thisThreadOnly = true;
        const FailCall rule(seam_.call, error_, options_);
        const int result = operation();
        fired_ = rule.fired() > 0;
        return result;
    }
    bool fired() const { return fired_; }
    bool mustSucceed() const {
        return !fired_ || seam_.outlives == Outlives::All ||
               (seam_.outlives == Outlives::Interruptions && error_ == EINTR);
    }

  private:
    const Seam& seam_;
    const int error_;
    faults::Options options_;
    bool fired_ = false;
};

void noCoreFiles() {
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
}

/// Writes a change while the semaphore's operation number `args[1]` fails with the error `args[0]`.
TEST_ROLE(failsAtTheSemaphore) {
    noCoreFiles();
    const OpenKey key(kExample);
    setText(key, "v", "new");
    const FailCall fails(Call::Semop, std::stoi(args.at(0)), std::stoi(args.at(1)));
    const bool written = RegFlushKey(key) == 0;
    return written && fails.fired() == 0 ? 0 : 1;
}

class Faults : public StartedRegistryTest {
  protected:
    /// A file of several reads and writes, as another process has left it.
    static std::string fileOfRound(int round) {
        static const std::string filler(3500, 'x');
        std::string text = keyLine("") + keyLine("software") + keyLine(kExample) + valueLine("gone", "1") +
                           valueLine("theirs", std::to_string(round));
        for (int i = 0; i < 85; ++i) text += valueLine("z" + std::to_string(i), filler);
        return text;
    }
    /// The same with what this process makes of it.
    static FileKeys changedFileOfRound(int round) {
        const FileValue ours{"REG_SZ", std::to_string(round)};
        FileKeys keys = parseRegistry(fileOfRound(round));
        keys.at(kExamplePath).erase("gone");
        keys.at(kExamplePath)["mine"] = ours;
        keys[std::string(kExamplePath) + "\\made"]["v"] = ours;
        return keys;
    }
    static int semaphoreValue() {
        return ::semctl(::semget(::ftok("/usr/lib/tarnwell/twml_data.dat", 1), 1, 0), 0, GETVAL);
    }
    static void expectNoLockHeld() {
        EXPECT_EQ(semaphoreValue(), 1);
        EXPECT_EQ(RegUnlockCache(REG_LOCK_EXCLUSIVE), 0) << "still held by this thread";
    }

    /// Calls `round(attempt, number)` for each call of the table, the first, the second and so on, with each fault.
    template <size_t kSeams, class Round>
    static void sweep(const Seam (&seams)[kSeams], Round round) {
        int number = 0;
        for (const Seam& seam : seams) {
            for (const Fault& fault : kFaults) {
                if (!isToBeMade(seam.call, fault)) continue;
                for (int onCall = 1, fired = true; fired; ++onCall) {
                    SCOPED_TRACE(seam.name + std::string(" number ") + std::to_string(onCall) + ": " +
                                 fault.name);
                    Attempt attempt(seam, fault, onCall);
                    const int before = openDescriptors();
                    round(attempt, ++number);
                    EXPECT_EQ(openDescriptors(), before);
                    fired = attempt.fired();
                    EXPECT_TRUE(fired || onCall > 1) << "no longer called, or not through the seam";
                    if (HasFailure()) return;
                }
            }
        }
        std::cout << number << " rounds\n";
    }
};

TEST_F(Faults, AWriteLeavesTheOldFileOrTheNewOneAndKeepsTheChange) {
    const CapturedStderr said;
    int failures = 0;
    sweep(kWriteCalls, [&](Attempt& attempt, int round) {
        const std::string text = std::to_string(round);
        replaceFile(fileOfRound(round));
        ASSERT_EQ(textAt(kExample, "theirs"), text);
        const OpenKey made = OpenKey::createBelow(key, "made");
        ASSERT_EQ(setText(made, "v", text) + setText(key, "mine", text) + RegDeleteValue(key, "gone"), 0);
        fs::permissions(file(), fs::perms{0640});
        writeText(directory() + "/.kztmp.99999999.0-0", "left by a process that is no more");
        RegBumpVersion();  // so that the write reads first

        const size_t saidBefore = said.text().size();
        const bool written = attempt.make([this] { return RegFlushKey(key); }) == 0;
        const std::string after = fileText();
        EXPECT_TRUE(written || !attempt.mustSucceed());
        EXPECT_TRUE(written || said.text().find("WriteRegistry: ", saidBefore) != std::string::npos);
        EXPECT_TRUE((!written && after == fileOfRound(round)) ||
                    parseRegistry(after) == changedFileOfRound(round));
        EXPECT_EQ(fs::status(file()).permissions(), fs::perms{0640}) << "a secret let out";
        failures += !written;
        expectNoLockHeld();
        EXPECT_EQ(textOf(key, "mine"), text);
        EXPECT_EQ(textOf(key, "gone"), std::nullopt);
        EXPECT_EQ(textAt(std::string(kExample) + "\\made", "v"), text);

        ASSERT_TRUE(written ? WriteRegistry() == 1 : RegFlushKey(key) == 0)
            << "what a failed write left is carried";
        EXPECT_EQ(fileKeys(), changedFileOfRound(round));
        EXPECT_EQ(otherFiles(), Names{});
    });
    EXPECT_GT(failures, 30);
}

TEST_F(Faults, AReadThatFailsTakesNothingAwayAndIsMadeUpFor) {
    const CapturedStderr quiet;
    replaceFile(fileOfRound(0));
    ASSERT_EQ(textAt(kExample, "theirs"), "0");
    sweep(kReadCalls, [&](Attempt& attempt, int round) {
        const std::string text = std::to_string(round);
        ASSERT_EQ(setText(key, "mine", text), 0);
        replaceFile(fileOfRound(round));
        const int result = attempt.make([] { return ReadRegistry(/*purge=*/1); });
        if (attempt.mustSucceed()) {
            EXPECT_EQ(result, 1);
            EXPECT_EQ(textOf(key, "theirs"), text);
        }
        EXPECT_EQ(valuesOf(key).size(), 88u) << "purged by a reading that did not reach them";
        EXPECT_EQ(textOf(key, "mine"), text);
        expectNoLockHeld();
        EXPECT_EQ(textAt(kExample, "theirs"), text) << "the next look-up reads again";
    });
}

// Without the semaphore nothing is safe, and one that is kept blocks everybody: the kernel takes it from the dead.
TEST_F(Faults, ASemaphoreThatFailsEndsItsProcessAndHoldsNobodyUp) {
    for (const int error : {ENOSPC, EIO, ENOMEM, EACCES}) {
        for (int onCall = 1;; ++onCall) {
            SCOPED_TRACE("operation " + std::to_string(onCall) + ": " + std::strerror(error));
            replaceFile(fileOfRound(0));
            const CapturedStderr said;
            RoleProcess process("failsAtTheSemaphore", {std::to_string(error), std::to_string(onCall)});
            const ExitStatus status = process.wait();
            EXPECT_TRUE(fileText() == fileOfRound(0) || inFile("v") == "new");
            expectNoLockHeld();
            setText(key, "w", std::to_string(onCall));
            EXPECT_EQ(RegFlushKey(key), 0);
            EXPECT_EQ(otherFiles(), Names{});
            if (status == ExitStatus::exited(0)) {
                EXPECT_GT(onCall, 2) << "no longer called, or not through the seam";
                break;
            }
            EXPECT_EQ(status, ExitStatus::killedBy(SIGABRT));
            EXPECT_EQ(said.text(), std::string("Error: performing semop() on Tarnwell Registry semaphore:") +
                                       std::strerror(error) + "\n");
        }
    }
}

/// Starts while the call `args[0]` number `args[2]` fails with the error `args[1]`, and tells whether it did.
TEST_ROLE(startsWithAFault) {
    noCoreFiles();
    {
        const FailCall fails(static_cast<Call>(std::stoi(args.at(0))), std::stoi(args.at(1)),
                             std::stoi(args.at(2)));
        InitRegistry(REG_INIT_BACKUP, /*create=*/true);
        tellTest(fails.fired() > 0 ? "failed" : "all well");
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
        if (fs::exists(file())) {
            EXPECT_EQ(fileText(), readText(templateFile()));
        }
        return outcome != "all well";
    }
};

TEST_F(FaultsAtTheStart, EachIsOutlivedOrEndsTheProcessWithAWordAndLeavesNoHalfFile) {
    constexpr int kNone = -1;
    ASSERT_TRUE(!startFails(kNone, EIO, 1)) << "the shared objects are made by this one";
    int failures = 0;
    for (int call = 0; call < faults::kCallKinds; ++call) {
        const bool isMalloc = call == static_cast<int>(Call::Malloc);
        for (const int error : isMalloc ? std::vector{ENOMEM} : std::vector{EIO, EMFILE}) {
            for (int onCall = 1; startFails(call, error, onCall); ++onCall, ++failures)
                ASSERT_FALSE(HasFailure()) << "kind " << call << ", number " << onCall;
        }
    }
    EXPECT_GT(failures, 60);
    EXPECT_EQ(otherFiles(), Names{"tw.registry.bak"});
}

}  // namespace
}  // namespace traiklofox::test
