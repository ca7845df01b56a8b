// Writers that are killed at any moment lose nothing that was acknowledged, and block nobody.

#include <iostream>
#include <memory>
#include <thread>

#include "registry/registry_fixture.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kWriters = 8;
constexpr int kKills = kSanitized ? 15 : 50;
constexpr int kSlots = 20;  // values of one writer, which it sets by turns

/// Sets its values to ever higher numbers, each written before the next, and tells which are.
TEST_ROLE(writesAndTells) {
    const OpenKey own = OpenKey::createBelow(OpenKey(kExample), args.at(0));
    tellTest("ready");
    for (int i = 1; hearTest(0ms) != "stop"; ++i) {
        if (setText(own, "v" + std::to_string(i % kSlots), std::to_string(i)) != 0 || RegFlushKey(own) != 0)
            return 1;
        tellTest(std::to_string(i));
    }
    return 0;
}

class Writer {
  public:
    explicit Writer(const std::string& name) : name_(name), process_("writesAndTells", {name}) {
        EXPECT_EQ(process_.readLine(), "ready");
    }
    /// Takes down what it has told until now; with a `wait`, until its end.
    void listen(std::chrono::milliseconds wait = 0ms) {
        while (const auto line = process_.readLine(wait)) last_ = std::stoi(*line);
    }
    void kill() {
        process_.kill(SIGKILL);
        EXPECT_EQ(process_.wait(), ExitStatus::killedBy(SIGKILL));
        listen(kPeerTimeout);
    }
    void stop() {
        EXPECT_TRUE(process_.writeLine("stop"));
        listen(kPeerTimeout);
        EXPECT_EQ(process_.wait(), ExitStatus::exited(0)) << name_ << " was blocked or failed";
    }
    /// Each of its last numbers is in its slot, or a later one whose telling its end forestalled.
    void check(const FileKeys& keys) const {
        for (int i = std::max(1, last_ - kSlots + 1); i <= last_; ++i) {
            const std::string name = "v" + std::to_string(i % kSlots);
            const int found = std::stoi(keys.at(std::string(kExamplePath) + "\\" + name_).at(name).data);
            EXPECT_TRUE(found == i || found == last_ + 1) << name_ << " lost " << i << ", has " << found;
        }
    }
    int last() const { return last_; }

  private:
    std::string name_;
    RoleProcess process_;
    int last_ = 0;
};

class Killing : public RegistryTest {};

TEST_F(Killing, LosesNothingAcknowledgedAndBlocksNobody) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Random random(seed);
    std::vector<std::unique_ptr<Writer>> writers;  // the last kWriters of them are alive
    const auto addWriter = [&] {
        writers.push_back(std::make_unique<Writer>("w" + std::to_string(writers.size())));
    };
    while (writers.size() < kWriters) addWriter();
    for (int i = 0; i < kKills; ++i) {
        const auto firstAlive = writers.end() - kWriters;
        const auto moment = Clock::now() + std::chrono::microseconds{random.below(30'000)};
        while (Clock::now() < moment) {
            for (auto writer = firstAlive; writer != writers.end(); ++writer) (*writer)->listen();
            std::this_thread::sleep_for(1ms);  // leaves the processors to the writers until the random moment
        }
        std::iter_swap(firstAlive, firstAlive + random.below(kWriters));
        (*firstAlive)->kill();
        (void)fileKeys();  // throws unless the file is whole
        addWriter();
    }
    for (auto writer = writers.end() - kWriters; writer != writers.end(); ++writer) (*writer)->stop();
    EXPECT_LE(otherFiles().size(), kWriters);
    int acknowledged = 0;
    const FileKeys keys = fileKeys();
    for (const auto& writer : writers) {
        writer->check(keys);
        acknowledged += writer->last();
    }
    std::cout << acknowledged << " changes by " << writers.size() << " writers, " << kKills
              << " of them killed\n";
    EXPECT_GT(acknowledged, 100);
    ASSERT_EQ(WriteRegistry(), 1);
    EXPECT_EQ(otherFiles(), Names{}) << "a later write tidies up";
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
}

}  // namespace
}  // namespace traiklofox::test
