#pragma once

// The numbers that identify keys, and which of them are in use in this process.

#include <traiklofox/types.h>

namespace traiklofox::registry {

/// A handle without its write bit.
constexpr LONG kNumberMask = 0x3fffffff;
/// Numbers that a handle can carry are 1 to kNumberLimit - 1: 0 stands for the root.
constexpr LONG kNumberLimit = 0x3fffffff;

constexpr bool isHandleNumber(LONG number) {
    return number > 0 && number < kNumberLimit;
}

/// Draws a number that no key of this process has.
LONG GetUniqueKey();

/// A key has, or no longer has, a number. Several keys may have the same one.
void useKeyNumber(LONG number);
void freeKeyNumber(LONG number);

void lockKeyNumbersForFork();
void unlockKeyNumbersAfterFork();

}  // namespace traiklofox::registry
