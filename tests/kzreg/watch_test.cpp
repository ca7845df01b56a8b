// kzreg watch: it prints what other processes change, until it is interrupted.

#include <signal.h>

#include "kzreg/kzreg_fixture.h"

namespace traiklofox::test {
namespace {

class KzregWatch : public KzregTest {
  protected:
    void SetUp() override {
        KzregTest::SetUp();
        if (!IsSkipped()) add("software\\example\\watched\\sub", "v", "1");
    }
    static constexpr const char* kWatched = "software\\example\\watched";
    static void run(const Words& words) {
        EXPECT_EQ(kzreg(words), done()) << ::testing::PrintToString(words);
    }
};

TEST_F(KzregWatch, PrintsEachChangeByOtherProcessesUntilItIsInterrupted) {
    for (const int signal : {SIGINT, SIGTERM}) {
        Kzreg watch({"watch", kWatched});
        ASSERT_EQ(watch.errorLine(),
                  "kzreg: watching hkey_local_machine\\software\\example\\watched until interrupted");
        run({"add", kWatched, "-v", "Port", "-t", "REG_DWORD", "-d", "80"});
        EXPECT_EQ(watch.outputLine(), "value set    Port    REG_DWORD    0x50");
        run({"add", kWatched, "-v", "Port", "-d", "eighty"});
        EXPECT_EQ(watch.outputLine(), "value set    Port    REG_SZ    eighty");
        run({"delete", kWatched, "-v", "Port"});
        EXPECT_EQ(watch.outputLine(), "value deleted    Port    REG_SZ    eighty");
        run({"add", std::string(kWatched) + "\\new"});
        EXPECT_EQ(watch.outputLine(), "key created    new");
        run({"delete", std::string(kWatched) + "\\new"});
        EXPECT_EQ(watch.outputLine(), "key deleted    new");
        run({"add", "software\\example", "-v", "elsewhere", "-d", "1"});
        run({"add", std::string(kWatched) + "\\sub", "-v", "below", "-d", "1"});
        run({"add", kWatched, "-v", "", "-d", "last"});
        EXPECT_EQ(watch.outputLine(), "value set    (Default)    REG_SZ    last") << "nothing of other keys";
        run({"delete", kWatched, "-v", ""});
        EXPECT_EQ(watch.outputLine(), "value deleted    (Default)    REG_SZ    last");
        watch.kill(signal);
        EXPECT_EQ(watch.finish(), done());
    }
}

TEST_F(KzregWatch, EndsWhenItsKeyIsDeleted) {
    Kzreg watch({"watch", kWatched});
    ASSERT_NE(watch.errorLine(), std::nullopt);
    run({"delete", "software\\example"});
    EXPECT_THAT(watch.finish(), Fails(1, "the key has been deleted"));
}

TEST_F(KzregWatch, AKeyThatIsMissingIsReportedAtOnce) {
    EXPECT_THAT(kzreg({"watch", "software\\nosuch"}), Fails(1, "there is no key"));
}

}  // namespace
}  // namespace traiklofox::test
