#include <sys/mman.h>
#include <sys/wait.h>
#include <traiklofox/file_mapping.h>
#include <traiklofox/handle.h>

#include <atomic>

#include "files/file_fixture.h"
#include "support/private_machine.h"

namespace traiklofox::test {
namespace {

const std::string kName = "shared";
const std::string kBacking = "/tmp/." + kName;

using Mapping = OwnedHandle;

Mapping open(DWORD size, DWORD protection = PAGE_READWRITE) {
    return Mapping{CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, protection, 0, size, kName.c_str())};
}
char* view(const Mapping& mapping, DWORD access = FILE_MAP_ALL_ACCESS, SIZE_T bytes = 0) {
    return static_cast<char*>(MapViewOfFile(mapping.get(), access, 0, 0, bytes));
}
bool isMapped(void* view) {
    static const auto pageMask = ~(static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE)) - 1);
    return ::msync(reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(view) & pageMask), 1, MS_ASYNC) == 0;
}
DWORD& headerOf(char* view) {
    return *reinterpret_cast<DWORD*>(view - 4);
}

class FileMapping : public testing::Test {
  protected:
    void SetUp() override {
        if (const auto& machine = PrivateMachine::enter(); !machine.entered())
            GTEST_SKIP() << machine.whyNot();
        ::unlink(kBacking.c_str());
    }
    static struct stat backing() {
        struct stat status {};
        EXPECT_EQ(::lstat(kBacking.c_str(), &status), 0);
        return status;
    }
};

TEST_F(FileMapping, TheFirstOpenerMakesAndSizesItTheOthersFindIt) {
    for (const DWORD protection : {PAGE_READWRITE, PAGE_READONLY}) {
        ::unlink(kBacking.c_str());
        errno = EIO;
        const Mapping made = open(100, protection);
        EXPECT_EQ(errno, 0);
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(backing().st_size, 104);
        const int fd = static_cast<File*>(made.get())->GetFd();
        EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, static_cast<int>(protection));
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);

        const Mapping found = open(5000, PAGE_READONLY);
        EXPECT_EQ(errno, EEXIST);
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(backing().st_size, 104) << "keeps its size";
    }
    ::unlink(kBacking.c_str());
    EXPECT_NE(open(0xFFFFFFFF), nullptr);
    EXPECT_EQ(backing().st_size, 0x100000003) << "the size has 32 bits, the file more";
}

TEST_ROLE(answersInSharedMemory) {
    if (!PrivateMachine::enter().entered()) return 1;
    const Mapping mapping = open(100);
    if (mapping == nullptr || errno != EEXIST) return 2;
    char* shared = view(mapping, FILE_MAP_ALL_ACCESS, 100);
    if (std::strcmp(shared, "question") != 0) return 3;
    std::strcpy(shared, "answer");
    return UnmapViewOfFile(shared) ? 0 : 4;
}

TEST_F(FileMapping, ProcessesShareItByItsName) {
    Mapping mapping = open(100);
    char* shared = view(mapping, FILE_MAP_WRITE, 100);
    mapping.reset();  // a view stays
    std::strcpy(shared, "question");
    RoleProcess other{"answersInSharedMemory"};
    EXPECT_EQ(other.wait(), ExitStatus::exited(0));
    EXPECT_STREQ(shared, "answer");
    EXPECT_TRUE(UnmapViewOfFile(shared));
}

