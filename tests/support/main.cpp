// The main function of every test binary: runs the role that the command line names, or the tests.

#include <gmock/gmock.h>
#include <signal.h>

#include "support/role.h"

int main(int argc, char** argv) {
    // ctest starts tests with SIGPIPE ignored or not, as its own parent had it; tests meet the usual state.
    ::signal(SIGPIPE, SIG_DFL);
    if (const auto status = traiklofox::test::runRequestedRole(argc, argv)) return *status;
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
