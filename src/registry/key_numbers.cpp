#include "registry/key_numbers.h"

#include <traiklofox/numbers.h>

#include <unordered_map>

#include "foundation/mutex.h"
#include "foundation/small_mutex.h"

namespace traiklofox::registry {

namespace {

using foundation::LockGuard;

constinit foundation::SmallMutex<foundation::LockRank::KeyNumbers> AllKeysLock;

/// How many keys have a number. Never destroyed: the tree outlives every exit.
std::unordered_map<LONG, int>& AllKeysSet() TRAIKLOFOX_REQUIRES(AllKeysLock) {
    static auto& numbers = *new std::unordered_map<LONG, int>;
    return numbers;
}

}  // namespace

LONG GetUniqueKey() {
    const LockGuard guard(AllKeysLock);
    LONG number = 0;
    do {
        number = static_cast<LONG>(KzRandom(static_cast<int>(kNumberLimit)));
    } while (number == 0 || AllKeysSet().contains(number));
    return number;
}

void useKeyNumber(LONG number) {
    const LockGuard guard(AllKeysLock);
    ++AllKeysSet()[number];
}

void freeKeyNumber(LONG number) {
    const LockGuard guard(AllKeysLock);
    const auto found = AllKeysSet().find(number);
    if (found != AllKeysSet().end() && --found->second == 0) AllKeysSet().erase(found);
}

void lockKeyNumbersForFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    AllKeysLock.lock();
}
void unlockKeyNumbersAfterFork() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    AllKeysLock.unlock();
}

}  // namespace traiklofox::registry
