#include <traiklofox/file_find.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <traiklofox/time_conversion.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

Names found(const char* name) {
    Names names;
    CFileFind finder;
    for (BOOL more = finder.FindFile(name); more;) {
        more = finder.FindNextFile();
        names.push_back(finder.GetFileName());
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
    const Names all{".", "..", ".h.txt", "a[1]{x}.txt", "b.txt", "plain", "sub"};
    for (const auto& [name, names] :
         std::vector<std::pair<std::string, Names>>{{"d/*", all},
                                                    {"d/*.*", all},
                                                    {directory / "d/*", all},
                                                    {"d/*.txt", {"a[1]{x}.txt", "b.txt"}},
                                                    {"d/.*t", {".h.txt"}},
                                                    {"d/{b,c}.txt", {"b.txt"}},
                                                    {"d/a[1]{x}.txt", {"a[1]{x}.txt"}},
                                                    {"d/.h.txt", {".h.txt"}},
                                                    {"d/sub", {"sub"}},
                                                    {"d", {"d"}},
                                                    {".", {"."}},
                                                    {"n.n.n", {"n.n.n"}},
                                                    {"n*", {"n.n.n"}},
                                                    {"./*", {".", "..", "d", "n.n.n"}},
                                                    {"/de[v]", {"dev"}}})
        EXPECT_EQ(found(name.c_str()), names) << name;
    EXPECT_EQ(found(nullptr), (Names{".", "..", "d", "n.n.n"}));

    CFileFind finder;
    for (const auto& [name, error] :
         std::vector<std::pair<std::string, int>>{{"", ENOENT},
                                                  {"d/", ENOENT},
                                                  {"d/none", ENOENT},
                                                  {"none/*", ENOENT},
                                                  {"n.n.n/*", ENOTDIR},
                                                  {std::string(5000, '*'), ENAMETOOLONG}}) {
        errno = 0;
        EXPECT_FALSE(finder.FindFile(name.c_str())) << name;
        EXPECT_EQ(errno, error) << name;
    }
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
    EXPECT_FALSE(finder.FindNextFile());
    EXPECT_EQ(errno, EINVAL);
    ASSERT_TRUE(finder.FindFile("d/{b.txt,plain}"));
    EXPECT_TRUE(tellsNothing());
    EXPECT_EQ(finder.GetRoot(), (directory / "d").c_str());
    EXPECT_TRUE(finder.FindNextFile());
    EXPECT_EQ(finder.GetFileName(), "b.txt");
    EXPECT_FALSE(finder.FindNextFile());
    EXPECT_EQ(errno, ENOENT);
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
    fs::resize_file(d + "/b.txt", 0x1'0000'0003);
    const timespec times[2] = {{.tv_sec = 100, .tv_nsec = 0}, {.tv_sec = 200, .tv_nsec = 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (d + "/b.txt").c_str(), times, 0), 0);
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
        if (finder.GetFileName() != "b.txt") continue;
        EXPECT_EQ(finder.GetLength(), 0x1'0000'0003u);
        _FILETIME created, accessed, written;
        EXPECT_TRUE(finder.GetCreationTime(&created) && finder.GetLastAccessTime(&accessed) &&
                    finder.GetLastWriteTime(&written));
        EXPECT_EQ(FileTime2longlong(created), 200);
        EXPECT_EQ(FileTime2longlong(accessed), 100);
        EXPECT_EQ(FileTime2longlong(written), 200);
        EXPECT_FALSE(finder.GetCreationTime(nullptr));
    }
    CFileFind finder;
    ASSERT_TRUE(finder.FindFile("/de[v]"));
    EXPECT_EQ(finder.GetRoot(), "/");
    EXPECT_FALSE(finder.FindNextFile());
    EXPECT_EQ(finder.GetFilePath(), "/dev");
}

}  // namespace
}  // namespace traiklofox::test
