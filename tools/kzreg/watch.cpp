// watch.cpp: polls a key, and prints what has changed in it.

#include <signal.h>
#include <traiklofox/events.h>
#include <traiklofox/wait.h>

#include <cstdio>
#include <map>
#include <memory>

#include "commands.h"
#include "failure.h"
#include "key.h"
#include "use_registry.h"

namespace kzreg {
namespace {

constexpr DWORD kPollMs = 50;  // also how soon an interruption is noticed

volatile sig_atomic_t interrupted = 0;

/// A second signal ends the process at once: it may be waiting for somebody who holds the registry's lock.
void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGINT, &action, nullptr);  // cannot fail for these
    (void)sigaction(SIGTERM, &action, nullptr);
}

/// An event that is tied to a key and tells of its changes.
class ChangeEvent {
  public:
    explicit ChangeEvent(const Key& key)
        : key_(key),
          event_(CreateEvent(/*attributes=*/nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE,
                             /*name=*/nullptr)) {
        look();
    }
    ~ChangeEvent() {
        static_cast<Event*>(event_)->SetEventData(-1);  // drops the reference that a tied event has to itself
        CloseHandle(event_);
    }
    ChangeEvent(const ChangeEvent&) = delete;
    ChangeEvent& operator=(const ChangeEvent&) = delete;

    /// True when the key has changed since it was last asked; after `kPollMs` without a change false.
    bool comes() {
        look();
        if (WaitForSingleObject(event_, kPollMs) != WAIT_OBJECT_0) return false;
        look();  // ties it again, before the caller reads the key
        return true;
    }

  private:
    void look() {
        if (RegNotifyChangeKeyValue(key_.handle(), /*bWatchSubtree=*/FALSE, /*dwNotifyFilter=*/0, event_,
                                    /*fAsynchronous=*/TRUE) != ERROR_SUCCESS)
            throw Failure(kFailed, "the key has been deleted");
    }

    const Key& key_;
    Handle* const event_;
};

using Entries = std::map<std::string, std::string>;  // by name, what is to be printed of it

struct Snapshot {
    Entries values;
    Entries subkeys;
};

Snapshot snapshotOf(const Key& key) {
    Snapshot now;
    for (const Value& value : key.values()) now.values[value.name] = shown(value);
    for (const std::string& name : key.subkeys()) now.subkeys[name] = name;
    return now;
}

void print(const char* what, const std::string& which) {
    std::printf("%s    %s\n", what, which.c_str());
    std::fflush(stdout);
}

/// Prints those that `now` has and `before` has not, or otherwise.
void printDifference(const char* what, const Entries& before, const Entries& now) {
    for (const auto& [name, text] : now) {
        const auto same = before.find(name);
        if (same == before.end() || same->second != text) print(what, text);
    }
}

void printMissing(const char* what, const Entries& before, const Entries& now) {
    for (const auto& [name, text] : before)
        if (!now.contains(name)) print(what, text);
}

void printChanges(const Snapshot& before, const Snapshot& now) {
    printMissing("value deleted", before.values, now.values);
    printMissing("key deleted", before.subkeys, now.subkeys);
    printDifference("key created", before.subkeys, now.subkeys);
    printDifference("value set", before.values, now.values);
}

}  // namespace

int watch(const CommandLine& line) {
    const KeyPath path = KeyPath::typed(line.operands.front());
    useRegistry();
    const Key key = Key::open(path);
    endOnSignals();
    ChangeEvent change(key);
    Snapshot before = snapshotOf(key);
    std::fprintf(stderr, "kzreg: watching %s until interrupted\n", key.path().c_str());
    while (interrupted == 0) {
        if (!change.comes()) continue;
        Snapshot now = snapshotOf(key);
        printChanges(before, now);
        before = std::move(now);
    }
    return kDone;
}

}  // namespace kzreg
