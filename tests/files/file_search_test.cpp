// Searches: by handles, by patterns, and in the MFC manner.

#include <traiklofox/events.h>
#include <traiklofox/file_find.h>
#include <traiklofox/file_search.h>
#include <traiklofox/time_conversion.h>

#include <algorithm>

#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

/// With a blank behind each.
std::string joined(const std::vector<std::string>& names) {
    std::string all;
    for (const std::string& name : names) all += name + " ";
    return all;
}

/// What a search finds, to its end.
std::string found(const std::string& path) {
    std::string names;
    _WIN32_FIND_DATA data;
    Handle* const search = FindFirstFile(path.c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) return names;
    do names.append(data.cFileName).append(" ");
    while (FindNextFile(search, &data));
    EXPECT_EQ(errno, ENOENT) << path;
    EXPECT_TRUE(names.ends_with(data.cFileName + std::string(" ")))
        << "exhausted, it leaves the record alone";
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
    constexpr const char* kAll = ". .. .h.txt a.txt b.txt c.jsp sub ";
    const struct {
        const char *path, *names;  // "@" is the absolute path of "d"
    } kRows[] = {{"d", kAll},
                 {"d/", kAll},
                 {"@", kAll},
                 {"@/", kAll},
                 {"@/*", kAll},
                 {"@/sub/..", kAll},
                 {".", ". .. d n "},
                 {"./", ". .. d n "},
                 {"@/sub", ". .. inner "},
                 {"@/*.txt", "a.txt b.txt "},
                 {"@/.*", ". .. .h.txt "},
                 {"@/?.{txt,jsp}", "a.txt b.txt c.jsp "},
                 {"@/*.*", "a.txt b.txt c.jsp "},
                 {"@/su[b]", "sub "},
                 {"@/a.txt", "a.txt "},
                 {"/de[v]", "dev "},
                 {"@/*.none", ""},
                 {"@/none/*", ""},
                 // A "/" in the second place, or none, takes nothing apart.
                 {"d/sub", ". .. inner "},
                 {"./d", kAll},
                 {"d/a.txt", ""},
                 {"d/*", ""},
                 {"./*", ""},
                 {"n", ""},
                 {"*", ""},
                 {"", ""}};
    for (const auto& row : kRows) {
        const std::string path = row.path;
        EXPECT_EQ(found(path.starts_with('@') ? d + path.substr(1) : path), row.names) << path;
    }
}

TEST_F(FileSearch, DescribesWhatItFinds) {
    const std::string path = directory / "d/b.txt";
    fs::resize_file(d + "/a.txt", 0);
    fs::resize_file(path, 0x1'0000'0005);
    const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 500}, {.tv_sec = -5, .tv_nsec = 700}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    fs::create_symlink("b.txt", d + "/link");
    fs::create_symlink("nowhere", d + "/loose");
    fs::create_symlink("sub", d + "/tosub");
    fs::permissions(d + "/c.jsp", fs::perms::all);

    _FILETIME accessed, modified;
    time_tToFileTime(1'000'000'000, &accessed, 0);
    time_tToFileTime(-5, &modified, 0);
    const struct {
        std::string name;
        DWORD attributes, size;
    } kRows[] = {{"a.txt", FILE_ATTRIBUTE_NORMAL, 0},     {"b.txt", FILE_ATTRIBUTE_NORMAL, 5},
                 {"link", FILE_ATTRIBUTE_NORMAL, 5},      {"loose", FILE_ATTRIBUTE_NORMAL, 7},
                 {"c.jsp", FILE_ATTRIBUTE_NORMAL, 7},     {"su[b]", FILE_ATTRIBUTE_DIRECTORY, 0},
                 {"tosu[b]", FILE_ATTRIBUTE_DIRECTORY, 0}};
    for (const auto& [name, attributes, size] : kRows) {
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
    for (const auto& [path, expected] : {std::pair<std::string, int>{"", ENOENT},
                                         {d + "/*.none", ENOENT},
                                         {d + "/a.txt/x*", ENOTDIR},
                                         {d + "/" + std::string(MAX_PATH, '*'), ENAMETOOLONG},
                                         {d + "/*" + std::string(255, 'x'), ENOENT}})
        EXPECT_EQ(error(path.c_str()), expected) << path;
    EXPECT_EQ(error(nullptr), EINVAL);
    {
        const FailCall noDescriptor{Call::Opendir, EMFILE};
        EXPECT_EQ(error("d"), EMFILE);
    }
    {
        const FailCall unreadable{Call::Readdir, EIO, /*onCall=*/4};
        EXPECT_EQ(error("d"), EIO);
    }
    Handle* const event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    for (Handle* const none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event}) {
        EXPECT_EQ(errorOf(FindNextFile(none, &data)), EINVAL);
    }
    EXPECT_EQ(CloseHandle(event), TRUE);
    EXPECT_EQ(FindClose(nullptr), 2);
    EXPECT_EQ(FindClose(INVALID_HANDLE_VALUE), 2);
}

