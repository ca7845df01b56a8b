#include <traiklofox/process_list.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <traiklofox/process.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/bounded_wait.h"
#include "support/fault_injection.h"
#include "support/temp_dir.h"
#include "system/proc_files.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using system::bDumbProcfs;
using system::exitSignalOf;
using system::namesOf;

/// A shell, or a copy of one, that waits for its input for ever, whatever its words.
class Sleeper {
  public:
    explicit Sleeper(const std::string& program, std::vector<std::string> words = {"word", "-s"}) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        input_ = ends[1];
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
        EXPECT_EQ(::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ), 0)
            << program;
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[0]);
        // A process that has just been started has neither its name nor its words for a moment.
        const std::string commandLine = "/proc/" + std::to_string(pid_) + "/cmdline";
        EXPECT_TRUE(withinSeconds(30, [&] { return !readText(commandLine).empty(); }));
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;
    ~Sleeper() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        ::close(input_);
    }
    DWORD id() const { return static_cast<DWORD>(pid_); }

  private:
    pid_t pid_ = 0;
    int input_ = -1;
};

constexpr const char* kShell = "/bin/sh";

using Enumerate = BOOL (*)(DWORD*, DWORD, DWORD*);

std::vector<DWORD> listed(Enumerate enumerate) {
    std::vector<DWORD> ids(100'000);
    DWORD returned = 0;
    EXPECT_EQ(enumerate(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &returned), TRUE);
    ids.resize(returned / sizeof(DWORD));
    return ids;
}

bool lists(Enumerate enumerate, DWORD id) {
    const std::vector<DWORD> ids = listed(enumerate);
    return std::ranges::find(ids, id) != ids.end();
}

const DWORD kSelf = static_cast<DWORD>(::getpid());
const std::string kBehindState =
    " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31 32 33 34";

TEST(ProcessList, TakesAStatusLineApartWhateverTheName) {
    for (const char* name : {"(sh)", "(a b)", "(a) S 9 (b)", "())", "(()", "()"}) {
        const std::string start = "17 " + std::string(name) + " S";
        EXPECT_EQ(exitSignalOf(start + kBehindState + " 17 1 2"), 17) << name;
        EXPECT_EQ(exitSignalOf(start + kBehindState + " -1"), -1) << name;
        EXPECT_EQ(exitSignalOf(start + kBehindState + " "), std::nullopt) << name;
        EXPECT_EQ(exitSignalOf(start + kBehindState), std::nullopt) << name;
        const std::string line = start + " 23 5 6";
        const auto names = namesOf(line);
        ASSERT_TRUE(names) << name;
        EXPECT_EQ(names->name, name);
        EXPECT_EQ(names->parent, 23) << name;
    }
    for (const char* line :
         {"", "1", "1 (sh", "1 sh) S 1", "1 (sh)", "1 (sh) S", "1 (sh) S ", "1 (sh) S x"}) {
        EXPECT_FALSE(namesOf(line)) << line;
        EXPECT_EQ(exitSignalOf(line), std::nullopt) << line;
    }
}

TEST(ProcessList, HasEveryProcessAndNoOther) {
    const TempDir directory;
    const std::string odd = directory / "a b) (c";
    fs::copy_file(kShell, odd);
    const Sleeper plain(kShell), oddly(odd);
    const std::vector<DWORD> ids = listed(EnumProcesses);
    for (const DWORD id : {kSelf, plain.id(), oddly.id()}) EXPECT_EQ(std::ranges::count(ids, id), 1) << id;
    EXPECT_EQ(std::ranges::count(ids, 0u), 0);
    EXPECT_FALSE(bDumbProcfs);

    // Dumbly, a child with its parent's name is a thread of it.
    const pid_t twin = ::fork();
    if (twin == 0) {
        ::pause();
        ::_exit(0);
    }
    EXPECT_TRUE(lists(DumbEnumProcesses, plain.id()) && lists(DumbEnumProcesses, oddly.id()));
    EXPECT_FALSE(lists(DumbEnumProcesses, static_cast<DWORD>(twin)));
    EXPECT_TRUE(lists(EnumProcesses, static_cast<DWORD>(twin)));
    EXPECT_FALSE(lists(DumbEnumProcesses, 1)) << "it has no parent";
    const std::vector<DWORD> dumb = listed(DumbEnumProcesses);
    EXPECT_TRUE(std::ranges::is_sorted(dumb));
    ::kill(twin, SIGKILL);
    ::waitpid(twin, nullptr, 0);
    EXPECT_FALSE(lists(EnumProcesses, static_cast<DWORD>(twin)));
}

TEST(ProcessList, EveryEntryThatIsReadCountsAgainstTheRoom) {
    for (const auto enumerate : {EnumProcesses, DumbEnumProcesses}) {
        DWORD ids[3] = {7, 7, 7};
        DWORD returned = 9;
        EXPECT_EQ(enumerate(ids, 11, &returned), TRUE);
        EXPECT_EQ(returned, 0u);
        EXPECT_EQ(enumerate(nullptr, 3, &returned), TRUE);
        EXPECT_EQ(enumerate(nullptr, 4, &returned), FALSE);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(enumerate(ids, 12, nullptr), FALSE);
        EXPECT_EQ(ids[0] + ids[1] + ids[2], 21u);
        const FailCall closed{faults::Call::Opendir, EMFILE};
        EXPECT_EQ(enumerate(ids, 12, &returned), FALSE);
        EXPECT_EQ(errno, EMFILE);
        const FailCall unreadable{faults::Call::Readdir, EIO, /*onCall=*/2};
        const CountCalls directories{faults::Call::Closedir};
        EXPECT_EQ(enumerate(ids, 12, &returned), FALSE);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(directories.calls(), 1);
    }
}

TEST(ProcessList, AShortLineSetsTheDumbModeAndAVanishedProcessDoesNot) {
    const Sleeper child(kShell);
    {
        const FailCall vanished{faults::Call::Read, ESRCH, {.path = "/stat"}};
        (void)listed(EnumProcesses);
        EXPECT_EQ(vanished.fired(), 1);
        EXPECT_FALSE(bDumbProcfs);
    }
    EXPECT_EQ(GetProcessName(child.id(), 1), fs::canonical(kShell).c_str());
    {
        const FailCall cut{faults::Call::Read, 0, {.path = "/stat", .transferAtMost = 60}};
        EXPECT_TRUE(lists(EnumProcesses, child.id()));
        EXPECT_TRUE(bDumbProcfs);
    }
    EXPECT_FALSE(lists(EnumProcesses, 1)) << "dumb from now on";
    EXPECT_EQ(GetProcessName(child.id(), 1), "sh");
}

TEST(ProcessName, IsThePathOrTheCommand) {
    const TempDir directory;
    const auto made = [&](const char* name) {
        fs::copy_file(kShell, directory / name);
        return directory / name;
    };
    for (const auto& [program, command] : {std::pair{"prog", "prog"},
                                           {"of-more-than-15-bytes", "of-more-than-15"},
                                           {"tick)tock", "tick"},
                                           {"a b", ""}}) {
        const Sleeper sleeper(made(program));
        EXPECT_EQ(GetProcessName(sleeper.id(), 1), (directory / program).c_str());
        EXPECT_EQ(GetProcessName(sleeper.id(), 0), command) << program;
        if (*command == '\0') continue;
        EXPECT_TRUE(DoesProcessExist(command)) << command;
        const FailCall hidden{faults::Call::Readlink, EACCES};
        EXPECT_EQ(GetProcessName(sleeper.id(), 1), command);
    }
    EXPECT_EQ(GetProcessName(0, 0), "");
    EXPECT_EQ(GetProcessName(0x7FFFFFFF, 1), "");
    for (const char* none : {"no-such-name", "", "pro", "prog "})
        EXPECT_FALSE(DoesProcessExist(none)) << none;
    EXPECT_FALSE(DoesProcessExist(nullptr));

    const Sleeper inode(made("12:34"));
    EXPECT_FALSE(bDumbProcfs);
    EXPECT_EQ(GetProcessName(inode.id(), 1), "12:34")
        << "taken for a device and an inode: by the command's name";
    EXPECT_TRUE(bDumbProcfs);
}

TEST(ProcessName, IsFoundAmongMoreProcessesThanTheFirstGuess) {
    std::vector<pid_t> children;
    for (int i = 0; i < 250; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::pause();
            ::_exit(0);
        }
        children.push_back(child);
    }
    const TempDir directory;
    fs::copy_file(kShell, directory / "the-last-one");
    {
        const Sleeper last(directory / "the-last-one");
        EXPECT_TRUE(DoesProcessExist("the-last-one"));
    }
    EXPECT_FALSE(DoesProcessExist("the-last-one"));
    for (const pid_t child : children) ::kill(child, SIGKILL);
    for (const pid_t child : children) ::waitpid(child, nullptr, 0);
}

