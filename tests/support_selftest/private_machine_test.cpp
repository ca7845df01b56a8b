#include "support/private_machine.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <filesystem>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {

constexpr const char* kLockFile = "/usr/lib/tarnwell/selftest.dat";
constexpr key_t kKey = 0x7457;

TEST_ROLE(stepsIntoTheSameMachine) {
    const bool shared = PrivateMachine::enter().entered() && readText(kLockFile) == "lock";
    return shared && ::shmget(kKey, 4096, 0600) != -1 ? 0 : 1;
}

TEST(PrivateMachineTest, RolesShareItAndTheOutsideSeesNothing) {
    const auto& machine = PrivateMachine::enter();
    if (!machine.entered()) GTEST_SKIP() << machine.whyNot();
    const pid_t outside = ::getppid();  // whoever started this test
    writeText(kLockFile, "lock");
    ASSERT_NE(::shmget(kKey, 4096, IPC_CREAT | IPC_EXCL | 0600), -1) << "another test's objects are in sight";
    const TempDir scratch;
    EXPECT_EQ(RoleProcess{"stepsIntoTheSameMachine"}.wait(), ExitStatus::exited(0));
    const std::string root = "/proc/" + std::to_string(outside) + "/root";
    std::error_code unreadable;
    EXPECT_FALSE(std::filesystem::exists(root + kLockFile, unreadable));
    EXPECT_FALSE(std::filesystem::exists(root + scratch.path(), unreadable));

    SmallDisk disk{scratch / "disk", 1 << 20};
    disk.leaveFree(8192);
    const std::string path = disk.directory() + "/file";
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(8192, 'x');
    EXPECT_EQ(::write(fd, block.data(), block.size()), 8192);
    EXPECT_EQ(::write(fd, block.data(), block.size()), -1);
    EXPECT_EQ(errno, ENOSPC);
    disk.leaveFree(1 << 19);
    EXPECT_EQ(::write(fd, block.data(), block.size()), 8192);
    ::close(fd);
}

TEST(CapturedStderr, CatchesStreamsAndDescriptorsAndGivesThemBack) {
    const int before = openDescriptors();
    {
        const CapturedStderr errors;
        std::fputs("one ", stderr);
        ASSERT_EQ(::write(STDERR_FILENO, "two", 3), 3);
        EXPECT_EQ(errors.text(), "one two");
        EXPECT_GT(openDescriptors(), before);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace traiklofox::test