std::string namesOf(const KZSuperGlob& glob) {
    std::string names;
    for (const KZGlobResult& entry : glob) names.append(entry.name).append(" ");
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
    const std::string first = "a.txt b.txt sub ";
    EXPECT_EQ(namesOf(glob), first);

    EXPECT_EQ(errorOf(glob.GlobMore(directory / "none")), ENOENT);
    EXPECT_FALSE(glob.AddPattern(std::string(MAX_PATH, 'x')));
    {
        const FailCall unreadable{Call::Readdir, EIO, /*onCall=*/5};
        EXPECT_FALSE(glob.GlobMore(d));
    }
    EXPECT_EQ(namesOf(glob), first);

    glob.ClearPatterns();
    EXPECT_EQ(namesOf(glob), first);
    EXPECT_TRUE(glob.AddPattern("*"));
    EXPECT_TRUE(glob.GlobMore(d + "/sub"));
    EXPECT_EQ(namesOf(glob), ". .. a.txt b.txt inner sub ");
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
        const std::string parent = entry.name == std::string("null") ? "/dev/" : d + "/";
        ASSERT_EQ(::stat((parent + entry.name).c_str(), &expected), 0);
        entry.GetStat(&status);
        EXPECT_EQ(std::memcmp(&status, &expected, sizeof status), 0) << entry.name;
    }
    EXPECT_EQ(glob.count(), 3u);
}

TEST_F(FileSearch, NamesAreInTheOrderOfTheirBytes) {
    std::vector<std::string> names;
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
    EXPECT_EQ(found("many"), joined(names));
}

// A directory whose entries may be listed and not looked at.
TEST_F(FileSearch, LosesNoEntryWhoseStatusCannotBeRead) {
    constexpr uid_t kNobody = 65534;
    const uid_t user = ::geteuid();
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(d.c_str(), 0444), 0);
    if (user == 0 && ::seteuid(kNobody) != 0) GTEST_SKIP() << "root may look at everything, and remains root";
    const std::string names = found(d);
    _WIN32_FIND_DATA data;
    Handle* const search = FindFirstFile((d + "/s*").c_str(), &data);
    ASSERT_EQ(::seteuid(user), 0);
    ASSERT_EQ(::chmod(d.c_str(), 0755), 0);
    EXPECT_EQ(names, ". .. .h.txt a.txt b.txt c.jsp sub ");
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.dwFileAttributes, FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(FindClose(search), 2);
}

std::string foundByMfc(const char* name) {
    std::string names;
    CFileFind finder;
    for (BOOL more = finder.FindFile(name); more;) {
        more = finder.FindNextFile();
        names.append(finder.GetFileName()).append(" ");
    }
    return names;
}

class FileFind : public testing::Test {
  protected:
    FileFind() {
        for (const char* name : {"d/b.txt", "d/a[1]{x}.txt", "d/.h.txt", "d/plain", "d/sub/inner", "n.n.n"})
            writeText(directory / name, name);
        fs::current_path(directory.path());
    }
    ~FileFind() override { fs::current_path("/"); }

    const TempDir directory;
};

TEST_F(FileFind, FindsPatternsNamesAndEverything) {
    constexpr const char* kAll = ". .. .h.txt a[1]{x}.txt b.txt plain sub ";
    const struct {
        const char *name, *names;
    } kRows[] = {{"d/*", kAll},
                 {"d/*.*", kAll},
                 {"d/*.txt", "a[1]{x}.txt b.txt "},
                 {"d/.*t", ".h.txt "},
                 {"d/{b,c}.txt", "b.txt "},
                 {"d/a[1]{x}.txt", "a[1]{x}.txt "},
                 {"d/.h.txt", ".h.txt "},
                 {"d/sub", "sub "},
                 {"d", "d "},
                 {".", ". "},
                 {"n.n.n", "n.n.n "},
                 {"n*", "n.n.n "},
                 {"./*", ". .. d n.n.n "},
                 {"/de[v]", "dev "},
                 {nullptr, ". .. d n.n.n "}};
    for (const auto& row : kRows) EXPECT_EQ(foundByMfc(row.name), row.names) << row.names;
    EXPECT_EQ(foundByMfc((directory / "d/*").c_str()), kAll);

    CFileFind finder;
    const std::string tooLong(5000, '*');
    const std::pair<const char*, int> kErrors[] = {{"", ENOENT},         {"d/", ENOENT},
                                                   {"d/none", ENOENT},   {"none/*", ENOENT},
                                                   {"n.n.n/*", ENOTDIR}, {tooLong.c_str(), ENAMETOOLONG}};
    for (const auto& [name, error] : kErrors) EXPECT_EQ(errorOf(finder.FindFile(name)), error) << name;
}

