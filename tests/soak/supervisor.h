#pragma once

// Starts the workers, makes their life hard, and judges what is left.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry_fixture.h"
#include "soak/board.h"
#include "support/private_machine.h"

namespace traiklofox::soak {

class Supervisor {
  public:
    /// In the run's directory, on a private machine.
    explicit Supervisor(unsigned seed);

    void runUntil(Clock::time_point end);
    /// Ends the workers orderly, and checks what they have left behind.
    void finish();

    const std::map<std::string, int>& kills() const { return kills_; }
    int ownKills() const { return ownKills_; }
    int fullDisks() const { return fullDisks_; }

  private:
    struct Worker {
        std::string role;
        size_t slot;
        bool isMortal;
        std::unique_ptr<test::RoleProcess> process;
    };

    void start(Worker& worker);
    void replaceTheDead();
    void killOne();
    void fillOrFreeDisk();
    void checkRegistry();
    void checkProgress();
    void checkSums() const;
    void checkSharedState() const;

    test::Random random_;
    test::SmallDisk disk_;
    std::vector<Worker> workers_;
    std::vector<size_t> mortals_;
    std::map<std::string, int> kills_;
    int ownKills_ = 0;
    int fullDisks_ = 0;
    bool isFull_ = false;
};

}  // namespace traiklofox::soak
