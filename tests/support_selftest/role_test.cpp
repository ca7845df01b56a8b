#include "support/role.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

namespace traiklofox::test {

TEST_ROLE(repeatsUntilTheEnd) {
    tellTest("pid " + std::to_string(::getpid()));
    while (const auto line = hearTest()) tellTest(args.at(0) + *line);
    return 7;
}

TEST_ROLE(neverEnds) {
    tellTest("up");
    for (;;) ::pause();
}

TEST_ROLE(missesAnExpectation) {
    EXPECT_STREQ(std::getenv("TRAIKLOFOX_TEST_VARIABLE"), "set");
    return 0;
}

TEST(RoleProcess, TalksInLinesAndGivesItsExitStatus) {
    RoleProcess echo{"repeatsUntilTheEnd", {"re: "}};
    EXPECT_EQ(echo.readLine(), "pid " + std::to_string(echo.pid()));
    ASSERT_TRUE(echo.writeLine("one"));
    ASSERT_TRUE(echo.writeLine("two"));
    EXPECT_EQ(echo.readLine(), "re: one");
    EXPECT_EQ(echo.readLine(), "re: two");
    echo.closeInput();
    EXPECT_EQ(echo.wait(), ExitStatus::exited(7));
    EXPECT_EQ(echo.readLine(), std::nullopt);
}

TEST(RoleProcess, KilledOneSaysSoAndWaitsAreBounded) {
    RoleProcess process{"neverEnds"};
    ASSERT_EQ(process.readLine(), "up");
    EXPECT_EQ(process.readLine(std::chrono::milliseconds{20}), std::nullopt);
    EXPECT_EQ(process.wait(std::chrono::milliseconds{20}), ExitStatus::timedOut());
    process.kill(SIGKILL);
    EXPECT_EQ(process.wait(), ExitStatus::killedBy(SIGKILL));
}

TEST(RoleProcess, FailedExpectationShowsInTheStatus) {
    EXPECT_EQ(RoleProcess("missesAnExpectation", {}, {"TRAIKLOFOX_TEST_VARIABLE=set"}).wait(),
              ExitStatus::exited(0));
    EXPECT_EQ(RoleProcess("missesAnExpectation", {}, {"TRAIKLOFOX_TEST_VARIABLE=not"}).wait(),
              ExitStatus::exited(kRoleExpectationFailed));
    EXPECT_EQ(RoleProcess("noSuchRole").wait(), ExitStatus::exited(EXIT_FAILURE));
}

}  // namespace traiklofox::test