TEST_F(FileFind, TellsOfTheEntryThatTheLastStepCameTo) {
    _FILETIME time{1, 2};
    CFileFind finder;
    const auto tellsNothing = [&] {
        return finder.GetFileName().empty() && finder.GetFilePath().empty() &&
               finder.GetFileTitle().empty() && finder.GetLength() == 0 && !finder.MatchesMask(0xFFFFFFFF) &&
               !finder.IsDots() && !finder.GetLastWriteTime(&time) && time.dwHighDateTime == 2;
    };
    EXPECT_TRUE(tellsNothing());
    EXPECT_EQ(errorOf(finder.FindNextFile()), EINVAL);
    ASSERT_TRUE(finder.FindFile("d/{b.txt,plain}"));
    EXPECT_TRUE(tellsNothing());
    EXPECT_EQ(finder.GetRoot(), (directory / "d").c_str());
    EXPECT_TRUE(finder.FindNextFile());
    EXPECT_EQ(finder.GetFileName(), "b.txt");
    EXPECT_EQ(errorOf(finder.FindNextFile()), ENOENT);
    EXPECT_EQ(finder.GetFileName(), "plain");
    EXPECT_FALSE(finder.FindNextFile());
    EXPECT_EQ(finder.GetFileName(), "plain") << "the last one stays";
    finder.Close();
    EXPECT_TRUE(tellsNothing() && finder.GetRoot().empty());
    EXPECT_FALSE(finder.FindNextFile());
}

TEST_F(FileFind, KnowsNamesAttributesAndTimes) {
    const std::string d = directory / "d";
    fs::permissions(d + "/plain", fs::perms::owner_read);
    struct Row {
        const char* name;
        const char* title;
        const char* path;
        DWORD attributes;
        bool isDots;
    };
    const std::string root = directory.path();
    for (const Row& row :
         {Row{"d/b.txt", "b", "/d/b.txt", FILE_ATTRIBUTE_NORMAL, false},
          {".//./d//b.txt", "b", "/d/b.txt", FILE_ATTRIBUTE_NORMAL, false},
          {"n.n.n", "n.n", "/n.n.n", FILE_ATTRIBUTE_NORMAL, false},
          {"d/.h.txt", ".h", "/d/.h.txt", FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_HIDDEN, false},
          {"d/plain", "plain", "/d/plain", FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_READONLY, false},
          {"d/sub", "sub", "/d/sub", FILE_ATTRIBUTE_DIRECTORY, false},
          {"d/..", "..", "/d/..", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_HIDDEN, true}}) {
        CFileFind finder;
        ASSERT_TRUE(finder.FindFile(row.name)) << row.name;
        EXPECT_FALSE(finder.FindNextFile());
        EXPECT_EQ(finder.GetFileTitle(), row.title) << row.name;
        EXPECT_EQ(finder.GetFilePath(), (root + row.path).c_str()) << row.name;
        EXPECT_EQ(finder.IsDots(), row.isDots) << row.name;
        EXPECT_EQ(finder.IsDirectory(), (row.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) << row.name;
        EXPECT_EQ(finder.IsReadOnly(), (row.attributes & FILE_ATTRIBUTE_READONLY) != 0) << row.name;
        EXPECT_EQ(finder.IsHidden(), (row.attributes & FILE_ATTRIBUTE_HIDDEN) != 0) << row.name;
        EXPECT_TRUE(finder.MatchesMask(row.attributes)) << row.name;
        EXPECT_FALSE(finder.MatchesMask(~row.attributes)) << row.name;
        EXPECT_FALSE(finder.GetCreationTime(nullptr));
    }
    CFileFind times;
    const timespec both[2] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (d + "/b.txt").c_str(), both, 0), 0);
    ASSERT_TRUE(times.FindFile("d/b.txt"));
    EXPECT_FALSE(times.FindNextFile());
    _FILETIME accessed{}, written{};
    EXPECT_TRUE(times.GetLastAccessTime(&accessed) && times.GetLastWriteTime(&written));
    EXPECT_EQ(FileTime2longlong(accessed), 1'000'000'000);
    EXPECT_EQ(FileTime2longlong(written), 1'100'000'000);
    CFileFind finder;
    ASSERT_TRUE(finder.FindFile("/de[v]"));
    EXPECT_EQ(finder.GetRoot(), "/");
    EXPECT_FALSE(finder.FindNextFile());
    EXPECT_EQ(finder.GetFilePath(), "/dev");
}

}  // namespace
}  // namespace traiklofox::test
