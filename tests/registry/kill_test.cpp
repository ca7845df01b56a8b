// Writers that are killed, at any system call or at any moment, lose nothing that was acknowledged, and block nobody.

#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

#include "registry/registry_fixture.h"
#include "registry/shared_state.h"
#include "support/bounded_wait.h"
#include "support/fault_injection.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Moment = KillAtCall::Moment;
namespace fs = std::filesystem;

class Killing : public StartedRegistryTest {
  protected:
    /// What must hold whoever was killed at whatever moment.
    void expectWholeAndFree() {
        (void)fileKeys();  // throws unless every line is laid out as it should be
        EXPECT_EQ(semaphoreValue(), 1);
        setText(key, "survivor", std::to_string(++writes_));
        ASSERT_EQ(RegFlushKey(key), 0);
        EXPECT_EQ(inFile("survivor"), std::to_string(writes_));
        EXPECT_EQ(otherFiles(), Names{}) << "a write removes the temporary files of the dead";
    }

  private:
    int writes_ = 0;
};

/// Writes one value; then dies at the call number `args[1]` of writing another.
TEST_ROLE(diesWhileItWrites) {
    const OpenKey key(kExample);
    if (setText(key, "acknowledged", args.at(1)) != 0 || RegFlushKey(key) != 0) return 1;
    tellTest("acknowledged");
    (void)hearTest();
    setText(key, "asked", args.at(1));
    const KillAtCall death(args.at(0) == "before" ? Moment::Before : Moment::After, std::stoi(args.at(1)));
    return RegFlushKey(key) == 0 ? 0 : 1;
}

TEST_F(Killing, AtAnySystemCallOfAWriteLosesNothingAcknowledged) {
    std::string asked = "none";
    for (const char* moment : {"before", "after"}) {
        int onCall = 1;
        for (bool killed = true; killed; ++onCall) {
            const std::string number = std::to_string(onCall);
            SCOPED_TRACE(moment + (" call " + number));
            RoleProcess writer("diesWhileItWrites", {moment, number});
            EXPECT_EQ(writer.readLine(), "acknowledged");
            EXPECT_EQ(textAt(kExample, "acknowledged"), number);
            EXPECT_TRUE(writer.writeLine("go on"));
            const ExitStatus status = writer.wait();
            killed = status == ExitStatus::killedBy(SIGKILL);
            EXPECT_TRUE(killed || status == ExitStatus::exited(0)) << status;
            EXPECT_EQ(inFile("acknowledged"), number);
            const std::string found = inFile("asked").value_or("none");
            EXPECT_TRUE(found == number || (killed && found == asked)) << found;
            asked = found;
            EXPECT_EQ(textAt(kExample, "asked").value_or("none"), found) << "also if it was not counted";
            EXPECT_EQ(registry::ShmStruct()->lockHolder.load(), 0u);
            expectWholeAndFree();
        }
        EXPECT_GT(onCall, 20);
    }
}

/// Makes an installation's shared objects and its file, and dies on the way at the call number `args[0]`.
TEST_ROLE(diesWhileItStarts) {
    const KillAtCall death(Moment::Before, std::stoi(args.at(0)));
    InitRegistry(REG_INIT_BACKUP, /*create=*/true);
    return 0;
}

constexpr int kNobodyDied = 2;

/// On a machine of its own, so that several work at once: most wait for a while for a creator that is dead.
TEST_ROLE(startsAfterOneThatDied) {
    if (::unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0 ||
        ::mount("tmpfs", "/usr/lib/tarnwell", "tmpfs", MS_NOSUID, nullptr) != 0)
        return 1;
    ::setenv("TWHOME", args.at(1).c_str(), /*overwrite=*/1);
    const ExitStatus status = RoleProcess("diesWhileItStarts", {args.at(0)}).wait();
    std::vector<Peer> next(2);
    for (Peer& peer : next) peer.tell({"setMany", kExample, &peer == &next[0] ? "a" : "b", "20"});
    for (Peer& peer : next) EXPECT_EQ(peer.answer(), "0");
    const FileKeys keys = parseRegistry(readText(args.at(1) + "/registry/tw.registry"));
    EXPECT_EQ(keys.at(kExamplePath).size(), 41u);  // with the template's one
    for (const auto& entry : fs::directory_iterator(args.at(1) + "/registry"))
        EXPECT_EQ(entry.path().filename().string().find("tw.registry"), 0u) << entry;
    EXPECT_TRUE(status == ExitStatus::killedBy(SIGKILL) || status == ExitStatus::exited(0)) << status;
    return status == ExitStatus::exited(0) ? kNobodyDied : 0;
}

class KillingAtTheStart : public RegistryTest {};

TEST_F(KillingAtTheStart, AtAnySystemCallLeavesAnInstallationThatStarts) {
    constexpr int kAtOnce = 10;
    int onCall = 1;
    for (bool killed = true; killed;) {
        std::vector<RoleProcess> successors;
        for (int i = 0; i < kAtOnce; ++i, ++onCall) {
            const std::string number = std::to_string(onCall);
            const std::string ownHome = home() + "/" + number;
            writeText(ownHome + "/registry/tw.registry.template", readText(templateFile()));
            successors.emplace_back("startsAfterOneThatDied", RoleArguments{number, ownHome});
        }
        for (RoleProcess& successor : successors) {
            const ExitStatus status = successor.wait();
            EXPECT_TRUE(status == ExitStatus::exited(0) || status == ExitStatus::exited(kNobodyDied))
                << status;
            killed = status == ExitStatus::exited(0);
        }
    }
    EXPECT_GT(onCall, 30);
}

