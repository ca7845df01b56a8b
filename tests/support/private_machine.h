#pragma once

// A machine of its own for the test's process: private System V objects, a private and writable
// /usr/lib/tarnwell, a private /tmp and a private /dev/shm, so that no test touches the machine's registry or
// another test's. What the process starts afterwards, roles included, is in there with it; it vanishes with
// the last of them.
//
//     void SetUp() override {
//         if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() <<
//         machine.whyNot();
//     }

#include <cstddef>
#include <string>

namespace traiklofox::test {

class PrivateMachine {
  public:
    /// Moves this process in, the first time; later calls, and calls in roles of a process that is in, give
    /// the same answer again. Call it before other threads are made: only the calling thread and those made
    /// by it move.
    ///
    /// Root needs nothing for it. Another user needs user namespaces, in which it is then root, and a process
    /// with a single thread.
    static const PrivateMachine& enter();

    bool entered() const { return whyNot_.empty(); }
    /// Why the process could not move in; empty when it did.
    const std::string& whyNot() const { return whyNot_; }

  private:
    PrivateMachine();
    std::string whyNot_;
};

/// A file system of so many bytes of its own, mounted on `directory` (made if missing), that really runs
/// full. Needs a private machine.
class SmallDisk {
  public:
    SmallDisk(const std::string& directory, size_t bytes);
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
    ~SmallDisk();

    const std::string& directory() const { return directory_; }
    /// Leaves at most so many bytes free, by means of a file; may be called again with more or fewer.
    void leaveFree(size_t bytes);

  private:
    std::string directory_;
};

}  // namespace traiklofox::test
