// Writers that are killed at any moment lose nothing that was acknowledged, and block nobody.

#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "registry/registry_fixture.h"
#include "support/bounded_wait.h"

namespace traiklofox::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kWriters = 8;
constexpr int kKills = kSanitized ? 15 : 50;
constexpr int kSlots = 20;  // values of one writer, which it sets by turns

/// Sets its values to ever higher numbers, each written before the next, and tells which are.
TEST_ROLE(writesAndTells) {
    const OpenKey key(kExample);
    const OpenKey own = OpenKey::createBelow(key, args.at(0));
    tellTest("ready");
    for (int i = 1; hearTest(0ms) != "stop"; ++i) {
        if (setText(own, ("v" + std::to_string(i % kSlots)).c_str(), std::to_string(i)) != 0) return 1;
        if (RegFlushKey(own) != 0) return 2;
        tellTest(std::to_string(i));
    }
    return 0;
}

class Writer {
  public:
    explicit Writer(const std::string& name) : name_(name), process_("writesAndTells", {name}) {
        EXPECT_EQ(process_.readLine(), "ready");
    }
    /// Takes down what it has told until now; at its end with a bound of `wait`.
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
        const auto own = keys.find(std::string(kExamplePath) + "\\" + name_);
        if (last_ == 0 && own == keys.end()) return;
        ASSERT_NE(own, keys.end()) << name_;
        for (int i = std::max(1, last_ - kSlots + 1); i <= last_; ++i) {
            const auto value = own->second.find("v" + std::to_string(i % kSlots));
            ASSERT_NE(value, own->second.end()) << name_ << " lost " << i;
            EXPECT_GE(std::stoi(value->second.data), i) << name_;
            EXPECT_LE(std::stoi(value->second.data), last_ + 1) << name_;
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
    std::minstd_rand random(seed);
    int names = 0;
    const auto newWriter = [&] { return std::make_unique<Writer>("w" + std::to_string(names++)); };
    std::vector<std::unique_ptr<Writer>> alive;
    std::vector<std::unique_ptr<Writer>> dead;
    for (size_t i = 0; i < kWriters; ++i) alive.push_back(newWriter());
    for (int i = 0; i < kKills; ++i) {
        const auto moment = Clock::now() + std::chrono::microseconds{random() % 30'000};
        while (Clock::now() < moment) {
            for (auto& writer : alive) writer->listen();
            std::this_thread::sleep_for(1ms);  // leaves the processors to the writers until the random moment
        }
        auto& victim = alive[random() % kWriters];
        victim->kill();
        dead.push_back(std::move(victim));
        victim = newWriter();
        (void)fileKeys();  // throws unless the file is whole
    }
    for (auto& writer : alive) writer->stop();
    int acknowledged = 0;
    const FileKeys keys = fileKeys();
    for (const auto* writers : {&alive, &dead}) {
        for (const auto& writer : *writers) {
            writer->check(keys);
            acknowledged += writer->last();
        }
    }
    std::cout << acknowledged << " changes by " << names << " writers, " << kKills << " of them killed\n";
    EXPECT_GT(acknowledged, 100);
    EXPECT_LE(otherFiles().size(), kWriters);
    const OpenKey key(kExample);
    setText(key, "v", "1");
    ASSERT_EQ(RegFlushKey(key), 0);
    EXPECT_EQ(otherFiles(), std::vector<std::string>{}) << "a later write tidies up";
    EXPECT_EQ(textAt(kExample, "Name"), "primary");
}

}  // namespace
}  // namespace traiklofox::test
