// Who gets in, who waits and who is told to go on, step by step. What many threads do at once is in
// rwlock_stress_test.cpp.

#include <sys/wait.h>
#include <traiklofox/rwlock.h>

#include <string_view>

#include "kernel/worker.h"

namespace {

using namespace traiklofox::test;

// Opens the lock's counts of waiting threads to the tests, who must know that a thread sleeps before they go on.
template <pthread_mutex_t RWLock::*Mutex, DWORD RWLock::*Readers, DWORD RWLock::*Writers>
struct Inside {
    friend DWORD waitingIn(RWLock& lock) { return waiting(lock); }
    static DWORD waiting(RWLock& lock) {
        pthread_mutex_lock(&(lock.*Mutex));
        const DWORD count = lock.*Readers + lock.*Writers;
        pthread_mutex_unlock(&(lock.*Mutex));
        return count;
    }
};
template struct Inside<&RWLock::lock, &RWLock::waitingReaders, &RWLock::waitingWriters>;
DWORD waitingIn(RWLock& lock);

/// A thread that does what it is told, step after step: a write lock belongs to its thread. It can be cancelled in a
/// step alone.
class Actor {
  public:
    ~Actor() {
        EXPECT_TRUE(finishes());
        quit_ = true;
        start(nullptr);
        thread_.join();
    }
    void start(std::function<DWORD()> step) {
        step_ = std::move(step);
        state_ = kBusy;
        state_.notify_one();
    }
    bool finishes() const {
        return soon([this] { return state_ != kBusy; });
    }
    bool busy() const { return state_ == kBusy; }
    DWORD result() const { return result_; }
    void cancel() { pthread_cancel(thread_.native_handle()); }

