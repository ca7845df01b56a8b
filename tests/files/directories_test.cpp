#include <sys/statfs.h>
#include <traiklofox/directories.h>
#include <traiklofox/disk_space.h>

#include "files/file_fixture.h"

namespace traiklofox::test {
namespace {

class Directories : public testing::Test {
  protected:
    Directories() { EXPECT_EQ(::chdir(directory_.path().c_str()), 0); }
    ~Directories() override { EXPECT_EQ(::chdir("/"), 0); }

    static bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }
    static struct stat statusOf(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status;
    }
    static mode_t modeOf(const std::string& path) { return statusOf(path).st_mode & 07777; }
    static DWORD sizeOf(const std::string& path) { return static_cast<DWORD>(statusOf(path).st_size); }

    const TempDir directory_;  // the current one; the tests' paths are relative
};

TEST_F(Directories, AreMadeAndTakeAfterTheirTemplate) {
    ::umask(022);
    for (const char* when : {"new", "there"})
        EXPECT_TRUE(CreateDirectory("plain", nullptr)) << when << ": what exists counts as made";
    EXPECT_EQ(modeOf("plain"), 0755u);
    EXPECT_EQ(errorOf(CreateDirectory("missing/new", nullptr)), ENOENT);
    EXPECT_FALSE(CreateDirectory(nullptr, nullptr));

    ASSERT_TRUE(CreateDirectory("model", nullptr));
    const bool mayGiveAway = ::geteuid() == 0 && ::chown("model", 4711, 4712) == 0;
    ASSERT_EQ(::chmod("model", 02711), 0);
    EXPECT_TRUE(CreateDirectoryEx("model", "copy", nullptr));
    EXPECT_EQ(modeOf("copy"), 02711u);
    EXPECT_EQ(statusOf("copy").st_uid, mayGiveAway ? 4711u : ::geteuid());
    for (const char* path : {"plain", "new"}) {
        EXPECT_EQ(errorOf(CreateDirectoryEx("missing", path, nullptr)), ENOENT);
        EXPECT_FALSE(exists(path)) << "removed, even if it existed before";
    }
}

TEST_F(Directories, AreRemovedWhenEmptyWithTheLinkThatNamesThem) {
    // clang-format off
    const struct {
        const char* path;
        std::string target;  // of the link `path`; none: `path` is what the others make of it
        int error;
        bool emptyStays = true;
    } kCases[] = {
        {"sub/empty", "", 0, false}, {"sub/empty/", "", 0, false}, {"sub/full", "", ENOTEMPTY},
        {"sub/file", "", ENOTDIR}, {"sub/missing", "", ENOENT}, {"sub/link", "empty", 0, false},
        {"sub/link", directory_ / "sub/empty", 0, false}, {"sub/link", "full", 0}, {"sub/link", "file", 0},
        {"sub/link", "missing", 0}, {"link", "sub/empty", 0, false},
        {"sub/link/", "empty", ENOTDIR}};  // names the directory, which nobody removes by a link
    // clang-format on
    for (const auto& row : kCases) {
        SCOPED_TRACE(std::string(row.path) + " -> " + row.target);
        fs::create_directories("sub/empty");
        writeText("sub/full/content", "precious");
        writeText("sub/file", "precious");
        std::string link = row.path;
        if (link.ends_with("link/")) link.pop_back();
        if (!row.target.empty()) {
            fs::remove(link);
            fs::create_symlink(row.target, link);
        }
        errno = 0;
        EXPECT_EQ(errorOf(RemoveDirectory(row.path)), row.error);
        EXPECT_FALSE(row.error == 0 && exists(link));
        EXPECT_EQ(readText("sub/full/content") + readText("sub/file"), "preciousprecious");
        EXPECT_EQ(exists("sub/empty"), row.emptyStays);
    }
    EXPECT_FALSE(RemoveDirectory(nullptr));
}

TEST_F(Directories, MarkersAreDeletedWhereTheSystemSaysThatTheDirectoryExists) {
    const struct {
        const char *path, *other;  // beside the marker
        bool removed, markerStays;
    } kCases[] = {{"marked/", "other", true, false},
                  {"marked/", "marked/other", false, false},
                  {"marked", "other", false, true}};  // the marker's path then lacks a separator
    for (const auto& row : kCases) {
        writeText("marked/.KZmark", "");
        writeText(row.other, "precious");
        {
            const FailCall exists{Call::Rmdir, EEXIST};
            EXPECT_EQ(RemoveDirectory(row.path), row.removed);
        }
        EXPECT_EQ(exists("marked"), !row.removed);
        EXPECT_EQ(exists("marked/.KZmark"), row.markerStays);
        EXPECT_EQ(::unlink(row.other), 0) << "it stays";
    }
    const int before = openDescriptors();
    const FailCall exists{Call::Rmdir, EEXIST}, closed{Call::Opendir, EACCES};
    EXPECT_EQ(errorOf(RemoveDirectory("marked/")), EACCES);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Directories, TheCurrentOneIsSetAndTold) {
    ASSERT_TRUE(CreateDirectory("here", nullptr));
    EXPECT_TRUE(SetCurrentDirectory("here"));
    const std::string here = directory_ / "here";
    const auto size = static_cast<DWORD>(here.size());
    char buffer[MAX_PATH] = "#";
    EXPECT_EQ(GetCurrentDirectory(size, buffer), size + 1) << "the NUL does not fit";
    EXPECT_EQ(GetCurrentDirectory(0, nullptr), size + 1);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(GetCurrentDirectory(size + 1, buffer), size);
    EXPECT_EQ(buffer, here);
    EXPECT_EQ(errorOf(SetCurrentDirectory("missing")), ENOENT);
    fs::remove(here);
    EXPECT_EQ(errorOf(GetCurrentDirectory(sizeof buffer, buffer) != 0), ENOENT);
}

TEST_F(Directories, TreeSizeIsOfTheLastSubdirectoryAndWhatFollows) {
    writeText("flat/a", std::string(1000, 'x'));
    writeText("flat/b", std::string(234, 'x'));
    fs::create_symlink("missing", "flat/dangling");
    EXPECT_EQ(GetDirectoryTreeSize("flat"), sizeOf("flat") + 1234);

    writeText("nested/sub/a", std::string(77, 'x'));
    EXPECT_EQ(GetDirectoryTreeSize("nested"), sizeOf("nested/sub") + 77)
        << "replaces what was counted before";
    fs::create_symlink("../../nested", "nested/sub/up");
    fs::create_symlink(".", "nested/sub/self");
    EXPECT_EQ(GetDirectoryTreeSize("nested"), sizeOf("nested/sub") + 77) << "loops add nothing";

    for (const char* none : {"flat/a", "missing", ""}) EXPECT_EQ(GetDirectoryTreeSize(none), 0u) << none;
    const int before = openDescriptors();
    const FailCall closed{Call::Opendir, EMFILE, /*onCall=*/2};
    EXPECT_EQ(GetDirectoryTreeSize("nested"), sizeOf("nested/sub")) << "its own size is all that is known";
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Directories, DiskSpaceIsCutTo32Bits) {
    struct statfs space {};
    ASSERT_EQ(::statfs(".", &space), 0);
    _ULARGE_INTEGER total{}, available{}, free{};
    EXPECT_TRUE(GetDiskFreeSpaceEx(".", &available, &total, &free));
    EXPECT_EQ(total.QuadPart, space.f_blocks * static_cast<ULONGLONG>(space.f_bsize) % (1ull << 32));
    EXPECT_EQ(total.u.HighPart | available.u.HighPart | free.u.HighPart, 0u);
    EXPECT_EQ(free.QuadPart % static_cast<ULONGLONG>(space.f_bsize), 0u);
    EXPECT_TRUE(GetDiskFreeSpaceEx(".", nullptr, nullptr, nullptr));

    const CapturedStderr messages;
    total.QuadPart = 77;
    EXPECT_EQ(errorOf(GetDiskFreeSpaceEx("100%s", &total, &total, &total)), ENOENT);
    EXPECT_EQ(total.QuadPart, 77u);
    EXPECT_EQ(messages.text(),
              "GetDiskFreeSpaceEx: Error from statvfs(100%s), errno=No such file or directory\n");
}

}  // namespace
}  // namespace traiklofox::test
