#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <traiklofox/profiles.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/bounded_wait.h"
#include "support/captured_output.h"
#include "support/fault_injection.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

using faults::Call;
using namespace std::string_literals;

constexpr char kUntouched = '\x7f';

/// What a call gave: its result, what it stored (up to the NULs that end it), and errno.
struct Got {
    DWORD result;
    std::string stored;
    int error;
    bool operator==(const Got&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Got& got) {
    std::string shown = got.stored;
    for (size_t at = 0; (at = shown.find('\0', at)) != shown.npos;) shown.replace(at, 1, "\\0");
    return out << got.result << " \"" << shown << "\" errno " << got.error;
}

template <class Read>
Got got(DWORD size, Read read) {
    std::vector<char> buffer(size + 1, kUntouched);
    errno = 0;
    const DWORD result = read(buffer.data(), size);
    EXPECT_EQ(buffer[size], kUntouched) << "behind the buffer";
    const int error = errno;
    return {result, std::string(buffer.data(), std::min<size_t>(result, size)), error};
}

class ProfileTest : public testing::Test {
  protected:
    std::string value(const char* section, const char* key, const char* file = nullptr) {
        char buffer[256];
        GetPrivateProfileString(section, key, "(none)", buffer, sizeof buffer,
                                file != nullptr ? file : name());
        return buffer;
    }
    bool set(const char* section, const char* key, const char* value) {
        return WritePrivateProfileString(section, key, value, name()) != FALSE;
    }
    const char* name() const { return path_.c_str(); }
    std::string text() const { return readText(path_); }