  private:
    enum State { kIdle, kBusy, kGone };
    void work() {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        struct Gone {
            std::atomic<int>& state;
            ~Gone() { state = kGone; }
        } const gone{state_};
        for (; state_.wait(kIdle), !quit_; state_ = kIdle) {
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
            result_ = step_();
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        }
    }
    std::function<DWORD()> step_;
    std::atomic<int> state_ = kIdle;
    std::atomic<bool> quit_ = false;
    std::atomic<DWORD> result_ = 0;
    std::thread thread_{[this] { work(); }};
};

DWORD act(RWLock& lock, char operation) {
    switch (operation) {
        case 'r': return lock.ReadLockPrim(/*tryOnly=*/true, INFINITE, nullptr);
        case 'w': return lock.WriteLockPrim(/*tryOnly=*/true, INFINITE, nullptr);
        case 'R': return lock.ReadLock();
        case 'W': return lock.WriteLock();
        case 'q': return lock.ReadLock() + !lock.ReadUnlock();
        case '0': return lock.ReadLock(999);  // which passes at once
        case '1': return lock.WriteLock(999);
        case '2': return lock.WriteLock(1000);
        case 'P': return lock.UpgradeLock(INFINITE);
        case 'p': return lock.UpgradeLock(500);
        case 'D': return lock.DowngradeLock() ? 0 : 128;
        case 'u': return lock.ReadUnlock() ? 0 : 128;
        case 'U': return lock.WriteUnlock() ? 0 : 128;
        default: return lock.IsWriteLockedByMe() ? 0 : 128;
    }
}

/// Plays one script. A step is an actor's letter, what it does, and what comes of it: it gets what it asks for (+), is
/// refused (-), runs out of time (x), or has to wait (~). "A." says that what A waits for comes now, "Ax" that its
/// time runs out, "A~" that it still waits; "A!" cancels it there, "A?" does and it may have got in before, "A="
/// says that it is through.
void play(RWLock& lock, std::string_view script) {
    std::array<Actor, 6> actors;
    DWORD waiting = 0;
    while (!script.empty()) {
        const size_t end = std::min(script.find(' '), script.size());
        const std::string step{script.substr(0, end)};
        script.remove_prefix(std::min(end + 1, script.size()));
        SCOPED_TRACE(step);
        Actor& actor = actors[static_cast<size_t>(step[0] - 'A')];
        const char outcome = step.back();
        if (step.size() == 3) actor.start([&lock, operation = step[1]] { return act(lock, operation); });
        if (outcome == '~') {
            if (step.size() == 3) ++waiting;
            ASSERT_TRUE(soon([&] { return waitingIn(lock) == waiting; }));
            ASSERT_TRUE(actor.busy());
            continue;
        }
        if (outcome == '=') {
            ASSERT_TRUE(actor.finishes());
            continue;
        }
        if (step.size() == 2) --waiting;
        if (outcome == '!' || outcome == '?') actor.cancel();
        if (outcome == '?') continue;
        ASSERT_TRUE(actor.finishes());
        if (outcome != '!') {
            EXPECT_EQ(actor.result(), outcome == '-' ? 128u : outcome == 'x' ? 258u : 0u);
        }
    }
}

TEST(RWLock, LetsInWhoMayAndWakesWhoWaits) {
    enum Priority { Both, WritersFirst, ReadersFirst };
    const struct {
        const char* what;
        Priority priority;
        const char* script;
    } cases[] = {
        {"free", Both,
         "Ar+ Br+ Au+ Bu+ Aw+ AU+ A0+ Au+ B1+ BU+ Au+"},  // the last is a lock that nobody holds
        {"read", Both, "Ar+ Br+ Bw- Au+ Bu+ Bw+"},
        {"read, a writer waits", WritersFirst, "AR+ BW~ Cr- Cw- C0x Au+ B. BU+"},
        {"read, a writer waits", ReadersFirst, "AR+ BW~ Cr+ Cw- Cu+ B~ Au+ B. BU+"},
        {"written", Both, "AW+ Br- Bw- B0x B1x Am+ Bm- BU- BD- AU+ Am- AU- Br+"},
        {"writing nests", Both, "AW+ AW+ Aw+ AD- Au+ AU+ Br- AU+ Br- AU+ AU- Bw+"},
        {"release wakes a reader", Both, "AW+ BR~ AU+ B."},
        {"release wakes a writer", Both, "AW+ BW~ AU+ B."},
        {"downgrade lets the waiting readers in first", Both,
         "AW+ BR~ CR~ DR~ EW~ AD+ Au+ B. C. D. E~ Bu+ Cu+ E~ Du+ E. EU+ Ar+"},
        {"readers that give up leave a handoff", WritersFirst,
         "AW+ BR~ CR~ D0x C! AD+ B. EW~ Fr- Au+ E~ Bu+ E. EU+ Fr+"},
        {"a writer that is cancelled wakes readers", WritersFirst, "AR+ BW~ CR~ B! C. Aw- Au+ Cu+ Aw+"},
        {"a writer whose time is over wakes readers", WritersFirst, "AR+ B2~ CR~ Bx C. Au+ Cu+ Aw+"},
        {"an only reader upgrades at once", Both, "Ar+ Ap+ Am+ AD+ Bw- Au+ Bw+"},
        {"one reader upgrades when the others left", Both, "Ar+ Br+ BP~ AP- Au+ B. Br- BU+ Aw+"},
        {"a refused upgrade keeps the read lock", Both, "Ar+ BW~ AP- B~ Au+ B. BU+"},
        {"one whose time is over loses it", Both, "Ar+ Br+ Apx Cw- Bu+ Cw+"},
    };
    for (const auto& c : cases) {
        for (const bool readersFirst : {false, true}) {
            if (c.priority == (readersFirst ? WritersFirst : ReadersFirst)) continue;
            SCOPED_TRACE(testing::Message()
                         << c.what << ", " << (readersFirst ? "readers" : "writers") << " first");
            RWLock lock(readersFirst);
            play(lock, c.script);
        }
    }
    // Cancellations that race with what would let the thread in. With readers first, a release wakes the waiting
    // reader and leaves the writer to it.
    for (int round = 0; round < 40; ++round) {
        RWLock released(/*readerPriority=*/true), downgraded(false);
        play(released, "AW+ BW~ Cq~ C? AU+ B.");
        play(downgraded, "AW+ BR~ Cq~ C? AD+ C= B. EW~ Fr- Au+ Bu+ E. EU+ Fr+");
    }
}

TEST(RWLock, TimeOutPassesInItsTime) {
    RWLock written, read;
    ASSERT_EQ(written.WriteLock() + read.ReadLock() + read.ReadLock(), 0u);
    const auto start = now();
    Workers(3, [&](int number) {
        EXPECT_EQ(number == 0   ? written.ReadLock(1200)
                  : number == 1 ? written.WriteLock(1200)
                                : read.UpgradeLock(1200),
                  258u);
        EXPECT_EQ(written.ReadLock(0x80000000u), 258u) << "at once";
    }).clear();
    EXPECT_GE(now() - start, milliseconds(1190));  // wall-clock deadline, monotonic measure
    EXPECT_TRUE(written.WriteUnlock());
    EXPECT_TRUE(written.TryWriteLock()) << "a reader or writer that gave up left a count behind";
}

TEST(RWLock, AChildResetsWhatTheParentsThreadsHold) {
    RWLock lock(/*readerPriority=*/false, "forked");
    EXPECT_STREQ(RWLock().GetName(), "UNNAMED LOCK");
    Workers reader;
    std::thread([&] {
        ASSERT_TRUE(lock.TryWriteLock());
        reader.add(1, [&](int) { EXPECT_EQ(lock.ReadLock(), 0u); });
        ASSERT_TRUE(soon([&] { return waitingIn(lock) == 1; }));
        const pid_t child = fork();
        if (child == 0) {
            lock.ResetInChild();
            if (!lock.TryReadLock() || !lock.ReadUnlock()) _exit(2);
            if (!lock.TryWriteLock() || !lock.DowngradeLock() || !lock.ReadUnlock()) _exit(3);
            _exit(std::string_view(lock.GetName()) == "forked" ? 0 : 4);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "exit status " << WEXITSTATUS(status);
        EXPECT_TRUE(lock.WriteUnlock());
    }).join();
}

}  // namespace
