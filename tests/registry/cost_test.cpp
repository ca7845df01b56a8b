// What the registry may cost: no system call for a look-up, and so much memory for a value.

#include <linux/seccomp.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "registry/registry_fixture.h"

namespace traiklofox::test {
namespace {

class Cost : public StartedRegistryTest {};

TEST_F(Cost, LookUpMakesNoSystemCall) {
    if (kSanitized) GTEST_SKIP() << "a sanitizer makes system calls of its own";
    setText(key, "name", "value");
    OpenKey::createBelow(key, "deep\\down");
    ASSERT_EQ(RegFlushKey(key), 0);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // From here on the kernel kills the process for any call but read, write and exit.
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
        LONG failed = 0;
        for (int i = 0; i < 1'000; ++i) {
            HKEY opened = 0;
            char text[16];
            DWORD size = sizeof text;
            failed |= RegOpenKeyEx(key, "deep\\DOWN", 0, KEY_READ, &opened) | RegCloseKey(opened);
            failed |= RegQueryValueEx(key, "name", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size);
        }
        syscall(SYS_exit, failed == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(Cost, ValueTakesFewBytesOfMemory) {
    if (kSanitized) GTEST_SKIP() << "a sanitizer's allocator does not tell how much is in use";
    constexpr size_t kKeys = 2'000;
    constexpr size_t kValues = 5;
    std::string text = keyLine(kExample);
    for (size_t number = 0; number < kKeys; ++number) {
        text += keyLine(std::string(kExample) + "\\group\\key" + std::to_string(number));
        for (size_t value = 0; value < kValues; ++value)
            text += valueLine("value" + std::to_string(value), "a text of common length");
    }
    const size_t before = mallinfo2().uordblks;
    replaceFile(text);
    ASSERT_TRUE(keyExists(std::string(kExample) + "\\group\\key1999"));
    EXPECT_LT((mallinfo2().uordblks - before) / (kKeys * kValues), 400u);
}

}  // namespace
}  // namespace traiklofox::test