TEST(ModuleName, ObeysTheDocumentedBounds) {
    const TempDir directory;
    const std::string path = directory / "prog";
    fs::copy_file(kShell, path);
    const Sleeper sleeper(path);
    Handle* const process = new Process(static_cast<int>(sleeper.id()));
    const auto length = static_cast<DWORD>(path.size());
    using Function = DWORD (*)(Handle*, void*, char*, DWORD);
    for (const auto& [function, size, result] :
         std::vector<std::tuple<Function, DWORD, DWORD>>{{GetModuleBaseName, 5, 4},
                                                         {GetModuleBaseName, 4, 4},
                                                         {GetModuleBaseName, 3, 0},
                                                         {GetModuleFileNameEx, length, 4},
                                                         {GetModuleFileNameEx, length - 1, 0},
                                                         {GetModuleFileNameEx, 5, 0}}) {
        char buffer[MAX_PATH];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(function(process, nullptr, buffer, size), result) << size;
        EXPECT_STREQ(std::string(buffer, 5).c_str(), result == 4 ? "prog" : "#####") << size;
        EXPECT_EQ(buffer[5], '#');
        EXPECT_EQ(function(process, nullptr, nullptr, size), 0u);
    }
    EXPECT_EQ(CloseHandle(process), TRUE);

    char own[MAX_PATH], again[MAX_PATH];
    const std::string self = fs::read_symlink("/proc/self/exe").filename();
    EXPECT_EQ(GetModuleFileName(nullptr, own, sizeof own), self.size());
    EXPECT_EQ(own, self);
    EXPECT_EQ(GetModuleBaseName(nullptr, nullptr, again, sizeof again), std::min<size_t>(self.size(), 15));
    Handle* const gone = new Process(0x7FFFFFFF);
    EXPECT_EQ(GetModuleFileNameEx(gone, nullptr, own, sizeof own), 0u);
    EXPECT_EQ(GetModuleBaseName(gone, nullptr, own, 0), 0u);
    EXPECT_EQ(CloseHandle(gone), TRUE);
}

