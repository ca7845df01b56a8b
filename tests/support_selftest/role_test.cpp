#include "support/role.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

namespace traiklofox::test {

using namespace std::chrono_literals;

TEST_ROLE(repeatsUntilTheEnd) {
    while (const auto line = hearTest()) tellTest(args.at(0) + *line);
    EXPECT_STREQ(std::getenv("TRAIKLOFOX_TEST_VARIABLE"), "set");
    return args.at(0).empty() ? 0 : 7;
}

TEST(RoleProcess, TalksInLinesAndGivesItsExitStatus) {
    RoleProcess echo{"repeatsUntilTheEnd", {"re: "}, {"TRAIKLOFOX_TEST_VARIABLE=set"}};
    ASSERT_TRUE(echo.writeLine("one"));
    ASSERT_TRUE(echo.writeLine("two"));
    EXPECT_EQ(echo.readLine(), "re: one");
    EXPECT_EQ(echo.readLine(), "re: two");
    EXPECT_EQ(echo.readLine(20ms), std::nullopt);
    EXPECT_EQ(echo.wait(20ms), ExitStatus::timedOut());
    echo.closeInput();
    EXPECT_EQ(echo.wait(), ExitStatus::exited(7));
    EXPECT_EQ(echo.readLine(), std::nullopt);

    RoleProcess killed{"repeatsUntilTheEnd", {""}};
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.wait(), ExitStatus::killedBy(SIGKILL));
    RoleProcess failing{"repeatsUntilTheEnd", {""}, {"TRAIKLOFOX_TEST_VARIABLE=not"}};
    failing.closeInput();
    EXPECT_EQ(failing.wait(), ExitStatus::exited(kRoleExpectationFailed));
    EXPECT_EQ(RoleProcess("noSuchRole").wait(), ExitStatus::exited(EXIT_FAILURE));
}

}  // namespace traiklofox::test
