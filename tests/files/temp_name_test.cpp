#include <gtest/gtest.h>
#include <sys/wait.h>
#include <traiklofox/temp_name.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "files/temp_name.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using files::processOfTemporaryName;

TEST(TempName, IsAFreeOneInTheDirectoryAndCarriesTheProcess) {
    const TempDir directory;
    const std::string& path = directory.path();
    for (const auto& [parent, start] : {std::pair<std::string, std::string>{path, path + "/"},
                                        {path + "/", path + "/"},
                                        {path + "///", path + "/"},
                                        {"/", "/"},
                                        {"", "./"},
                                        {"with %s", "with %s/"},
                                        {"no/such", "no/such/"}}) {
        const std::string name = KZTempNam(parent.c_str());
        EXPECT_TRUE(name.starts_with(start)) << name;
        EXPECT_EQ(name.rfind('/'), start.size() - 1) << name;
        EXPECT_EQ(processOfTemporaryName(name.c_str() + start.size()), getpid()) << name;
        EXPECT_NE(::access(name.c_str(), F_OK), 0);
    }
}

TEST(TempName, ThreadsAndForkedChildrenNeverGetTheSame) {
    constexpr size_t kThreads = 4, kChildren = 3, kNames = 500;
    const TempDir directory;
    (void)KZTempNam("/tmp");
    // Children first: each goes on from the same state as the parent.
    std::vector<pid_t> children;
    while (children.size() < kChildren) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::string names;
            for (size_t i = 0; i < kNames; ++i) names += KZTempNam("/tmp") + "\n";
            writeText(directory / std::to_string(getpid()), names);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::vector<std::set<std::string>> byThread(kThreads);
    {
        std::vector<std::jthread> threads;
        for (auto& names : byThread) {
            threads.emplace_back([&names] {
                for (size_t i = 0; i < kNames; ++i) names.insert(KZTempNam("/tmp"));
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
    for (const auto& [name, process] : {std::pair{".kztmp.1.0-0", 1},
                                        {".kztmp.4194304.ff-0123456789abcdef", 4194304},
                                        {".kztmp.2147483647.0-0", 2147483647}})
        EXPECT_EQ(processOfTemporaryName(name), process) << name;
    for (const char* name : {".kztmp.2147483648.0-0",
                             ".kztmp.99999999999999999999.0-0",
                             ".kztmp.0.0-0",
                             ".kztmp.01.0-0",
                             ".kztmp.-1.0-0",
                             ".kztmp.+1.0-0",
                             ".kztmp. 1.0-0",
                             ".kztmp.1x.0-0",
                             ".kztmp..0-0",
                             ".kztmp.1",
                             ".kztmp.1.",
                             ".kztmp.1.0",
                             ".kztmp.1.0-",
                             ".kztmp.1.-0",
                             ".kztmp.1.0-0x",
                             ".kztmp.1.0-0.bak",
                             ".kztmp.1.0-FF",
                             ".kztmp.1.0-00000000000000000",
                             "kztmp.1.0-0",
                             "x.kztmp.1.0-0",
                             ".kztmp.",
                             "",
                             "tw.registry"})
        EXPECT_EQ(processOfTemporaryName(name), std::nullopt) << name;
}

}  // namespace
}  // namespace traiklofox::test