    TempDir directory_;
    const std::string path_ = directory_ / "server.ini";
};

TEST_F(ProfileTest, ValuesAreFoundByTheirNamesAndCutToTheBuffer) {
    writeText(path_,
              "\xEF\xBB\xBF lost=0\n[ Main ]\r\n  Port = 80  \r\n;Port=81\nport=82\nEmpty=\n"
              "Quoted=\" a \"\nSingle='b'\nOdd=\"c'\nOne=\"\nTwo==x=\nNoise\n"
              "Nul=be\0fore\n[other]\nHost=h\n[MAIN]\nHost=late\n[unclosed\nU=1\n[a] ; note ]\nN=1"s);
    const struct {
        const char* section;
        const char* key;
        const char* defaultValue;
        DWORD size;
        Got expected;
    } kCases[] = {
        {"Main", "Port", "", 100, {2, "80", 0}},
        {"  mAIN", "pORT ", nullptr, 100, {2, "80", 0}},
        {"main", "Port", "", 3, {2, "80", 0}},
        {"main", "Port", "", 2, {1, "8", ERANGE}},
        {"main", "Port", "", 1, {0, "", ERANGE}},
        {"main", "Port", "", 0, {0, "", EINVAL}},
        {"main", "Empty", "default", 100, {0, "", 0}},
        {"main", "Quoted", "", 100, {3, " a ", 0}},
        {"main", "Single", "", 100, {1, "b", 0}},
        {"main", "Odd", "", 100, {3, "\"c'", 0}},
        {"main", "One", "", 100, {1, "\"", 0}},
        {"main", "Two", "", 100, {3, "=x=", 0}},
        {"main", "Nul", "", 100, {2, "be", 0}},
        {"main", "Noise", "-", 100, {1, "-", ENOENT}},
        {"main", "Host", "default \t ", 100, {7, "default", ENOENT}},
        {"main", "Host", "default", 4, {3, "def", ERANGE}},
        {"main", ";Port", nullptr, 100, {0, "", ENOENT}},
        {"", "lost", "-", 100, {1, "-", ENOENT}},
        {"other", "Host", "", 100, {1, "h", 0}},
        {"unclosed", "U", "", 100, {1, "1", 0}},
        {"a", "N", "", 100, {1, "1", 0}},
        {"none", "N", "-", 100, {1, "-", ENOENT}},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(testing::Message() << row.section << '/' << row.key << ' ' << row.size);
        EXPECT_EQ(got(row.size,
                      [&](char* buffer, DWORD size) {
                          return GetPrivateProfileString(row.section, row.key, row.defaultValue, buffer, size,
                                                         name());
                      }),
                  row.expected);
    }
}

TEST_F(ProfileTest, ListsEndWithTwoNulsHoweverSmallTheBuffer) {
    writeText(path_, "[one]\nab = 1\n;c\n\ncd=\" 2 \"\nplain\n[two]\n[Three]\nx=y\n");
    const char* file = name();
    const auto names = [&](char* buffer, DWORD size) {
        return GetPrivateProfileSectionNames(buffer, size, file);
    };
    const auto sections = [&](char* buffer, DWORD size) {
        return GetPrivateProfileString(nullptr, "ignored", "-", buffer, size, file);
    };
    const auto keys = [&](char* buffer, DWORD size) {
        return GetPrivateProfileString("ONE", nullptr, "-", buffer, size, file);
    };
    const auto section = [&](char* buffer, DWORD size) {
        return GetPrivateProfileSection("one", buffer, size, file);
    };
    EXPECT_EQ(got(100, names), (Got{14, "one\0two\0Three\0"s, 0}));
    EXPECT_EQ(got(15, sections), (Got{14, "one\0two\0Three\0"s, 0}));
    EXPECT_EQ(got(14, sections), (Got{12, "one\0two\0Thre"s, ERANGE}));
    EXPECT_EQ(got(100, keys), (Got{6, "ab\0cd\0"s, 0}));
    EXPECT_EQ(got(100, section), (Got{20, "ab=1\0cd=\" 2 \"\0plain\0"s, 0}));
    EXPECT_EQ(got(6, section), (Got{4, "ab=1", ERANGE}));
    EXPECT_EQ(got(7, section), (Got{5, "ab=1\0"s, ERANGE}));
    EXPECT_EQ(got(2, keys), (Got{0, "", ERANGE}));
    EXPECT_EQ(got(1, keys), (Got{0, "", ERANGE}));
    const auto missing = [&](char* buffer, DWORD size) {
        return GetPrivateProfileSection("no", buffer, size, file);
    };
    EXPECT_EQ(got(100, missing), (Got{0, "", ENOENT}));
    for (DWORD size = 2; size < 24; ++size) {
        std::vector<char> buffer(size, kUntouched);
        const DWORD length = GetPrivateProfileSection("one", buffer.data(), size, file);
        EXPECT_EQ(std::string(&buffer[length > 0 ? length - 1 : 0], 2).back(), '\0') << size;
        EXPECT_EQ(buffer[length + (length == size - 2 ? 1 : 0)], '\0') << size;
    }
}

TEST_F(ProfileTest, NumbersAreReadAsFarAsTheyGo) {
    const struct {
        const char* text;
        UINT number;
    } kCases[] = {
        {"80", 80},
        {"-5", static_cast<UINT>(-5)},
        {"+7x", 7},
        {"0x1fG", 0x1f},
        {"abc", 0},
        {"", 42},
        {"\"12\"", 12},
        {"4294967297", 1},
        {"-0X10", static_cast<UINT>(-16)},
    };
    for (const auto& row : kCases) {
        writeText(path_, "[s]\nn="s + row.text);
        WritePrivateProfileString(nullptr, nullptr, nullptr, name());  // the same size in the same tick
        EXPECT_EQ(GetPrivateProfileInt("s", "n", 42, name()), row.number) << row.text;
    }
    EXPECT_EQ(GetPrivateProfileInt("s", "none", -42, name()), static_cast<UINT>(-42));
}

TEST_F(ProfileTest, ChangesLeaveAllElseAsItIs) {
    const struct {
        const char *before, *section, *key, *value, *after;
    } kCases[] = {
        {"", "s", "k", "v", "[s]\nk=v\n"},
        {"[a]\r\nx = 1 \r\n", "A", "X", "22", "[a]\r\nx = 22 \r\n"},
        {"[a]\nx=\n", "a", "x", "1", "[a]\nx=1\n"},
        {"[a]\nx=  \n", "a", "x", "1", "[a]\nx=1  \n"},
        {"[a]\nx=1", "a", "y", "2", "[a]\nx=1\ny=2\n"},
        {"[a]\r\n;c\r\nx=1\r\n\r\n;for b\r\n[b]\r\n", "a", "y", "2",
         "[a]\r\n;c\r\nx=1\r\ny=2\r\n\r\n;for b\r\n[b]\r\n"},
        {"[a]", "a", "y", "2", "[a]\ny=2\n"},
        {"[a]\nx=1", " b ", " y ", "2", "[a]\nx=1\n[b]\ny=2\n"},
        {"[a]\nx=1\nX=2\n[a]\nx=3\n", "a", "x", "9", "[a]\nx=9\nX=2\n[a]\nx=3\n"},
        {"[a]\nx=1\n;\nX=2\n[a]\nx=3\n", "a", "x", nullptr, "[a]\n;\n[a]\nx=3\n"},
        {"[a]\nx=1\n[b]\ny=1\n[A]\nx=3", "a", nullptr, nullptr, "[b]\ny=1\n"},
        {"[a]\nx=1\n", "b", nullptr, nullptr, "[a]\nx=1\n"},
        {"[a]\nx=1\n", "a", "y", nullptr, "[a]\nx=1\n"},
        {"[a]\nx=1\n", "a", nullptr, "ignored", ""},
        {"[a]\n", "a", "x", "\" v \"", "[a]\nx=\" v \"\n"},
    };
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.before);
        writeText(path_, row.before);
        EXPECT_TRUE(set(row.section, row.key, row.value));
        EXPECT_EQ(text(), row.after);
    }
    writeText(path_, "[a]\n;c\nx=1\nnoise\n\n[b]\n");
    EXPECT_TRUE(WritePrivateProfileSection("A", "p=1\0q = 2\0", name()));
    EXPECT_EQ(text(), "[a]\np=1\nq = 2\n;c\n\n[b]\n");
    EXPECT_TRUE(WritePrivateProfileSection("c", "", name()));
    EXPECT_TRUE(WritePrivateProfileSection("b", nullptr, name()));
    EXPECT_EQ(text(), "[a]\np=1\nq = 2\n;c\n\n[c]\n");
}

