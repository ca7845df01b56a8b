// Searches: by handles, by patterns, and in the MFC manner.

#include <traiklofox/events.h>
#include <traiklofox/file_find.h>
#include <traiklofox/file_search.h>
#include <traiklofox/time_conversion.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <tuple>

#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

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

/// Files below the current directory, which hold their names; d has sub/inner, too.
class PlacedFiles : public testing::Test {
  protected:
    explicit PlacedFiles(std::initializer_list<const char*> names) {
        writeText(d + "/sub/inner", "");
        for (const char* name : names) writeText(directory / name, name);
        fs::current_path(directory.path());
    }
    ~PlacedFiles() override { fs::current_path("/"); }

    const TempDir directory;
    const std::string d = directory / "d";
    _WIN32_FIND_DATA data{};
};
struct FileSearch : PlacedFiles {
    FileSearch() : PlacedFiles({"d/b.txt", "d/a.txt", "d/.h.txt", "d/c.jsp", "n"}) {}
};
struct FileFind : PlacedFiles {
    FileFind() : PlacedFiles({"d/b.txt", "d/a[1]{x}.txt", "d/.h.txt", "d/plain", "n.n.n", "d/sub/.x"}) {}
};

TEST_F(FileSearch, TakesThePathApartAsDocumented) {
    const struct {
        const char *names, *paths;  // "@" is the absolute path of "d"
    } kRows[] = {{". .. .h.txt a.txt b.txt c.jsp sub ", "d d/ ./d @ @/ @/* @/sub/.."},
                 {". .. d n ", ". ./"},
                 {". .. inner ", "@/sub d/sub"},
                 {"a.txt b.txt ", "@/*.txt"},
                 {". .. .h.txt ", "@/.*"},
                 {"a.txt b.txt c.jsp ", "@/?.{txt,jsp} @/*.*"},
                 {"sub ", "@/su[b]"},
                 {"a.txt ", "@/a.txt"},
                 {"dev ", "/de[v]"},
                 // A "/" in the second place, or none, takes nothing apart.
                 {"", "@/*.none @/none/* d/a.txt d/* ./* n *"}};
    for (const auto& row : kRows) {
        std::istringstream paths(row.paths);
        for (std::string path; paths >> path;)
            EXPECT_EQ(found(path.starts_with('@') ? d + path.substr(1) : path), row.names) << path;
    }
}

TEST_F(FileSearch, DescribesWhatItFinds) {
    fs::resize_file(d + "/a.txt", 0);
    fs::resize_file(d + "/b.txt", 0x1'0000'0005);
    const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 500}, {.tv_sec = -5, .tv_nsec = 700}};
    ASSERT_EQ(::utimensat(AT_FDCWD, "d/b.txt", times, 0), 0);
    fs::create_symlink("b.txt", d + "/link");
    fs::create_symlink("nowhere", d + "/loose");
    fs::create_symlink("sub", d + "/tosub");
    fs::permissions(d + "/c.jsp", fs::perms::all);

    _FILETIME accessed, modified;
    time_tToFileTime(1'000'000'000, &accessed, 0);
    time_tToFileTime(-5, &modified, 0);
    constexpr DWORD kNormal = FILE_ATTRIBUTE_NORMAL, kDirectory = FILE_ATTRIBUTE_DIRECTORY;
    const std::tuple<const char*, DWORD, DWORD> kRows[] = {
        {"a.txt", kNormal, 0}, {"b.txt", kNormal, 5},    {"link", kNormal, 5},      {"loose", kNormal, 7},
        {"c.jsp", kNormal, 7}, {"su[b]", kDirectory, 0}, {"tosu[b]", kDirectory, 0}};
    for (const auto& [name, attributes, size] : kRows) {
        SCOPED_TRACE(name);
        std::memset(&data, 0xEE, sizeof data);
        Handle* const search = FindFirstFile((d + "/" + name).c_str(), &data);
        ASSERT_NE(search, INVALID_HANDLE_VALUE);
        EXPECT_EQ(search->What(), DWORD{HANDLE_KIND_FIND_FILE});
        EXPECT_EQ(data.dwFileAttributes, attributes);
        EXPECT_TRUE(attributes == kDirectory || data.nFileSizeLow == size);
        EXPECT_EQ(data.nFileSizeHigh + data.dwReserved0 + data.dwReserved1, 0u);
        EXPECT_EQ(CompareFileTime(&data.ftCreationTime, &data.ftLastWriteTime), 0);
        if (size == 5) {
            EXPECT_EQ(CompareFileTime(&data.ftLastAccessTime, &accessed), 0);
            EXPECT_EQ(CompareFileTime(&data.ftLastWriteTime, &modified), 0);
        }
        const std::string rest(data.cFileName + std::strlen(data.cFileName), std::end(data.cFileName));
        EXPECT_EQ(rest, std::string(rest.size(), '\0'));
        EXPECT_STREQ(data.cAlternateFileName, "");
        EXPECT_EQ(FindClose(search), 2);
    }
}