TEST(InstanceName, ComesFromTheDirectoryOrTheCommandLine) {
    const std::string far(300, 'x');
    for (const auto& [first, last, instance] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"/srv/https-alpha/bin/start", "1", "/https-alpha"},
             {"x", "/srv/https-beta", "/https-beta"},
             {"x", "/srv/https-b\tc", "/https-b"},
             {"x", "/srv/https-/https-d", "/https-"},
             {"/https-e f", "1", "/https-e"},
             {"x", "https-none", ""},
             {"", "/srv/https-first-empty", "/https-first-empty"},
             {far, "/srv/https-too-far", ""}}) {
        const Sleeper server(kShell, {first, "-s", last, "", "/srv/https-behind-an-empty-one"});
        EXPECT_EQ(GetProcessInstanceName(server.id()), instance.c_str()) << first << " " << last;
    }
    const TempDir directory;
    for (const auto& [path, instance] :
         {std::pair{"https-alpha/logs", "https-alpha"}, {"a-https-b c", "https-b"}}) {
        fs::create_directories(directory / path);
        fs::current_path(directory / path);
        EXPECT_EQ(GetProcessInstanceName(0), instance);
        EXPECT_EQ(GetProcessInstanceName(kSelf), instance);
    }
    fs::current_path("/");
    EXPECT_EQ(GetProcessInstanceName(0), "");
    EXPECT_EQ(GetProcessInstanceName(0x7FFFFFFF), "");
}

}  // namespace
}  // namespace traiklofox::test