TEST_F(FileMapping, TakesNoArgumentOrFileThatIsNoMapping) {
    const Mapping handle{new File(-1)};
    Handle* const memory = INVALID_HANDLE_VALUE;
    const std::pair<Handle*, const char*> kRefused[] = {{nullptr, "name"}, {handle.get(), "name"},
                                                        {memory, nullptr}, {memory, ""},
                                                        {memory, "a/b"},   {memory, "./../etc/x"}};
    for (const auto& [file, name] : kRefused)
        EXPECT_EQ(errorOf(CreateFileMapping(file, nullptr, PAGE_READWRITE, 0, 100, name) != nullptr), EINVAL);
    EXPECT_EQ(CreateFileMapping(memory, nullptr, PAGE_READONLY, 0, 1, "."), nullptr) << "is /tmp/..";

    const std::string victim = "/tmp/victim";
    writeText(victim, "precious");
    fs::permissions(victim, fs::perms{0600});
    const struct {
        const char* what;
        std::function<void()> make;
        int error;
    } kStrangeFiles[] = {{"a symbolic link", [&] { fs::create_symlink(victim, kBacking); }, ELOOP},
                         {"a dangling one", [] { fs::create_symlink("/tmp/missing", kBacking); }, ELOOP},
                         {"a further name", [&] { fs::create_hard_link(victim, kBacking); }, EPERM},
                         {"a pipe", [] { ASSERT_EQ(::mkfifo(kBacking.c_str(), 0600), 0); }, EPERM},
                         {"a directory", [] { fs::create_directory(kBacking); }, EPERM}};
    for (const auto& row : kStrangeFiles) {
        row.make();
        EXPECT_EQ(errorOf(open(100, PAGE_READONLY) != nullptr), row.error) << row.what;
        EXPECT_EQ(open(100), nullptr) << row.what;
        fs::remove(kBacking);
    }
    EXPECT_EQ(readText(victim), "precious");
    EXPECT_FALSE(fs::exists("/tmp/missing"));
}

TEST_F(FileMapping, AFailureLeavesNoFileBehindThatNobodySizes) {
    const int before = openDescriptors();
    for (const auto& [call, error] :
         {std::pair{Call::Open, EMFILE}, {Call::Fstat, EIO}, {Call::Ftruncate, EFBIG}}) {
        const auto create = [&, error = error](const FailCall& fault, int) {
            ::unlink(kBacking.c_str());
            errno = 0;
            const Mapping mapping = open(100, PAGE_READONLY);
            EXPECT_EQ(mapping == nullptr, fault.fired() > 0);
            EXPECT_EQ(errno, fault.fired() > 0 ? error : 0);
        };
        EXPECT_GT(failEveryCall(call, error, create, {.path = kBacking}), 0);
    }
    ::unlink(kBacking.c_str());
    const FailCall cannotSize{Call::Ftruncate, EFBIG};
    EXPECT_EQ(open(100), nullptr);
    EXPECT_FALSE(fs::exists(kBacking));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileMapping, WaitsForTheMakerToSizeItAndStandsInForADeadOne) {
    writeText(kBacking, "");
    const CountCalls sleeps{Call::Nanosleep, {.thisThreadOnly = false}};
    std::thread maker([&] {
        EXPECT_TRUE(withinSeconds(30, [&] { return sleeps.calls() > 0; })) << "it does not wait";
        EXPECT_EQ(::truncate(kBacking.c_str(), 54), 0);
    });
    EXPECT_NE(open(100), nullptr);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(backing().st_size, 54);
    maker.join();

    ASSERT_EQ(::truncate(kBacking.c_str(), 0), 0);
    EXPECT_EQ(errorOf(open(100, PAGE_READONLY) != nullptr), EINVAL) << "cannot size it";
    EXPECT_NE(open(100), nullptr);
    EXPECT_EQ(errno, 0) << "the contents are this caller's to make";
    EXPECT_EQ(backing().st_size, 104);
}

TEST_F(FileMapping, BelongsToWhomTheInstallationDoes) {
    const SmallDisk installation("/opt", 1 << 20);
    const std::string model = "/opt/tarnwell/registry/tw.registry.template";
    writeText(model, "");
    fs::permissions(model, fs::perms{0640});
    const bool mayGiveAway = ::chown(model.c_str(), 4711, 4712) == 0;
    ::umask(077);
    for (const bool isNew : {true, false}) {
        if (!isNew) fs::permissions(kBacking, fs::perms{0600});
        EXPECT_NE(open(100), nullptr);
        EXPECT_EQ(backing().st_mode & 07777, 0640u);
        EXPECT_EQ(backing().st_uid, mayGiveAway ? 4711u : ::geteuid());
    }
}

