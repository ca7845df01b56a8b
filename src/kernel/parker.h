#pragma once

// Where a thread sleeps whose waker knows it: one a thread, in its CallQueue. And the list that it sleeps in, which is
// guarded by the lock of the object that the thread waits for; a thread waits for one object at a time.

#include <semaphore.h>
#include <traiklofox/threads.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "kernel/fork_generation.h"

namespace traiklofox::kernel {

class Parker {
  public:
    Parker() { sem_init(&wakeUps_, /*pshared=*/0, /*value=*/0); }
    ~Parker() { sem_destroy(&wakeUps_); }
    Parker(const Parker&) = delete;
    Parker& operator=(const Parker&) = delete;

    /// Sleeps until a wake-up that no sleep has used up yet: a late one of an earlier wait may be among them, so look
    /// and sleep again. Returns 0, ETIMEDOUT at `deadline` (null: none), or EINTR. Only for the thread itself; a
    /// cancellation point. errno is left alone.
    int park(const timespec* deadline) {
        const int saved = errno;
        const int result = deadline != nullptr ? sem_timedwait(&wakeUps_, deadline) : sem_wait(&wakeUps_);
        return result == 0 ? 0 : std::exchange(errno, saved);
    }
    /// The same by the monotonic clock.
    int parkUntil(const timespec& deadline) {
        const int saved = errno;
        const int result = sem_clockwait(&wakeUps_, CLOCK_MONOTONIC, &deadline);
        return result == 0 ? 0 : std::exchange(errno, saved);
    }
    void unpark() { (void)sem_post(&wakeUps_); }  // fails at 2^31 wake-ups that nobody has used up

    /// Whether it is in a list. Its own thread may ask without the lock once it has been parked.
    bool isListed() const { return listed_.load(std::memory_order_acquire); }

  private:
    friend class ParkedThreads;

    sem_t wakeUps_;
    Thread* thread_ = nullptr;
    Parker* previous_ = nullptr;
    Parker* next_ = nullptr;
    std::atomic<bool> listed_ = false;
};

/// The threads that wait for an object, in the order in which they came.
class ParkedThreads {
  public:
    /// Of the process that used the list last: for the object whose lock guards it.
    std::atomic<ForkGeneration::Number>& generation() { return generation_; }

    bool isEmpty() const { return first_ == nullptr; }
    void append(Parker& parker, Thread& thread) {
        parker.thread_ = &thread;
        parker.previous_ = last_;
        parker.next_ = nullptr;
        (last_ != nullptr ? last_->next_ : first_) = &parker;
        last_ = &parker;
        parker.listed_.store(true, std::memory_order_relaxed);
    }
    void remove(Parker& parker) {
        (parker.previous_ != nullptr ? parker.previous_->next_ : first_) = parker.next_;
        (parker.next_ != nullptr ? parker.next_->previous_ : last_) = parker.previous_;
        parker.listed_.store(false, std::memory_order_release);
    }
    /// Takes the first one off the list, and a reference to its thread, for `wake`.
    std::pair<Thread*, Parker*> takeFirst() {
        Parker& parker = *first_;
        Thread* thread = parker.thread_;
        thread->IncRefCount();
        remove(parker);
        return {thread, &parker};
    }

    void clear() { first_ = last_ = nullptr; }

  private:
    std::atomic<ForkGeneration::Number> generation_ = ForkGeneration::current();
    Parker* first_ = nullptr;
    Parker* last_ = nullptr;
};

/// Threads to wake when the lock is free under which they were chosen: they would only wait for it, and their
/// references may be the last ones.
class WakeList {
  public:
    WakeList() = default;
    ~WakeList() {
        for (size_t i = 0; i < count_; ++i) wake(chosen_[i]);
    }
    WakeList(const WakeList&) = delete;
    WakeList& operator=(const WakeList&) = delete;

    bool isFull() const { return count_ == kRoom; }
    /// Not to a full one.
    void add(std::pair<Thread*, Parker*> chosen) { chosen_[count_++] = chosen; }

  private:
    static void wake(std::pair<Thread*, Parker*> chosen) {
        chosen.second->unpark();
        chosen.first->DecRefCount();
    }
    static constexpr size_t kRoom = 8;
    std::pair<Thread*, Parker*> chosen_[kRoom];
    size_t count_ = 0;
};

}  // namespace traiklofox::kernel