TEST_F(ProfileTest, WhatWouldNotBeReadBackIsRefused) {
    writeText(path_, "[a]\nx=1\n");
    const struct {
        const char *section, *key, *value;
    } kCases[] = {
        {nullptr, "k", "v"}, {nullptr, "k", nullptr}, {nullptr, nullptr, "v"}, {"a]b", "k", "v"},
        {"a\nb", "k", "v"},  {"a", "", "v"},          {"a", " \t", "v"},       {"a", "k=l", "v"},
        {"a", "[k", "v"},    {"a", ";k", "v"},        {"a", "k\rl", "v"},      {"a", "k", "v\n[b]"},
    };
    for (const auto& row : kCases) {
        errno = 0;
        EXPECT_FALSE(set(row.section, row.key, row.value));
        EXPECT_EQ(errno, EINVAL);
    }
    for (const char* lines : {"x=1\0[b]\0", "x=1\0y=1\n[b]\0", "  \0"})
        EXPECT_FALSE(WritePrivateProfileSection("a", lines, name()));
    EXPECT_FALSE(WritePrivateProfileSection(nullptr, "x=2\0", name()));
    EXPECT_EQ(text(), "[a]\nx=1\n");
}

TEST_F(ProfileTest, BytesComeBackUnlessTheTextWasTouched) {
    BYTE bytes[300];
    for (size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<BYTE>(i * 7);
    BYTE read[sizeof bytes] = {};
    ASSERT_TRUE(WritePrivateProfileStruct("s", "all", bytes, sizeof bytes, name()));
    EXPECT_TRUE(GetPrivateProfileStruct("s", "all", read, sizeof read, name()));
    EXPECT_EQ(std::vector(bytes, std::end(bytes)), std::vector(read, std::end(read)));
    BYTE two[] = {0xAB, 0x02};
    ASSERT_TRUE(WritePrivateProfileStruct("s", "two", two, 2, name()));
    EXPECT_EQ(value("s", "two"), "AB02AD");
    for (const char* touched : {"AB02AE", "AB02A", "AB02AD00", "AB0gAD", ""}) {
        set("s", "two", touched);
        errno = 0;
        EXPECT_FALSE(GetPrivateProfileStruct("s", "two", two, 2, name())) << touched;
        EXPECT_EQ(errno, EBADMSG);
    }
    set("s", "two", "ab02ad");
    EXPECT_FALSE(GetPrivateProfileStruct("s", "two", two, 1, name()));
    EXPECT_TRUE(GetPrivateProfileStruct("s", "two", two, 2, name()));
    EXPECT_TRUE(WritePrivateProfileStruct("s", "two", nullptr, 0, name()));
    EXPECT_FALSE(GetPrivateProfileStruct("s", "two", two, 2, name()));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProfileTest, NamesWithoutADirectoryAreInTheInstallation) {
    ::setenv("TWHOME", directory_.path().c_str(), /*overwrite=*/1);
    EXPECT_TRUE(WriteProfileString("fonts", "size", "12"));
    EXPECT_TRUE(WriteProfileSection("ports", "a=1\0"));
    EXPECT_EQ(readText(directory_ / "win.ini"), "[fonts]\nsize=12\n[ports]\na=1\n");
    EXPECT_EQ(GetProfileInt("fonts", "size", 0), 12U);
    char buffer[20];
    EXPECT_EQ(GetProfileString("fonts", "size", "", buffer, sizeof buffer), 2U);
    EXPECT_EQ(GetProfileSection("ports", buffer, sizeof buffer), 4U);
    EXPECT_EQ(GetPrivateProfileInt("fonts", "size", 0, nullptr), 12U);
    EXPECT_TRUE(WritePrivateProfileString("a", "b", "c", "own.ini"));
    EXPECT_EQ(value("a", "b", (directory_ / "own.ini").c_str()), "c");
}

TEST_F(ProfileTest, FileKeepsItsOwnerModeAndPlaceBehindALink) {
    const std::string link = directory_ / "link.ini";
    writeText(path_, "[a]\nx=1\n");
    ::chmod(path_.c_str(), 0640);
    const bool isRoot = ::geteuid() == 0;
    if (isRoot) {
        ASSERT_EQ(::chown(path_.c_str(), 1234, 5678), 0);
    }
    ASSERT_EQ(::symlink("server.ini", link.c_str()), 0);
    const struct {
        long long seconds, nanoseconds;
    } late[] = {{1LL << 32, 0}, {1LL << 32, 0}};  // of after 2038, where the file system has such dates
#if defined(SYS_utimensat_time64)
    ASSERT_EQ(::syscall(SYS_utimensat_time64, AT_FDCWD, path_.c_str(), late, 0), 0);
#else
    ASSERT_EQ(::syscall(SYS_utimensat, AT_FDCWD, path_.c_str(), late, 0), 0);
#endif
    EXPECT_TRUE(WritePrivateProfileString("a", "x", "2", link.c_str()));
    EXPECT_EQ(value("a", "x"), "2");
    struct stat status {};
    ASSERT_EQ(::lstat(path_.c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    if (isRoot) {
        EXPECT_EQ(status.st_uid, 1234U);
        EXPECT_EQ(status.st_gid, 5678U);
    }
    ASSERT_EQ(::lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

TEST_F(ProfileTest, FailedWriteLeavesTheOldFileAndNothingElse) {
    for (const Call call :
         {Call::Open, Call::Read, Call::Write, Call::Fsync, Call::Fchmod, Call::Rename, Call::Lockf}) {
        writeText(path_, "[a]\nx=1\n");
        const int faults =
            failEveryCall(call, EIO,
                          [&](const FailCall& fault, int) {
                              const CapturedStderr messages;  // of a lock that cannot be had
                              errno = 0;
                              const bool isSet = set("a", "x", "2");
                              if (fault.fired() == 0) return;
                              if (call != Call::Fchmod) {  // what a file in memory is closed with
                                  EXPECT_FALSE(isSet);
                                  EXPECT_EQ(errno, EIO);
                              }
                          },
                          {.path = directory_.path()});
        EXPECT_GT(faults, 0) << static_cast<int>(call);
        EXPECT_EQ(text(), "[a]\nx=2\n");
        size_t files = 0;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path()))
            files += entry.exists();
        EXPECT_EQ(files, 2U) << "profile and lock";
    }
}

TEST_F(ProfileTest, WhatIsNoFileIsNeitherReadNorReplaced) {
    const std::string pipe = directory_ / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const std::string below = pipe + "/below.ini";
    const struct {
        std::string path;
        int error;
    } kCases[] = {{directory_.path(), EISDIR}, {pipe, EINVAL}};
    for (const auto& row : kCases) {
        errno = 0;
        EXPECT_EQ(value("a", "x", row.path.c_str()), "(none)");
        EXPECT_EQ(errno, row.error);
        errno = 0;
        EXPECT_FALSE(WritePrivateProfileString("a", "x", "1", row.path.c_str()));
        EXPECT_EQ(errno, row.error);
    }
    const CapturedStderr messages;
    EXPECT_FALSE(WritePrivateProfileString("a", "x", "1", below.c_str()));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_ROLE(changesTheProfile) {
    tellTest(WritePrivateProfileString("a", args.at(1).c_str(), "theirs", args.at(0).c_str()) ? "done"
                                                                                              : "failed");
    return 0;
}

TEST_F(ProfileTest, OthersChangesAreSeenSoonAndAtOnceAfterAFlush) {
    const auto changeElsewhere = [&](const char* key) {
        RoleProcess other{"changesTheProfile", {path_, key}};
        EXPECT_EQ(other.readLine(), "done");
        EXPECT_EQ(other.wait(), ExitStatus::exited(0));
    };
    EXPECT_EQ(value("a", "x"), "(none)");
    changeElsewhere("x");
    EXPECT_TRUE(withinSeconds(30, [&] { return value("a", "x") == "theirs"; }));
    changeElsewhere("y");
    errno = 7;
    EXPECT_FALSE(WritePrivateProfileString(nullptr, nullptr, nullptr, name()));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(value("a", "y"), "theirs");
    // By an editor that writes in place, the size as it was.
    writeText(path_, "[a]\nx=edited\ny=edited\n");
    EXPECT_TRUE(withinSeconds(30, [&] { return value("a", "y") == "edited"; }));
    ASSERT_EQ(::unlink(path_.c_str()), 0);
    EXPECT_TRUE(withinSeconds(30, [&] { return value("a", "y") == "(none)"; }));
}

TEST_F(ProfileTest, CachedChangesAreWrittenTogetherIntoWhatTheFileHoldsThen) {
    writeText(path_, "[a]\nx=1\n");
    ASSERT_TRUE(SetProfileWriteCaching(TRUE));
    EXPECT_TRUE(set("a", "x", "2"));
    EXPECT_TRUE(set("b", "y", "3"));
    EXPECT_TRUE(set("b", "z", "4"));
    EXPECT_TRUE(set("b", "z", nullptr));
    EXPECT_EQ(value("a", "x") + value("b", "y") + value("b", "z"), "23(none)");
    EXPECT_EQ(text(), "[a]\nx=1\n");
    {
        RoleProcess other{"changesTheProfile", {path_, "w"}};
        EXPECT_EQ(other.readLine(), "done");
    }
    EXPECT_TRUE(withinSeconds(30, [&] { return value("a", "w") == "theirs"; }));
    EXPECT_EQ(value("a", "x") + value("b", "y"), "23");
    {
        const FailCall full{Call::Write, ENOSPC, {.andAllLater = true, .path = directory_.path()}};
        errno = 0;
        EXPECT_FALSE(WritePrivateProfileString(nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_EQ(text(), "[a]\nx=1\nw=theirs\n");
    EXPECT_TRUE(SetProfileWriteCaching(FALSE));
    EXPECT_EQ(text(), "[a]\nx=2\nw=theirs\n[b]\ny=3\n");
    const std::string other = directory_ / "other.ini";
    ASSERT_TRUE(SetProfileWriteCaching(TRUE));
    EXPECT_TRUE(set("a", "x", "5"));
    EXPECT_TRUE(WritePrivateProfileString("n", "k", "v", other.c_str()));
    EXPECT_FALSE(WritePrivateProfileString(nullptr, nullptr, nullptr, name()));
    EXPECT_TRUE(text().starts_with("[a]\nx=5\n"));
    EXPECT_NE(::access(other.c_str(), F_OK), 0) << "a flush of one file is no other's";
}

TEST_ROLE(cachesAChangeAndEnds) {
    SetProfileWriteCaching(TRUE);
    for (int i = 0; i < std::atoi(args.at(1).c_str()); ++i)
        WritePrivateProfileString("a", std::to_string(i).c_str(), "1", args.at(0).c_str());
    if (args.at(2) == "exit") std::exit(0);
    ::_exit(0);
}

TEST_F(ProfileTest, CachedChangesReachTheFileAtTheNormalEndOrWhenThereAreMany) {
    const struct {
        const char *count, *end;
        int written;
    } kCases[] = {
        {"3", "exit", 3},
        {"3", "kill", 0},
#if !defined(__SANITIZE_THREAD__)  // which takes more than half a minute for the thousand
        {"1001", "kill", 1000},
#endif
    };
    for (const auto& row : kCases) {
        ::unlink(path_.c_str());
        RoleProcess process{"cachesAChangeAndEnds", {path_, row.count, row.end}};
        EXPECT_EQ(process.wait(), ExitStatus::exited(0));
        WritePrivateProfileString(nullptr, nullptr, nullptr, name());
        std::vector<char> keys(100'000);
        GetPrivateProfileString("a", nullptr, "", keys.data(), static_cast<DWORD>(keys.size()), name());
        int count = 0;
        for (const char* key = keys.data(); *key != '\0'; key += std::strlen(key) + 1) ++count;
        EXPECT_EQ(count, row.written) << row.count << ' ' << row.end;
    }
}

constexpr int kWriters = 6;
constexpr int kEach = 40;

TEST_ROLE(writesManyKeys) {
    const std::string& path = args.at(0);
    const std::string& own = args.at(1);
    if (args.at(2) == "cached") SetProfileWriteCaching(TRUE);
    tellTest("ready");
    if (hearTest() != "go") return 1;
    // Two threads, one of them by another name of the file.
    const auto write = [&](const std::string& file, const char* half) {
        for (int i = 0; i < kEach / 2; ++i) {
            const std::string key = own + half + std::to_string(i);
            EXPECT_TRUE(WritePrivateProfileString("all", key.c_str(), "1", file.c_str()));
            EXPECT_TRUE(WritePrivateProfileString("last", own.c_str(), key.c_str(), file.c_str()));
        }
    };
    std::thread other(write, path + ".link", "b");
    write(path, "a");
    other.join();
    EXPECT_TRUE(SetProfileWriteCaching(FALSE));
    return 0;
}

TEST_F(ProfileTest, SixProcessesThatWriteAtOnceLoseNothing) {
    writeText(path_, "; kept\n[all]\nfirst=1\n");
    ASSERT_EQ(::symlink("server.ini", (path_ + ".link").c_str()), 0);
    std::vector<RoleProcess> writers;
    for (int i = 0; i < kWriters; ++i) {
        const std::string own(1, static_cast<char>('p' + i));
        writers.emplace_back("writesManyKeys", RoleArguments{path_, own, i < 4 ? "direct" : "cached"});
    }
    for (RoleProcess& writer : writers) ASSERT_EQ(writer.readLine(), "ready");
    for (RoleProcess& writer : writers) ASSERT_TRUE(writer.writeLine("go"));
    for (RoleProcess& writer : writers)
        EXPECT_EQ(writer.wait(std::chrono::seconds(90)), ExitStatus::exited(0));
    EXPECT_TRUE(text().starts_with("; kept\n[all]\nfirst=1\n"));
    int missing = 0;
    for (int i = 0; i < kWriters; ++i)
        for (int j = 0; j < kEach; ++j) {
            const std::string key =
                std::string(1, static_cast<char>('p' + i)) + (j % 2 != 0 ? "a" : "b") + std::to_string(j / 2);
            missing += value("all", key.c_str()) != "1";
        }
    EXPECT_EQ(missing, 0);
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path()))
        EXPECT_EQ(entry.path().filename().string().find(".kztmp"), std::string::npos);
}

TEST_F(ProfileTest, MoreProfilesThanAreKeptAreReadAndChanged) {
    ASSERT_TRUE(SetProfileWriteCaching(TRUE));
    const auto file = [&](int i) { return directory_ / (std::to_string(i) + ".ini"); };
    for (int i = 0; i < 150; ++i) {
        if (i % 2 == 0)
            writeText(file(i), "[a]\nx=" + std::to_string(i));
        else
            EXPECT_TRUE(WritePrivateProfileString("a", "x", std::to_string(i).c_str(), file(i).c_str()));
        EXPECT_EQ(value("a", "x", file(i).c_str()), std::to_string(i));
    }
    for (int i = 0; i < 150; ++i) EXPECT_EQ(value("a", "x", file(i).c_str()), std::to_string(i));
    EXPECT_TRUE(SetProfileWriteCaching(FALSE));
    EXPECT_EQ(readText(file(149)), "[a]\nx=149\n");
}

}  // namespace
}  // namespace traiklofox::test