TEST_F(FileSearch, WithoutARecordIsNotCheckedAndBeginsWithTheFirstEntry) {
    Handle* search = FindFirstFile((d + "/*.txt").c_str(), nullptr);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(FindNextFile(search, nullptr));
    fs::remove(d + "/b.txt");  // it only walks what it found
    for (const char* name : {"a.txt", "b.txt"}) {
        ASSERT_TRUE(FindNextFile(search, &data));
        EXPECT_STREQ(data.cFileName, name);
    }
    EXPECT_FALSE(FindNextFile(search, &data));
    EXPECT_EQ(FindClose(search), 2);

    search = FindFirstFile("nowhere", nullptr);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(FindNextFile(search, &data));
    EXPECT_EQ(FindClose(search), 2);
}

TEST_F(FileSearch, SaysWhyItFoundNothing) {
    const auto error = [this](const char* path) {
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
    for (const auto& [call, code, onCall] : {std::tuple{Call::Opendir, EMFILE, 1}, {Call::Readdir, EIO, 4}}) {
        const FailCall fails{call, code, onCall};
        EXPECT_EQ(error("d"), code);
    }
    const OwnedHandle event(CreateEvent(nullptr, TRUE, FALSE, nullptr));
    for (Handle* const none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE, event.get()})
        EXPECT_EQ(errorOf(FindNextFile(none, &data)), EINVAL);
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
    EXPECT_TRUE(glob.AddPattern("{a.txt,sub}") && glob.GlobMore(d));
    EXPECT_TRUE(glob.AddPattern("null") && glob.GlobMore("/dev"));
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
    const std::string word(8, 'w');
    std::set<std::string> names{".", ".."};
    for (const char* tail : {"", "a", "b", "aa", "\xc3\xa4", "\x01", "12345678", "123456789", "1234567", "-"})
        for (const std::string& head : {std::string(), word, word + word, word + "v", word.substr(1)})
            names.insert(head + tail);
    for (int i = 0; i < 1200; ++i) names.insert("a-numbered-entry-" + std::to_string(i * 79'199 % 100'003));
    names.erase("");
    std::string joined;
    for (const std::string& name : names) {
        if (!name.starts_with('.')) writeText(directory / ("many/" + name), "");
        joined += name + " ";
    }
    EXPECT_EQ(found("many"), joined);
}

