#include <traiklofox/file_search.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/events.h>
#include <traiklofox/time_conversion.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/fault_injection.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

/// What a search finds, to its end.
Names found(const std::string& path) {
    Names names;
    _WIN32_FIND_DATA data;
    Handle* const search = FindFirstFile(path.c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) return names;
    do names.emplace_back(data.cFileName);
    while (FindNextFile(search, &data));
    EXPECT_EQ(errno, ENOENT) << path;
    EXPECT_EQ(data.cFileName, names.back()) << "exhausted, it leaves the record alone";
    EXPECT_EQ(FindClose(search), 2);
    return names;
}

/// In the current directory: d/b.txt, d/a.txt, d/.h.txt, d/c.jsp, d/sub/inner, n
class FileSearch : public testing::Test {
  protected:
    FileSearch() {
        for (const char* name : {"d/b.txt", "d/a.txt", "d/.h.txt", "d/c.jsp", "d/sub/inner", "n"})
            writeText(directory / name, name);
        fs::current_path(directory.path());
    }
    ~FileSearch() override { fs::current_path("/"); }

    const TempDir directory;
    const std::string d = directory / "d";
};

TEST_F(FileSearch, TakesThePathApartAsDocumented) {
    const Names all{".", "..", ".h.txt", "a.txt", "b.txt", "c.jsp", "sub"};
    const Names above{".", "..", "d", "n"};
    const Names below{".", "..", "inner"};
    const std::vector<std::pair<std::string, Names>> rows{
        {"d", all},
        {"d/", all},
        {d, all},
        {d + "/", all},
        {d + "/*", all},
        {d + "/sub/..", all},
        {".", above},
        {"./", above},
        {d + "/sub", below},
        {d + "/*.txt", {"a.txt", "b.txt"}},
        {d + "/.*", {".", "..", ".h.txt"}},
        {d + "/?.{txt,jsp}", {"a.txt", "b.txt", "c.jsp"}},
        {d + "/*.*", {"a.txt", "b.txt", "c.jsp"}},
        {d + "/su[b]", {"sub"}},
        {d + "/a.txt", {"a.txt"}},
        // A "/" in the second place, or none, takes nothing apart.
        {"d/sub", below},
        {"./d", all},
        {"d/a.txt", {}},
        {"d/*", {}},
        {"./*", {}},
        {"n", {}},
        {"*", {}},
        {"/de[v]", {"dev"}},
        {d + "/*.none", {}},
        {d + "/none/*", {}},
        {"", {}},
    };
    for (const auto& [path, names] : rows) EXPECT_EQ(found(path), names) << path;
}

TEST_F(FileSearch, DescribesWhatItFinds) {
    const std::string path = directory / "d/b.txt";
    ASSERT_EQ(::truncate((directory / "d/a.txt").c_str(), 0), 0);
    ASSERT_EQ(::truncate64(path.c_str(), 0x1'0000'0005), 0);
    const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 500}, {.tv_sec = -5, .tv_nsec = 700}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    fs::create_symlink("b.txt", d + "/link");
    fs::create_symlink("nowhere", d + "/loose");
    fs::create_symlink("sub", d + "/tosub");
    fs::permissions(d + "/c.jsp", fs::perms::all);

    _FILETIME accessed, modified;
    time_tToFileTime(1'000'000'000, &accessed, 0);
    time_tToFileTime(-5, &modified, 0);
    for (const auto& [name, attributes, size] :
         std::vector<std::tuple<std::string, DWORD, DWORD>>{{"a.txt", FILE_ATTRIBUTE_NORMAL, 0},
                                                            {"b.txt", FILE_ATTRIBUTE_NORMAL, 5},
                                                            {"link", FILE_ATTRIBUTE_NORMAL, 5},
                                                            {"loose", FILE_ATTRIBUTE_NORMAL, 7},
                                                            {"c.jsp", FILE_ATTRIBUTE_NORMAL, 7},
                                                            {"su[b]", FILE_ATTRIBUTE_DIRECTORY, 0},
                                                            {"tosu[b]", FILE_ATTRIBUTE_DIRECTORY, 0}}) {
        _WIN32_FIND_DATA data;
        std::memset(&data, 0xEE, sizeof data);
        Handle* const search = FindFirstFile((d + "/" + name).c_str(), &data);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << name;
        EXPECT_EQ(search->What(), DWORD{HANDLE_KIND_FIND_FILE});
        EXPECT_EQ(data.dwFileAttributes, attributes) << name;
        EXPECT_TRUE(attributes == FILE_ATTRIBUTE_DIRECTORY || data.nFileSizeLow == size) << name;
        EXPECT_EQ(data.nFileSizeHigh + data.dwReserved0 + data.dwReserved1, 0u);
        EXPECT_EQ(CompareFileTime(&data.ftCreationTime, &data.ftLastWriteTime), 0);
        if (size == 5) {
            EXPECT_EQ(CompareFileTime(&data.ftLastAccessTime, &accessed), 0) << name;
            EXPECT_EQ(CompareFileTime(&data.ftLastWriteTime, &modified), 0) << name;
        }
        const std::string rest(data.cFileName + std::strlen(data.cFileName), std::end(data.cFileName));
        EXPECT_EQ(rest, std::string(rest.size(), '\0')) << name;
        EXPECT_STREQ(data.cAlternateFileName, "");
        EXPECT_EQ(FindClose(search), 2);
    }
}

