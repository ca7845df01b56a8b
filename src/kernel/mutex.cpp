// mutex.cpp: the semaphore of one with an owner.
//
// Whoever has taken the count is `owner`, and nobody else changes `recursion`. The thread that made the mutex
// "initially owned" has not taken it; so it is kept apart, in `initialOwner`, which the first taker clears: its
// releases then give back nothing that another thread holds.

#include <traiklofox/semaphores.h>
#include <traiklofox/wait.h>

#include "kernel/handle_arguments.h"

namespace {

constexpr pthread_t kNobody = 0;

}  // namespace

Mutex::Mutex(BOOL ownedAtFirst, const char* givenName)
    : Semaphore(1, 1, givenName),
      owner(kNobody),
      recursion(0),
      initialOwner(ownedAtFirst ? pthread_self() : kNobody),
      initialRecursion(1) {}

Mutex::~Mutex() = default;

DWORD Mutex::What() const {
    return HANDLE_KIND_MUTEX;
}

DWORD Mutex::WaitForHandle(DWORD milliseconds, BOOL alertable) {
    const pthread_t self = pthread_self();
    if (owner.load(std::memory_order_relaxed) == self) {
        ++recursion;
        return WAIT_OBJECT_0;
    }
    if (initialOwner.load(std::memory_order_relaxed) == self) {
        ++initialRecursion;
        return WAIT_OBJECT_0;
    }
    if (!tryTake()) {
        const DWORD result = waitToTake(milliseconds, alertable);
        if (result != WAIT_OBJECT_0) return result;
    }
    owner.store(self, std::memory_order_relaxed);
    recursion = 1;
    if (initialOwner.load(std::memory_order_relaxed) != kNobody)
        initialOwner.store(kNobody, std::memory_order_relaxed);
    return WAIT_OBJECT_0;
}

BOOL Mutex::Release() {
    const pthread_t self = pthread_self();
    if (owner.load(std::memory_order_relaxed) != self) {
        if (initialOwner.load(std::memory_order_relaxed) != self) return 0;
        if (--initialRecursion > 0) return 1;
        initialOwner.store(kNobody, std::memory_order_relaxed);
        return 0;  // the count is at its maximum already
    }
    if (--recursion > 0) return 1;
    owner.store(kNobody, std::memory_order_relaxed);
    return tryGiveBack() ? 1 : Semaphore::Release(1, /*previous=*/nullptr);
}

Handle* CreateMutex(_SECURITY_ATTRIBUTES*, BOOL initialOwner, const char* name) {
    return new Mutex(initialOwner, name);
}

BOOL ReleaseMutex(Handle* handle) {
    auto* mutex = traiklofox::kernel::handleAs<Mutex>(handle, HANDLE_KIND_MUTEX);
    return mutex != nullptr ? mutex->Release() : 0;
}