// A directory whose entries may be listed and not looked at.
TEST_F(FileSearch, LosesNoEntryWhoseStatusCannotBeRead) {
    constexpr uid_t kNobody = 65534;
    const uid_t user = ::geteuid();
    fs::permissions(directory.path(), fs::perms{0755});
    fs::permissions(d, fs::perms{0444});
    if (user == 0 && ::seteuid(kNobody) != 0) GTEST_SKIP() << "root may look at everything, and remains root";
    const std::string names = found(d);
    Handle* const search = FindFirstFile((d + "/s*").c_str(), &data);
    ASSERT_EQ(::seteuid(user), 0);
    fs::permissions(d, fs::perms{0755});
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

TEST_F(FileFind, FindsPatternsNamesAndEverything) {
    const std::string all = ". .. .h.txt a[1]{x}.txt b.txt plain sub ", absolute = d + "/*",
                      tooLong(5000, '*');
    // clang-format off
    const std::pair<const char*, std::string> kRows[] = {
        {"d/*", all}, {"d/*.*", all}, {absolute.c_str(), all}, {"d/*.txt", "a[1]{x}.txt b.txt "},
        {"d/.*t", ".h.txt "}, {"d/{b,c}.txt", "b.txt "}, {"d/a[1]{x}.txt", "a[1]{x}.txt "},
        {"d/.h.txt", ".h.txt "}, {"d/sub", "sub "}, {"d", "d "}, {".", ". "}, {"n.n.n", "n.n.n "},
        {"n*", "n.n.n "}, {"./*", ". .. d n.n.n "}, {"/de[v]", "dev "}, {nullptr, ". .. d n.n.n "}};
    const std::pair<const char*, int> kErrors[] = {
        {"", ENOENT}, {"d/", ENOENT}, {"d/none", ENOENT}, {"none/*", ENOENT}, {"n.n.n/*", ENOTDIR},
        {tooLong.c_str(), ENAMETOOLONG}};
    // clang-format on
    for (const auto& [name, names] : kRows) EXPECT_EQ(foundByMfc(name), names) << names;
    CFileFind finder;
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
    constexpr DWORD kNormal = FILE_ATTRIBUTE_NORMAL, kDirectory = FILE_ATTRIBUTE_DIRECTORY,
                    kHidden = FILE_ATTRIBUTE_HIDDEN, kReadOnly = FILE_ATTRIBUTE_READONLY;
    fs::permissions(d + "/plain", fs::perms::owner_read);
    const timespec both[2] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, "d/b.txt", both, 0), 0);
    const std::string root = directory.path();
    const struct {
        const char *name, *title;
        std::string path;
        DWORD attributes;
    } kRows[] = {{"d/b.txt", "b", root + "/d/b.txt", kNormal},
                 {".//./d//b.txt", "b", root + "/d/b.txt", kNormal},
                 {"n.n.n", "n.n", root + "/n.n.n", kNormal},
                 {"d/.h.txt", ".h", root + "/d/.h.txt", kNormal | kHidden},
                 {"d/sub/.x", ".x", root + "/d/sub/.x", kNormal | kHidden},
                 {"d/plain", "plain", root + "/d/plain", kNormal | kReadOnly},
                 {"d/sub", "sub", root + "/d/sub", kDirectory},
                 {"d/..", "..", root + "/d/..", kDirectory | kHidden},
                 {"/de[v]", "dev", "/dev", kDirectory}};
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        CFileFind finder;
        ASSERT_TRUE(finder.FindFile(row.name));
        EXPECT_FALSE(finder.FindNextFile());
        EXPECT_EQ(finder.GetFileTitle(), row.title);
        EXPECT_EQ(finder.GetFilePath(), row.path.c_str());
        EXPECT_EQ(finder.GetRoot() == "/", row.path == "/dev");
        EXPECT_EQ(finder.IsDots(), row.title == std::string(".."));
        EXPECT_EQ(finder.IsDirectory(), (row.attributes & kDirectory) != 0);
        EXPECT_EQ(finder.IsReadOnly(), (row.attributes & kReadOnly) != 0);
        EXPECT_EQ(finder.IsHidden(), (row.attributes & kHidden) != 0);
        EXPECT_TRUE(finder.MatchesMask(row.attributes) && !finder.MatchesMask(~row.attributes));
        EXPECT_FALSE(finder.GetCreationTime(nullptr));
        if (row.title != std::string("b")) continue;
        _FILETIME accessed{}, written{};
        EXPECT_TRUE(finder.GetLastAccessTime(&accessed) && finder.GetLastWriteTime(&written));
        EXPECT_EQ(FileTime2longlong(accessed), 1'000'000'000);
        EXPECT_EQ(FileTime2longlong(written), 1'100'000'000);
    }
}

}  // namespace
}  // namespace traiklofox::test