TEST_F(FileSearch, WithoutARecordIsNotCheckedAndBeginsWithTheFirstEntry) {
    _WIN32_FIND_DATA data;
    Handle* search = FindFirstFile((d + "/*.txt").c_str(), nullptr);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_EQ(FindNextFile(search, nullptr), FALSE);
    ASSERT_EQ(FindNextFile(search, &data), TRUE);
    EXPECT_STREQ(data.cFileName, "a.txt");
    // It only walks what it found.
    fs::remove(d + "/b.txt");
    ASSERT_EQ(FindNextFile(search, &data), TRUE);
    EXPECT_STREQ(data.cFileName, "b.txt");
    EXPECT_EQ(FindNextFile(search, &data), FALSE);
    EXPECT_EQ(FindClose(search), 2);

    search = FindFirstFile("nowhere", nullptr);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_EQ(FindNextFile(search, &data), FALSE);
    EXPECT_EQ(FindClose(search), 2);
}

TEST_F(FileSearch, SaysWhyItFoundNothing) {
    _WIN32_FIND_DATA data;
    const auto error = [&data](const char* path) {
        errno = 0;
        EXPECT_EQ(FindFirstFile(path, &data), INVALID_HANDLE_VALUE);
        return errno;
    };
    EXPECT_EQ(error(nullptr), EINVAL);
    EXPECT_EQ(error(""), ENOENT);
    EXPECT_EQ(error((d + "/*.none").c_str()), ENOENT);
    EXPECT_EQ(error((d + "/a.txt/x*").c_str()), ENOTDIR);
    EXPECT_EQ(error((d + "/" + std::string(MAX_PATH, '*')).c_str()), ENAMETOOLONG);
    EXPECT_EQ(error((d + "/*" + std::string(255, 'x')).c_str()), ENOENT);
    {
        const FailCall noDescriptor{faults::Call::Opendir, EMFILE};
        EXPECT_EQ(error("d"), EMFILE);
    }
    {
        const FailCall unreadable{faults::Call::Readdir, EIO, /*onCall=*/4};
        EXPECT_EQ(error("d"), EIO);
    }
    Handle* const event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    for (Handle* const none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event}) {
        errno = 0;
        EXPECT_EQ(FindNextFile(none, &data), FALSE);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(CloseHandle(event), TRUE);
    EXPECT_EQ(FindClose(nullptr), 2);
    EXPECT_EQ(FindClose(INVALID_HANDLE_VALUE), 2);
}

Names namesOf(const KZSuperGlob& glob) {
    Names names;
    for (const KZGlobResult& entry : glob) names.emplace_back(entry.name);
    return names;
}