TEST_F(FileMapping, EndsAViewByWhatWasMappedNotByWhatItSays) {
    const auto page = static_cast<SIZE_T>(::sysconf(_SC_PAGESIZE));
    const Mapping mapping = open(static_cast<DWORD>(3 * page));
    char* neighbour = view(mapping);
    char* broken = view(mapping, FILE_MAP_WRITE, page);
    EXPECT_EQ(headerOf(broken), page + 4) << "the length, the header's own included";
    const bool isBelow = broken < neighbour;
    headerOf(broken) = static_cast<DWORD>(isBelow ? neighbour - broken + 8 * static_cast<LONG_PTR>(page) : 0);
    EXPECT_TRUE(UnmapViewOfFile(broken));
    EXPECT_TRUE(!isMapped(broken) && isMapped(neighbour) && isMapped(neighbour + 2 * page));

    for (char* none :
         {static_cast<char*>(nullptr), broken, neighbour + page, neighbour - 4, reinterpret_cast<char*>(3)}) {
        errno = 0;
        EXPECT_EQ(errorOf(UnmapViewOfFile(none)), EINVAL);
    }
    const FailCall fails{Call::Munmap, ENOMEM};
    EXPECT_FALSE(UnmapViewOfFile(neighbour));
    EXPECT_TRUE(UnmapViewOfFile(neighbour)) << "still a view after a failure";
    EXPECT_FALSE(isMapped(neighbour));
}

TEST_F(FileMapping, EveryAccessIsMappedAndOnlyWritingStoresTheLength) {
    const Mapping mapping = open(100);
    const std::tuple<DWORD, SIZE_T, DWORD> kRows[] = {{FILE_MAP_READ, 100, 0},
                                                      {FILE_MAP_ALL_ACCESS, 100, 0},
                                                      {FILE_MAP_WRITE, 0, 104},
                                                      {FILE_MAP_WRITE, 50, 54},
                                                      {FILE_MAP_READ, 0, 54}};
    for (const auto& [access, bytes, header] : kRows) {
        char* mapped = view(mapping, access, bytes);
        EXPECT_EQ(headerOf(mapped), header) << access << ' ' << bytes;
        EXPECT_TRUE(UnmapViewOfFile(mapped) && !isMapped(mapped));
    }
}

TEST_F(FileMapping, AFailedViewStoresNothingAndIsNotDetected) {
    const Mapping mapping = open(100);
    const Mapping readOnly = open(100, PAGE_READONLY);
    const struct {
        Handle* handle;
        DWORD access, offset;
        SIZE_T bytes;
        int error;
    } kCases[] = {{readOnly.get(), FILE_MAP_WRITE, 0, 100, EACCES},
                  {mapping.get(), FILE_MAP_WRITE, 1, 100, EINVAL},
                  {mapping.get(), FILE_MAP_WRITE, 0, SIZE_T(-1), ENOMEM},
                  {mapping.get(), FILE_MAP_WRITE, 0, SIZE_T(-4), ENOMEM}};
    for (const auto& row : kCases) {
        errno = 0;
        void* failed = MapViewOfFile(row.handle, row.access, 0, row.offset, row.bytes);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(failed, reinterpret_cast<void*>(3));
        EXPECT_FALSE(UnmapViewOfFile(failed));
    }
    for (Handle* none : {static_cast<Handle*>(nullptr), INVALID_HANDLE_VALUE}) {
        EXPECT_EQ(errorOf(MapViewOfFile(none, FILE_MAP_READ, 0, 0, 100) != nullptr), EINVAL);
    }
    void* beyond = MapViewOfFile(mapping.get(), FILE_MAP_WRITE, 0, 0x10000, 100);
    EXPECT_TRUE(UnmapViewOfFile(beyond)) << "mapped, but there is no file to store a length in";
    EXPECT_EQ(readText(kBacking), std::string(104, '\0'));
}

TEST_F(FileMapping, AForkedChildEndsViewsWhateverOtherThreadsWereDoing) {
    const Mapping mapping = open(100);
    char* inherited = view(mapping);
    std::atomic<bool> done{false};
    std::thread mapper([&] {
        while (!done) EXPECT_TRUE(UnmapViewOfFile(view(mapping)));
    });
    int status = 0;
    for (int i = 0; i < 200 && status == 0; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);  // ends a child that hangs
            ::_exit(UnmapViewOfFile(inherited) ? 0 : 1);
        }
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "of child " << i;
    }
    done = true;
    mapper.join();
}

}  // namespace
}  // namespace traiklofox::test
