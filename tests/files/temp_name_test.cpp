#include <gtest/gtest.h>
#include <sys/wait.h>
#include <traiklofox/temp_name.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "files/temp_name.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using files::processOfTemporaryName;

std::string fileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

TEST(TempName, JoinsTheDirectoryWithOneSlashAndCarriesTheProcess) {
    constexpr struct {
        const char* directory;
        const char* start;
    } kCases[] = {
        {"/tmp", "/tmp/"}, {"/tmp/", "/tmp/"}, {"/tmp///", "/tmp/"},    {"/", "/"},
        {"", "./"},        {"a/b", "a/b/"},    {"with %s", "with %s/"}, {"no/such", "no/such/"},
    };
    for (const auto& row : kCases) {
        const std::string name = KZTempNam(row.directory);
        EXPECT_TRUE(name.starts_with(row.start)) << name;
        EXPECT_EQ(name.rfind('/'), std::strlen(row.start) - 1) << name;
        EXPECT_EQ(processOfTemporaryName(fileNameOf(name)), getpid()) << name;
    }
}

TEST(TempName, IsTakenByNothing) {
    const TempDir directory;
    const std::string name = KZTempNam(directory.path());
    EXPECT_NE(::access(name.c_str(), F_OK), 0);
    writeText(name, "");
    EXPECT_NE(KZTempNam(directory.path()), name);
}

TEST(TempName, ThreadsAndForkedChildrenNeverGetTheSame) {
    constexpr int kThreads = 4, kChildren = 3;
    constexpr size_t kNames = 500;
    const TempDir directory;
    (void)KZTempNam("/tmp");
    // Children first: each goes on from the same state as the parent.
    std::vector<pid_t> children;
    for (int child = 0; child < kChildren; ++child) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::string names;
            for (size_t i = 0; i < kNames; ++i) names += KZTempNam("/tmp") + "\n";
            writeText(directory / std::to_string(getpid()), names);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::vector<std::vector<std::string>> byThread(kThreads);
    {
        std::vector<std::jthread> threads;
        for (auto& names : byThread) {
            threads.emplace_back([&names] {
                for (size_t i = 0; i < kNames; ++i) names.push_back(KZTempNam("/tmp"));
            });
        }
    }
    std::set<std::string> all;
    for (const auto& names : byThread) all.insert(names.begin(), names.end());
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
        std::istringstream names(readText(directory / std::to_string(child)));
        for (std::string name; std::getline(names, name);) all.insert(name);
    }
    EXPECT_EQ(all.size(), (kThreads + kChildren) * kNames);
}

TEST_ROLE(tellsItsNumber) {
    const std::string name = KZTempNam("/tmp");
    tellTest(name.substr(name.rfind('.') + 1));
    return 0;
}

TEST(TempName, ProcessesWithOneIdDifferByMoreThanTheId) {
    // As in two process namespaces: both at their first name, without the id.
    RoleProcess one{"tellsItsNumber"}, two{"tellsItsNumber"};
    const auto first = one.readLine(), second = two.readLine();
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
}

TEST(TempName, OtherNamesHaveNoProcess) {
    constexpr struct {
        const char* name;
        pid_t process;  // 0: none
    } kCases[] = {
        {".kztmp.1.0-0", 1},
        {".kztmp.4194304.ff-0123456789abcdef", 4194304},
        {".kztmp.2147483647.0-0", 2147483647},
        {".kztmp.2147483648.0-0", 0},
        {".kztmp.99999999999999999999.0-0", 0},
        {".kztmp.0.0-0", 0},
        {".kztmp.01.0-0", 0},
        {".kztmp.-1.0-0", 0},
        {".kztmp.+1.0-0", 0},
        {".kztmp. 1.0-0", 0},
        {".kztmp.1x.0-0", 0},
        {".kztmp..0-0", 0},
        {".kztmp.1", 0},
        {".kztmp.1.", 0},
        {".kztmp.1.0", 0},
        {".kztmp.1.0-", 0},
        {".kztmp.1.-0", 0},
        {".kztmp.1.0-0x", 0},
        {".kztmp.1.0-0.bak", 0},
        {".kztmp.1.0-FF", 0},
        {".kztmp.1.0-00000000000000000", 0},
        {"kztmp.1.0-0", 0},
        {"x.kztmp.1.0-0", 0},
        {".kztmp.", 0},
        {"", 0},
        {"tw.registry", 0},
    };
    for (const auto& row : kCases)
        EXPECT_EQ(processOfTemporaryName(row.name).value_or(0), row.process) << row.name;
}

}  // namespace
}  // namespace traiklofox::test
