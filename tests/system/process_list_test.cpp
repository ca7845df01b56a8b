#include <traiklofox/process_list.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <traiklofox/process.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/bounded_wait.h"
#include "support/fault_injection.h"
#include "support/owned_handle.h"
#include "support/temp_dir.h"
#include "system/proc_files.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;
using faults::Call;
using system::bDumbProcfs;
using system::exitSignalOf;
using system::namesOf;

constexpr const char* kShell = "/bin/sh";
constexpr DWORD kNobody = 0x7FFFFFFF;
const DWORD kSelf = static_cast<DWORD>(::getpid());

/// A process that waits for ever: a shell, or a copy of one, whatever its words; without a program, this one's child.
class Sleeper {
  public:
    explicit Sleeper(const std::string& program = "", std::vector<std::string> words = {"word", "-s"}) {
        int input[2];
        EXPECT_EQ(::pipe2(input, O_CLOEXEC), 0);
        input_ = input[1];
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        if (pid_ = ::fork(); pid_ == 0) {
            ::dup2(input[0], STDIN_FILENO);
            if (!program.empty()) ::execv(program.c_str(), argv.data());
            ::_exit(program.empty() ? ::pause() : 1);
        }
        ::close(input[0]);
        std::string line;
        for (const std::string& word : words) line += word + '\0';
        const std::string shown = "/proc/" + std::to_string(pid_) + "/cmdline";
        EXPECT_TRUE(program.empty() || withinSeconds(30, [&] { return readText(shown) == line; }));
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

using Enumerate = BOOL (*)(DWORD*, DWORD, DWORD*);

std::vector<DWORD> listed(Enumerate enumerate) {
    std::vector<DWORD> ids(100'000);
    DWORD returned = 0;
    EXPECT_EQ(enumerate(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &returned), TRUE);
    ids.resize(returned / sizeof(DWORD));
    return ids;
}
long times(Enumerate enumerate, DWORD id) {
    return std::ranges::count(listed(enumerate), id);
}

TEST(ProcessList, TakesAStatusLineApartWhateverTheName) {
    std::string behind;
    for (int field = 1; field <= 34; ++field) behind += ' ' + std::to_string(field);
    for (const char* name : {"(sh)", "(a b)", "(a) S 9 (b)", "())", "(()", "()"}) {
        const std::string start = "17 " + std::string(name) + " S";
        EXPECT_EQ(exitSignalOf(start + behind + " 17 1 2"), 17) << name;
        EXPECT_EQ(exitSignalOf(start + behind + " -1"), -1) << name;
        EXPECT_FALSE(exitSignalOf(start + behind + " ") || exitSignalOf(start + behind)) << name;
        const std::string line = start + " 23 5 6";
        const auto names = namesOf(line);
        EXPECT_TRUE(names && names->name == name && names->parent == 23) << name;
    }
    for (const char* line : {"", "1", "1 (sh", "1 sh) S 1", "1 (sh)", "1 (sh) S", "1 (sh) S ", "1 (sh) S x"})
        EXPECT_FALSE(namesOf(line) || exitSignalOf(line)) << line;
}

TEST(ProcessList, HasEveryProcessAndNoOther) {
    const TempDir directory;
    const std::string odd = directory / "a b) (c";
    fs::copy_file(kShell, odd);
    const Sleeper plain(kShell), oddly(odd), twin;
    for (const DWORD id : {kSelf, plain.id(), oddly.id(), twin.id()}) EXPECT_EQ(times(EnumProcesses, id), 1);
    EXPECT_EQ(times(EnumProcesses, 0), 0);
    EXPECT_FALSE(bDumbProcfs);
    for (const DWORD id : {plain.id(), oddly.id()}) EXPECT_EQ(times(DumbEnumProcesses, id), 1);
    EXPECT_EQ(times(DumbEnumProcesses, twin.id()), 0) << "dumbly, a child with its parent's name is a thread";
    EXPECT_EQ(times(DumbEnumProcesses, 1), 0) << "it has no parent";
    EXPECT_TRUE(std::ranges::is_sorted(listed(DumbEnumProcesses)));
}

TEST(ProcessList, EveryEntryThatIsReadCountsAgainstTheRoomAndFailuresAreTold) {
    for (const auto enumerate : {EnumProcesses, DumbEnumProcesses}) {
        DWORD ids[3] = {7, 7, 7};
        DWORD returned = 9;
        EXPECT_TRUE(enumerate(ids, 11, &returned) && returned == 0 && enumerate(nullptr, 3, &returned));
        const auto expectError = [&](DWORD* where, DWORD* count, int error) {
            errno = 0;
            EXPECT_EQ(enumerate(where, 12, count), FALSE);
            EXPECT_EQ(errno, error);
        };
        expectError(nullptr, &returned, EINVAL);
        expectError(ids, nullptr, EINVAL);
        EXPECT_EQ(ids[0] + ids[1] + ids[2], 21u);
        const FailCall closed{Call::Opendir, EMFILE};
        expectError(ids, &returned, EMFILE);
        const FailCall unreadable{Call::Readdir, EIO, /*onCall=*/2};
        const CountCalls directories{Call::Closedir};
        expectError(ids, &returned, EIO);
        EXPECT_EQ(directories.calls(), 1);
    }
}

TEST(ProcessList, AShortLineSetsTheDumbModeAndAVanishedProcessDoesNot) {
    const Sleeper child(kShell);
    {
        const FailCall vanished{Call::Read, ESRCH, {.path = "/stat"}};
        (void)listed(EnumProcesses);
        EXPECT_TRUE(vanished.fired() == 1 && !bDumbProcfs);
    }
    EXPECT_EQ(GetProcessName(child.id(), 1), fs::canonical(kShell).c_str());
    {
        const FailCall cut{Call::Read, 0, {.path = "/stat", .transferAtMost = 60}};
        EXPECT_EQ(times(EnumProcesses, child.id()), 1);
    }
    EXPECT_TRUE(bDumbProcfs && times(EnumProcesses, 1) == 0) << "dumb from now on";
    EXPECT_EQ(GetProcessName(child.id(), 1), "sh");
    bDumbProcfs = false;
}

TEST(ProcessName, IsThePathOrTheCommand) {
    const TempDir directory;
    std::vector<std::unique_ptr<Sleeper>> crowd;  // more than the first guess
    while (crowd.size() < 250) crowd.push_back(std::make_unique<Sleeper>());
    for (const auto& [program, command] : {std::pair{"prog", "prog"},
                                           {"tick)tock", "tick"},
                                           {"a b", ""},
                                           {"of-more-than-15-bytes", "of-more-than-15"}}) {
        fs::copy_file(kShell, directory / program);
        const Sleeper sleeper(directory / program);
        EXPECT_EQ(GetProcessName(sleeper.id(), 1), (directory / program).c_str());
        EXPECT_EQ(GetProcessName(sleeper.id(), 0), command) << program;
        EXPECT_EQ(DoesProcessExist(command), *command != '\0') << command;
        const FailCall hidden{Call::Readlink, EACCES};
        EXPECT_EQ(GetProcessName(sleeper.id(), 1), command);
    }
    EXPECT_EQ(GetProcessName(0, 0) + GetProcessName(kNobody, 1), "");
    for (const char* none : {"no-such-name", "", "pro", "prog", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(DoesProcessExist(none));
    fs::copy_file(kShell, directory / "12:34");
    const Sleeper inode(directory / "12:34");
    EXPECT_FALSE(bDumbProcfs);
    EXPECT_EQ(GetProcessName(inode.id(), 1), "12:34") << "a device and an inode: the command's name";
    EXPECT_TRUE(bDumbProcfs.exchange(false));
}

TEST(ModuleName, ObeysTheDocumentedBounds) {
    const TempDir directory;
    const std::string path = directory / "prog";
    fs::copy_file(kShell, path);
    const Sleeper sleeper(path);
    const OwnedHandle process{new Process(static_cast<int>(sleeper.id()))},
        gone{new Process(static_cast<int>(kNobody))};
    const auto length = static_cast<DWORD>(path.size());
    for (const auto& [function, size, result] : {std::tuple{&GetModuleBaseName, 5u, 4u},
                                                 {&GetModuleBaseName, 4, 4},
                                                 {&GetModuleBaseName, 3, 0},
                                                 {&GetModuleFileNameEx, length, 4},
                                                 {&GetModuleFileNameEx, length - 1, 0},
                                                 {&GetModuleFileNameEx, 5, 0}}) {
        char buffer[] = "#########";
        EXPECT_EQ(function(process.get(), nullptr, buffer, size), result) << size;
        EXPECT_EQ(std::string(buffer, 9), result == 4 ? std::string("prog\0####", 9) : "#########") << size;
        EXPECT_EQ(function(process.get(), nullptr, nullptr, size) + function(gone.get(), nullptr, buffer, 9),
                  0u);
        EXPECT_EQ(*buffer, '\0') << "of a process that is gone";
    }
    char own[MAX_PATH];
    const std::string self = fs::read_symlink("/proc/self/exe").filename();
    EXPECT_EQ(GetModuleBaseName(nullptr, nullptr, own, sizeof own), std::min<size_t>(self.size(), 15));
    EXPECT_EQ(GetModuleFileName(nullptr, own, sizeof own), self.size());
    EXPECT_EQ(own, self);
}

TEST(InstanceName, ComesFromTheDirectoryOrTheCommandLine) {
    // clang-format off
    for (const auto& [first, last, instance] : {
         std::tuple<std::string, const char*, const char*>{"/srv/https-alpha/bin/start", "1", "/https-alpha"},
         {"x", "/srv/https-beta", "/https-beta"}, {"x", "/srv/https-b\tc", "/https-b"},
         {"x", "/srv/https-/https-d", "/https-"}, {"/https-e f", "1", "/https-e"}, {"x", "https-none", ""},
         {std::string(300, 'x'), "/srv/https-too-far", ""}, {"", "/srv/https-first-empty", "/https-first-empty"}}) {
        // clang-format on
        const Sleeper server(kShell, {first, "-s", last, "", "/srv/https-behind-an-empty-one"});
        EXPECT_EQ(GetProcessInstanceName(server.id()), instance) << first << " " << last;
    }
    const TempDir directory;
    for (const auto& [path, instance] :
         {std::pair{"https-alpha/logs", "https-alpha"}, {"a-https-b c", "https-b"}}) {
        fs::create_directories(directory / path);
        fs::current_path(directory / path);
        for (const DWORD self : {DWORD{0}, kSelf}) EXPECT_EQ(GetProcessInstanceName(self), instance);
    }
    fs::current_path("/");
    EXPECT_EQ(GetProcessInstanceName(0) + GetProcessInstanceName(kNobody), "");
}

}  // namespace
}  // namespace traiklofox::test
