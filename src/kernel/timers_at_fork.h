#pragma once

namespace traiklofox::kernel {

/// Keeps the queued timers whole across a fork, whose child then has none of them set. Defined in timer.cpp.
class TimersAtFork {
  public:
    static void lock();
    static void unlock();
    static void forgetInChild();
};

}  // namespace traiklofox::kernel