constexpr int kWriters = 8;
constexpr int kKills = kSanitized ? 100 : 500;

// A writer sets its values by turns, and makes one of its subkeys and deletes another.
std::string slotOf(int step) {
    return "v" + std::to_string(step % 20);
}
std::string subkeyOf(int step) {
    return "k" + std::to_string(step % 4);
}

/// Each step changes several things, which one write puts into the file.
bool takeStep(HKEY key, int step) {
    const std::string number = std::to_string(step);
    LONG failed = setText(key, slotOf(step), number);
    OpenKey made;
    if (step % 5 == 0) {
        made = OpenKey::createBelow(key, subkeyOf(step));
        failed |= setText(made, "step", number);
        (void)RegDeleteKey(key, subkeyOf(step + 2).c_str());  // there is none at first
    }
    return (failed | RegFlushKey(key)) == 0;
}

/// What the file then holds of the writer whose key is `own`.
FileKeys stateAfter(const std::string& own, int lastStep) {
    FileKeys keys{{own, {}}};
    for (int step = 1; step <= lastStep; ++step) {
        const FileValue value{"REG_SZ", std::to_string(step)};
        keys.at(own)[slotOf(step)] = value;
        if (step % 5 != 0) continue;
        keys[own + "\\" + subkeyOf(step)] = {{"step", value}};
        keys.erase(own + "\\" + subkeyOf(step + 2));
    }
    return keys;
}

TEST_ROLE(writesAndTells) {
    const OpenKey own = OpenKey::createBelow(OpenKey(kExample), args.at(0));
    for (int step = std::stoi(args.at(1)); hearTest(0ms) != "stop"; ++step) {
        if (!takeStep(own, step)) return 1;
        tellTest(std::to_string(step));
    }
    return 0;
}

struct Writer {
    std::string name;
    int last = 0;
    std::optional<RoleProcess> process{};

    void start() { process.emplace("writesAndTells", RoleArguments{name, std::to_string(last + 1)}); }
    /// Takes down what it has told until now; with a `wait`, until its end.
    void listen(std::chrono::milliseconds wait = 0ms) {
        while (const auto line = process->readLine(wait)) last = std::stoi(*line);
    }
    void expectEnd(ExitStatus expected) {
        listen(kPeerTimeout);
        EXPECT_EQ(process->wait(), expected) << name << " was blocked or failed";
    }
    /// Everything is as after its last step, or as after one more, whose telling its end forestalled.
    void check(const FileKeys& keys) const {
        const std::string own = std::string(kExamplePath) + "\\" + name;
        FileKeys found;
        for (const auto& key : keys)
            if (key.first.starts_with(own)) found.insert(key);
        EXPECT_TRUE(found == stateAfter(own, last) || found == stateAfter(own, last + 1))
            << name << ", told step " << last << ": " << ::testing::PrintToString(found);
    }
};

TEST_F(Killing, AtAnyMomentLosesNothingAcknowledgedAndBlocksNobody) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random{std::mt19937(seed)};
    std::vector<Writer> writers;
    for (int i = 0; i < kWriters; ++i) writers.emplace_back(Writer{"w" + std::to_string(i)}).start();
    for (int kills = 0; kills < kKills && !HasFailure(); ++kills) {
        const auto moment = Clock::now() + std::chrono::microseconds{random.below(20'000)};
        do {
            for (Writer& writer : writers) writer.listen();
            std::this_thread::sleep_for(1ms);  // leaves the processors to the writers until the random moment
        } while (Clock::now() < moment);
        auto victim = writers.begin() + random.below(kWriters);
        if (random.below(2) == 0) {  // rather the one that has the lock
            (void)within(1s, [&] {
                const auto found = std::ranges::find_if(writers, [](const Writer& writer) {
                    return registry::ShmStruct()->lockHolder == static_cast<DWORD>(writer.process->pid());
                });
                if (found != writers.end()) victim = found;
                return found != writers.end();
            });
        }
        victim->process->kill(SIGKILL);
        victim->expectEnd(ExitStatus::killedBy(SIGKILL));
        victim->start();
        (void)fileKeys();  // throws unless the file is whole
        EXPECT_LE(otherFiles().size(), 2u * kWriters);
    }
    int steps = 0;
    for (Writer& writer : writers) {
        EXPECT_TRUE(writer.process->writeLine("stop"));
        writer.expectEnd(ExitStatus::exited(0));
        steps += writer.last;
    }
    const FileKeys keys = fileKeys();
    for (const Writer& writer : writers) writer.check(keys);
    std::cout << steps << " steps by " << kWriters << " writers, " << kKills << " of them killed\n";
    EXPECT_GT(steps, kKills);
    expectWholeAndFree();
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
}

}  // namespace
}  // namespace traiklofox::test
