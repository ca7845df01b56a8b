#include <sys/wait.h>
#include <traiklofox/temp_name.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <tuple>

#include "files/file_fixture.h"
#include "files/temp_name.h"

namespace traiklofox::test {
namespace {

using files::processOfTemporaryName;

TEST(TempName, IsAFreeOneInTheDirectoryAndCarriesTheProcess) {
    const TempDir directory;
    const std::string& path = directory.path();
    const std::pair<std::string, std::string> kParents[] = {
        {path, path + "/"}, {path + "/", path + "/"}, {path + "///", path + "/"}, {"/", "/"},
        {"", "./"},         {"with %s", "with %s/"},  {"no/such", "no/such/"}};
    for (const auto& [parent, start] : kParents) {
        const std::string name = KZTempNam(parent.c_str());
        EXPECT_TRUE(name.starts_with(start)) << name;
        EXPECT_EQ(name.rfind('/'), start.size() - 1) << name;
        EXPECT_EQ(processOfTemporaryName(name.c_str() + start.size()), getpid()) << name;
        EXPECT_NE(::access(name.c_str(), F_OK), 0);
    }
}

TEST(TempName, ThreadsAndForkedChildrenNeverGetTheSame) {
    constexpr size_t kEach = 4, kNames = 500;  // threads, and children
    const TempDir directory;
    const auto writeNames = [&](const std::string& file) {
        std::string names;
        for (size_t i = 0; i < kNames; ++i) names += KZTempNam("/tmp") + "\n";
        writeText(directory / file, names);
    };
    (void)KZTempNam("/tmp");
    // Children first: each goes on from the same state as the parent.
    std::vector<pid_t> children;
    while (children.size() < kEach) {
        children.push_back(fork());
        if (children.back() != 0) continue;
        writeNames("child" + std::to_string(children.size()));
        _exit(0);
    }
    {
        std::vector<std::jthread> threads;
        for (size_t i = 0; i < kEach; ++i)
            threads.emplace_back([&, i] { writeNames("thread" + std::to_string(i)); });
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    std::set<std::string> all;
    for (const auto& entry : fs::directory_iterator(directory.path())) {
        std::istringstream names(readText(entry.path()));
        for (std::string name; std::getline(names, name);) all.insert(name);
    }
    EXPECT_EQ(all.size(), 2 * kEach * kNames);
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
    std::istringstream others(
        ".kztmp.2147483648.0-0 .kztmp.99999999999999999999.0-0 .kztmp.0.0-0 .kztmp.01.0-0 .kztmp.-1.0-0 "
        ".kztmp.+1.0-0 .kztmp.1x.0-0 .kztmp..0-0 .kztmp.1 .kztmp.1. .kztmp.1.0 .kztmp.1.0- .kztmp.1.-0 "
        ".kztmp.1.0-0x .kztmp.1.0-0.bak .kztmp.1.0-FF .kztmp.1.0-00000000000000000 kztmp.1.0-0 "
        "x.kztmp.1.0-0 .kztmp. tw.registry");
    EXPECT_FALSE(processOfTemporaryName("") || processOfTemporaryName(".kztmp. 1.0-0"));
    for (std::string name; others >> name;)
        EXPECT_EQ(processOfTemporaryName(name.c_str()), std::nullopt) << name;
}

TEST(TempPath, IsTheFirstOfTheVariablesThatSaysSomething) {
    const struct {
        const char *tmp, *temp, *tmpdir, *path;
    } kCases[] = {{"/a", "/b", "/c", "/a/"},
                  {"", "/b/", "/c", "/b/"},
                  {nullptr, nullptr, "/c", "/c/"},
                  {"with %s", nullptr, "", "with %s/"},
                  {nullptr, nullptr, nullptr, "/tmp/"}};
    for (const auto& row : kCases) {
        for (const auto& [name, value] :
             {std::pair{"TMP", row.tmp}, {"TEMP", row.temp}, {"TMPDIR", row.tmpdir}})
            value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
        char buffer[64] = "#";
        const auto length = static_cast<DWORD>(std::strlen(row.path));
        EXPECT_EQ(GetTempPath(length, buffer), length + 1) << "the NUL does not fit";
        EXPECT_EQ(GetTempPath(0, nullptr), length + 1);
        EXPECT_EQ(buffer[0], '#');
        EXPECT_EQ(GetTempPath(length + 1, buffer), length);
        EXPECT_STREQ(buffer, row.path);
    }
}

TEST(TempFile, HasTheGivenNumberOrAFreeOneAndIsThenMade) {
    const TempDir directory;
    const std::string start = directory / "";
    char name[MAX_PATH];
    const struct {
        const char* prefix;
        UINT unique;
        const char* name;
    } kNamed[] = {{"longer", 0x1, "lon1.TMP"},
                  {"ab", 0xBEEF, "abBEEF.TMP"},
                  {nullptr, 0x12345, "2345.TMP"},
                  {"%s", 9, "%s9.TMP"}};
    for (const auto& row : kNamed) {
        for (const std::string& parent : {directory.path(), start}) {
            EXPECT_EQ(GetTempFileName(parent.c_str(), row.prefix, row.unique, name), row.unique);
            EXPECT_EQ(name, start + row.name);
            EXPECT_FALSE(fs::exists(name)) << "only named";
        }
    }

    std::set<std::string> made;
    for (int i = 0; i < 300; ++i) {
        const UINT number = GetTempFileName(start.c_str(), "tmp", 0, name);
        ASSERT_TRUE(number > 0 && number <= 0xFFFF) << number;
        made.insert(name);
        EXPECT_EQ(fs::status(name).permissions(), fs::perms{0600});
    }
    EXPECT_EQ(made.size(), 300u);

    const std::string longest(MAX_PATH - 14, '/'), tooLong = longest + "/", missing = directory / "missing";
    name[0] = '#';
    for (const auto& [parent, prefix, error] :
         {std::tuple<const char*, const char*, int>{nullptr, "tmp", EINVAL},
          {start.c_str(), "a/b", EINVAL},
          {tooLong.c_str(), "", ENAMETOOLONG},
          {missing.c_str(), "tmp", ENOENT}}) {
        EXPECT_EQ(errorOf(GetTempFileName(parent, prefix, 0, name) != 0), error);
        EXPECT_EQ(name[0], '#');
    }
    EXPECT_EQ(GetTempFileName(start.c_str(), "tmp", 1, nullptr), 0u);
    EXPECT_EQ(GetTempFileName(longest.c_str(), "tmp", 0xFFFF, name), 0xFFFFu);

    const FailCall allExist{Call::Open, EEXIST, {.andAllLater = true, .path = directory.path()}};
    EXPECT_EQ(errorOf(GetTempFileName(start.c_str(), "tmp", 0, name) != 0), EEXIST);
    EXPECT_EQ(allExist.fired(), 0xFFFF);
}

}  // namespace
}  // namespace traiklofox::test
