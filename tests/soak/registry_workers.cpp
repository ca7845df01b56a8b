// Those who share the registry: writers that write at once and may die of it, readers, and writers with a lazy writer.

#include <pthread.h>
#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <atomic>
#include <thread>

#include "foundation/on_exit.h"
#include "soak/life.h"
#include "soak/registry_state.h"
#include "soak/workers.h"
#include "support/bounded_wait.h"
#include "support/owned_handle.h"

namespace traiklofox::soak {
namespace {

using namespace std::chrono_literals;
using test::FailCall;
using test::KillAtCall;
using test::OpenKey;
using test::faults::Call;

constexpr std::chrono::seconds kBound{40};

struct Fault {
    Call call;
    int error;
};
constexpr Fault kFaults[] = {
    {Call::Write, ENOSPC}, {Call::Write, EIO}, {Call::Fdatasync, EIO},  {Call::Rename, EACCES},
    {Call::Fchmod, EIO},   {Call::Fsync, EIO}, {Call::Opendir, ENOMEM},
};
constexpr int kOneStepInFails = 40;
constexpr int kOneStepInKills = 400;
constexpr int kMostCalls = 60;  // in a step, about

OpenKey openOwnKey(size_t slot) {
    return OpenKey::createBelow(OpenKey(kSoakKey), writerKey(slot));
}

bool take(const Step& step, HKEY key) {
    if (test::setText(key, step.value, step.number) != 0) return false;
    if (step.madeKey) {
        const OpenKey made = OpenKey::createBelow(key, *step.madeKey);
        if (test::setText(made, "step", step.number) != 0) return false;
    }
    if (step.deletedKey) (void)RegDeleteKey(key, step.deletedKey->c_str());  // there is none at first
    return RegFlushKey(key) == 0;
}

void writeStep(Life& life, HKEY key) {
    Journal& journal = ownSlot().registry;
    const std::uint32_t number = journal.acknowledged + 1;
    journal.asked = number;
    const Step step(number);
    {
        std::optional<FailCall> fault;
        std::optional<KillAtCall> death;
        if (life.random.below(kOneStepInFails) == 0) {
            const Fault& chosen = kFaults[life.random.below(std::size(kFaults))];
            fault.emplace(chosen.call, chosen.error, test::faults::Options{.path = "/registry"});
        }
        if (life.isMortal && life.random.below(kOneStepInKills) == 0) {
            const auto moment =
                life.random.below(2) == 0 ? KillAtCall::Moment::Before : KillAtCall::Moment::After;
            death.emplace(moment, 1 + static_cast<int>(life.random.below(kMostCalls)));
        }
        const bool written = timed(Op::RegistryWrite, [&] { return take(step, key); });
        if (fault) board().faults += static_cast<std::uint32_t>(fault->fired());
        if (!written) {
            fault.reset();
            // The changes are marked still: no more is to be done than to ask again once there is room.
            const bool comes = test::within(kBound, [&] { return RegFlushKey(key) == 0; });
            check(WritesStay, comes, "step %u cannot be written", number);
        }
    }
    journal.acknowledged = number;
}

TEST_ROLE(writer) {
    Life life(args, kGreatSteps);
    const OpenKey key = openOwnKey(life.slot);
    return life.live([&] {
        writeStep(life, key);
        std::this_thread::sleep_for(1ms * life.random.below(10));
    });
}

/// A slot of a writer.
size_t anyWriter(Life& life) {
    return life.random.below(kWriters);
}

/// What another process was told to be written is there for the next look-up.
void lookAt(size_t slot) {
    const std::uint32_t acknowledged = board().slots[slot].registry.acknowledged;
    const std::string path = std::string(kSoakKey) + "\\" + writerKey(slot);
    std::optional<std::string> text;
    (void)timed(Op::RegistryLook, [&] {
        text = test::textAt(path, Step(acknowledged).value);
        return true;
    });
    const bool seen = acknowledged == 0 || (text && std::stoul(*text) >= acknowledged);
    check(WritesAreSeen, seen, "writer %zu: %s of step %u is %s", slot, Step(acknowledged).value.c_str(),
          acknowledged, text.value_or("(none)").c_str());
}

/// An event that is tied to a key is signalled by the first call after a change of another process.
void awaitChange(size_t slot) {
    Journal& journal = board().slots[slot].registry;
    if (journal.acknowledged == 0) return;
    const OpenKey key(std::string(kSoakKey) + "\\" + writerKey(slot), KEY_READ);
    const test::OwnedHandle event(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    const auto look = [&] { return RegNotifyChangeKeyValue(key, FALSE, 0, event.get(), TRUE) == 0; };
    const bool tied = look();
    // The tie holds the event. A wait that finds the signal at once leaves it tied.
    const auto untie = foundation::onExit([&] { (void)static_cast<Event*>(event.get())->SetEventData(-1); });
    const std::uint32_t before = journal.asked;
    const auto start = Clock::now();
    // A writer that was killed may take a while to come back.
    const auto hasWritten = [&] { return journal.acknowledged > before || board().stop != 0; };
    if (!test::within(kBound, hasWritten) || journal.acknowledged <= before) return;
    Handle* handles[] = {event.get()};
    const bool told = tied && look() && WaitForMultipleObjects(1, handles, FALSE, 0) == WAIT_OBJECT_0;
    check(ChangesAreTold, told, "writer %zu, after step %u", slot, before);
    note(Op::Notification, Clock::now() - start);
}

TEST_ROLE(reader) {
    Life life(args, kGreatSteps);
    return life.live([&] {
        for (int i = 0; i < 20; ++i) {
            lookAt(anyWriter(life));
            std::this_thread::sleep_for(1ms * life.random.below(5));
        }
        awaitChange(anyWriter(life));
    });
}

void* runLazyWriter(void*) {
    DWORD intervalMs = 50;
    RegLazyWriteThread(&intervalMs);
    return nullptr;
}

std::uint32_t lazyNumberInFile(size_t slot) {
    const auto keys = readRegistryFile();
    if (!keys) return 0;
    const auto own = keys->find(std::string("hkey_local_machine\\") + kSoakKey + "\\" + writerKey(slot));
    if (own == keys->end() || !own->second.contains("n")) return 0;
    return static_cast<std::uint32_t>(std::stoul(own->second.at("n").data));
}

/// Sets a value some times; the last one must come into the file by itself, or by a write that is asked for.
void setLazily(Life& life, HKEY key) {
    constexpr int kSets = 10;
    Journal& journal = ownSlot().registry;
    std::uint32_t number = journal.asked;
    const auto start = Clock::now();
    for (int i = 0; i < kSets; ++i) {
        journal.asked = ++number;
        const bool set = test::setText(key, "n", std::to_string(number)) == 0 && RegFlushKey(key) == 0;
        check(WritesStay, set, "lazy step %u is refused", number);
    }
    const bool asks = life.random.below(4) == 0;
    const bool comes = test::within(
        kBound, [&] { return asks ? WriteRegistry() == 1 : lazyNumberInFile(life.slot) == number; });
    check(WritesStay, comes, "lazy step %u does not come into the file", number);
    note(Op::LazyWrite, Clock::now() - start);
    journal.acknowledged = number;
}

TEST_ROLE(lazyWriter) {
    Life life(args, kGreatSteps);
    const OpenKey key = openOwnKey(life.slot);
    return life.live([&] {
        pthread_t thread{};
        check(NothingLeaks, pthread_create(&thread, nullptr, runLazyWriter, nullptr) == 0, "no thread");
        (void)test::within(kBound, [] { return std::atomic_ref(bLazyFlush) == 1; });
        for (int i = 0; i < 5; ++i) {
            setLazily(life, key);
            std::this_thread::sleep_for(1ms * life.random.below(20));
        }
        const int error =
            pthread_cancel(thread);  // which hangs the thread when the user's signals are too many
        check(NobodyBlocks, error == 0, "the lazy writer cannot be cancelled: error %d", error);
        pthread_join(thread, nullptr);
    });
}

}  // namespace

/// Comes when all others are gone: writes and reads as the first one did.
TEST_ROLE(survivor) {
    playAs("survivor", std::stoul(args.at(1)));
    const OpenKey key = OpenKey::createBelow(OpenKey(kSoakKey), "survivor");
    const bool written = test::setText(key, "came", "last") == 0 && RegFlushKey(key) == 0;
    check(WritesStay, written, "the last write fails");
    for (size_t slot = 0; slot < kWriters; ++slot) lookAt(slot);
    return 0;
}

}  // namespace traiklofox::soak