TEST_F(FileSearch, AGlobGathersPatternsAndDirectories) {
    KZSuperGlob glob;
    EXPECT_TRUE(glob.GlobMore(d));
    EXPECT_EQ(glob.count(), 0u) << "no pattern matches nothing";
    EXPECT_TRUE(glob.AddPattern("*.txt", KZSuperGlob::ExplicitPeriod));
    EXPECT_TRUE(glob.AddPattern("{a,s}*"));
    errno = EDOM;
    EXPECT_TRUE(glob.GlobMore(d));
    EXPECT_EQ(errno, EDOM);
    const Names first{"a.txt", "b.txt", "sub"};
    EXPECT_EQ(namesOf(glob), first);

    EXPECT_FALSE(glob.GlobMore(directory / "none"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(glob.AddPattern(std::string(MAX_PATH, 'x')));
    {
        const FailCall unreadable{faults::Call::Readdir, EIO, /*onCall=*/5};
        EXPECT_FALSE(glob.GlobMore(d));
    }
    EXPECT_EQ(namesOf(glob), first);

    glob.ClearPatterns();
    EXPECT_EQ(namesOf(glob), first);
    EXPECT_TRUE(glob.AddPattern("*"));
    EXPECT_TRUE(glob.GlobMore(d + "/sub"));
    EXPECT_EQ(namesOf(glob), (Names{".", "..", "a.txt", "b.txt", "inner", "sub"}));
    EXPECT_EQ(glob.count(), 6u);
    for (const char* name : {".", "inner", "sub"}) EXPECT_TRUE(glob.contains(name)) << name;
    for (const char* name : {"", "a", "a.txt2", "zzz"}) EXPECT_FALSE(glob.contains(name)) << name;
}

TEST_F(FileSearch, AResultHasTheWholeStatRecord) {
    KZSuperGlob glob;
    ASSERT_TRUE(glob.AddPattern("{a.txt,sub}"));
    ASSERT_TRUE(glob.GlobMore(d));
    ASSERT_TRUE(glob.AddPattern("null"));
    ASSERT_TRUE(glob.GlobMore("/dev"));
    for (const KZGlobResult& entry : glob) {
        struct stat expected {};
        struct stat status {};
        const std::string parent = glob.begin()->name == std::string("null") ? "/dev/" : d + "/";
        ASSERT_EQ(::stat((entry.name == std::string("null") ? "/dev/null" : parent + entry.name).c_str(),
                         &expected),
                  0);
        entry.GetStat(&status);
        EXPECT_EQ(std::memcmp(&status, &expected, sizeof status), 0) << entry.name;
    }
    EXPECT_EQ(glob.count(), 3u);
}

TEST_F(FileSearch, NamesAreInTheOrderOfTheirBytes) {
    Names names;
    const std::string word(8, 'w');
    for (const char* tail : {"", "a", "b", "aa", "\xc3\xa4", "\x01", "12345678", "123456789", "1234567", "-"})
        for (const std::string& head : {std::string(), word, word + word, word + "v", word.substr(1)})
            names.push_back(head + tail);
    for (int i = 0; i < 1200; ++i)
        names.push_back("a-numbered-entry-" + std::to_string(i * 79'199 % 100'003));
    std::erase(names, "");
    std::ranges::sort(names);
    names.erase(std::unique(names.begin(), names.end()), names.end());
    for (const std::string& name : names) writeText(directory / ("many/" + name), "");
    names.insert(names.begin(), {".", ".."});
    std::ranges::sort(names);
    EXPECT_EQ(found("many"), names);
}

// A directory whose entries may be listed and not looked at.
TEST_F(FileSearch, LosesNoEntryWhoseStatusCannotBeRead) {
    constexpr uid_t kNobody = 65534;
    const uid_t user = ::geteuid();
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(d.c_str(), 0444), 0);
    if (user == 0 && ::seteuid(kNobody) != 0) GTEST_SKIP() << "root may look at everything, and remains root";
    const Names names = found(d);
    _WIN32_FIND_DATA data;
    Handle* const search = FindFirstFile((d + "/s*").c_str(), &data);
    ASSERT_EQ(::seteuid(user), 0);
    ASSERT_EQ(::chmod(d.c_str(), 0755), 0);
    EXPECT_EQ(names, (Names{".", "..", ".h.txt", "a.txt", "b.txt", "c.jsp", "sub"}));
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(FindClose(search), 2);
}

}  // namespace
}  // namespace traiklofox::test
