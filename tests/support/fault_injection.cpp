#include "support/fault_injection.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <optional>
#include <stdexcept>

#include "support/fault_rules.h"

namespace traiklofox::test {

namespace faults {

namespace {

constexpr size_t kRules = 8;
constexpr size_t kLongestPattern = 256;

enum class Effect { Count, Fail, DieBefore, DieAfter };

// The plain fields change only while `active` is false and no reader is inside the table.
struct Rule {
    std::atomic<bool> active;
    bool taken;
    bool anyCall;
    Call call;
    Effect effect;
    int error;
    int onCall;
    bool andAllLater;
    size_t transferAtMost;
    pid_t thread;  // 0: any
    char path[kLongestPattern];
    std::atomic<int> calls;
    std::atomic<int> fired;
};

constinit std::array<Rule, kRules> rules{};
constinit std::atomic<int> activeRules{0};
constinit std::atomic<int> readers{0};

bool contains(const char* text, const char* pattern) {
    return text != nullptr && strstr(text, pattern) != nullptr;
}

bool descriptorIsAt(int fd, const char* pattern) {
    if (fd < 0) return false;
    char link[40];
    char path[4097];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    // The system call itself, because `readlink` is one of the wrapped functions.
    const long length = ::syscall(SYS_readlink, link, path, sizeof path - 1);
    if (length < 0) return false;
    path[length] = '\0';
    return contains(path, pattern);
}

bool matches(const Rule& rule, Call call, const Target& target) {
    if (rule.anyCall ? call == Call::Malloc : rule.call != call) return false;
    if (rule.thread != 0 && rule.thread != ::gettid()) return false;
    if (rule.path[0] == '\0') return true;
    return contains(target.path, rule.path) || contains(target.secondPath, rule.path) ||
           descriptorIsAt(target.fd, rule.path);
}

void apply(Rule& rule, Verdict& verdict) {
    const int number = rule.calls.fetch_add(1) + 1;
    if (rule.effect == Effect::Count) return;
    const bool first = number == rule.onCall;
    const bool later = number > rule.onCall && rule.andAllLater;
    if (!first && !later) return;
    rule.fired.fetch_add(1);
    if (rule.effect == Effect::DieBefore) die();
    if (rule.effect == Effect::DieAfter) {
        verdict.thenDies = true;
    } else if (first && rule.transferAtMost != SIZE_MAX) {
        verdict.transferAtMost = rule.transferAtMost;
    } else {
        verdict.fails = true;
        verdict.error = rule.error;
    }
}

void waitForReaders() {
    while (readers.load() != 0) ::sched_yield();
}

// A fork may happen while another thread reads the table; in the child that thread does not exist.
void forgetReaders() {
    readers.store(0);
}

}  // namespace

void die() {
    // The system calls themselves, because `kill` is one of the wrapped functions.
    (void)::syscall(SYS_kill, ::getpid(), SIGKILL);
    for (;;) ::pause();
}

Verdict judge(Call call, const Target& target) {
    Verdict verdict;
    if (activeRules.load() == 0) return verdict;
    const int savedErrno = errno;
    readers.fetch_add(1);
    for (Rule& rule : rules) {
        if (rule.active.load() && matches(rule, call, target)) apply(rule, verdict);
    }
    readers.fetch_sub(1);
    errno = savedErrno;
    return verdict;
}

namespace {

/// A rule that is about the n-th call of whatever kind.
constexpr std::optional<Call> kAnyCall;

int addRule(std::optional<Call> call, Effect effect, int error, const Options& options) {
    [[maybe_unused]] static const int handlersSet = ::pthread_atfork(nullptr, nullptr, forgetReaders);
    if (options.path.size() >= kLongestPattern) throw std::invalid_argument("fault: the path is too long");
    for (size_t slot = 0; slot < kRules; ++slot) {
        Rule& rule = rules[slot];
        if (rule.taken) continue;
        rule.taken = true;
        rule.anyCall = !call;
        rule.call = call.value_or(Call{});
        rule.effect = effect;
        rule.error = error;
        rule.onCall = options.onCall;
        rule.andAllLater = options.andAllLater;
        rule.transferAtMost = options.transferAtMost;
        rule.thread = options.thisThreadOnly ? ::gettid() : 0;
        rule.path[options.path.copy(rule.path, kLongestPattern - 1)] = '\0';
        rule.calls.store(0);
        rule.fired.store(0);
        rule.active.store(true);
        activeRules.fetch_add(1);
        return static_cast<int>(slot);
    }
    throw std::logic_error("fault: too many rules at once");
}

constexpr int kOnlyCount = 0;

Effect effectOf(int error, const Options& options) {
    return error != kOnlyCount || options.transferAtMost != SIZE_MAX ? Effect::Fail : Effect::Count;
}

void endRule(int slot) {
    Rule& rule = rules[static_cast<size_t>(slot)];
    activeRules.fetch_sub(1);
    rule.active.store(false);
    waitForReaders();
    rule.taken = false;
}

}  // namespace

}  // namespace faults

FailCall::FailCall(faults::Call call, int error, int onCall)
    : FailCall(call, error, faults::Options{.onCall = onCall}) {}

FailCall::FailCall(faults::Call call, int error, const faults::Options& options)
    : slot_(faults::addRule(call, faults::effectOf(error, options), error, options)) {}

FailCall::~FailCall() {
    faults::endRule(slot_);
}

KillAtCall::KillAtCall(Moment moment, int onCall)
    : slot_(faults::addRule(faults::kAnyCall,
                            moment == Moment::Before ? faults::Effect::DieBefore : faults::Effect::DieAfter,
                            /*error=*/0, {.onCall = onCall})) {}

KillAtCall::~KillAtCall() {
    faults::endRule(slot_);
}

int FailCall::calls() const {
    return faults::rules[static_cast<size_t>(slot_)].calls.load();
}

int FailCall::fired() const {
    return faults::rules[static_cast<size_t>(slot_)].fired.load();
}

CountCalls::CountCalls(faults::Call call, const faults::Options& options)
    : rule_(call, faults::kOnlyCount, options) {}

int failEveryCall(faults::Call call, int error, const std::function<void(const FailCall&, int)>& body,
                  faults::Options options, int limit) {
    for (int onCall = 1; onCall <= limit; ++onCall) {
        options.onCall = onCall;
        const FailCall fault{call, error, options};
        body(fault, onCall);
        if (fault.fired() == 0) return onCall - 1;
    }
    ADD_FAILURE() << "call " << limit << " still had a next one to fail";
    return limit;
}

namespace faults {

namespace {

constexpr long long kNanosecondsPerSecond = 1'000'000'000;

enum class WallClock { Real, Ahead, Stopped };
constinit std::atomic<WallClock> wallClock{WallClock::Real};
constinit std::atomic<long long> wallNanoseconds{0};   // the lead, or the time at which it stands
constinit std::atomic<long long> monotonicSeconds{0};  // at which that clock stands; 0: it runs

timespec toTimespec(long long nanoseconds) {
    long long seconds = nanoseconds / kNanosecondsPerSecond;
    long long rest = nanoseconds % kNanosecondsPerSecond;
    if (rest < 0) {
        rest += kNanosecondsPerSecond;
        --seconds;
    }
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>(rest);
    return result;
}

}  // namespace

timespec fakeWallClock(const timespec& real) {
    switch (wallClock.load()) {
        case WallClock::Real: return real;
        case WallClock::Ahead:
            return toTimespec(real.tv_sec * kNanosecondsPerSecond + real.tv_nsec + wallNanoseconds.load());
        case WallClock::Stopped: return toTimespec(wallNanoseconds.load());
    }
    return real;
}

timespec fakeMonotonic(const timespec& real) {
    const long long seconds = monotonicSeconds.load();
    return seconds != 0 ? toTimespec(seconds * kNanosecondsPerSecond) : real;
}

}  // namespace faults

FakeTime::~FakeTime() {
    faults::monotonicSeconds.store(0);
    faults::wallClock.store(faults::WallClock::Real);
}

void FakeTime::stopAt(long long seconds, long nanoseconds) {
    faults::wallNanoseconds.store(seconds * faults::kNanosecondsPerSecond + nanoseconds);
    faults::wallClock.store(faults::WallClock::Stopped);
}

void FakeTime::runAhead(long long seconds, long nanoseconds) {
    faults::wallNanoseconds.store(seconds * faults::kNanosecondsPerSecond + nanoseconds);
    faults::wallClock.store(faults::WallClock::Ahead);
}

void FakeTime::advance(long long seconds, long nanoseconds) {
    if (faults::wallClock.load() == faults::WallClock::Real) runAhead(0);
    faults::wallNanoseconds.fetch_add(seconds * faults::kNanosecondsPerSecond + nanoseconds);
}

void FakeTime::stopMonotonicAt(long long seconds) {
    faults::monotonicSeconds.store(seconds);
}

}  // namespace traiklofox::test
