// process_list_bench.cpp: enumerating the processes of a machine that has 500 more than it has now.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <traiklofox/process_list.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

constexpr int kProcesses = 500;

/// Children that do nothing; they end with this process.
class Children {
  public:
    Children() {
        for (int i = 0; i < kProcesses; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::pause();
                ::_exit(0);
            }
            pids_.push_back(child);
        }
    }
    ~Children() {
        for (const pid_t child : pids_) ::kill(child, SIGKILL);
        for (const pid_t child : pids_) ::waitpid(child, nullptr, 0);
    }

  private:
    std::vector<pid_t> pids_;
};

void haveChildren() {
    static const Children children;
}

void enumerate(benchmark::State& state) {
    haveChildren();
    std::vector<DWORD> ids(10'000);
    for (auto _ : state) {
        DWORD returned = 0;
        if (!EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &returned) ||
            returned < kProcesses * sizeof(DWORD))
            state.SkipWithError("processes missing");
    }
}

void readEach(benchmark::State& state) {
    haveChildren();
    for (auto _ : state) {
        DIR* const proc = ::opendir("/proc");
        int processes = 0;
        while (const dirent64* const entry = ::readdir64(proc)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
            char path[300];
            char line[512];
            std::snprintf(path, sizeof path, "%s/stat", entry->d_name);
            const int file = ::openat(::dirfd(proc), path, O_RDONLY | O_CLOEXEC);
            if (::read(file, line, sizeof line) > 0) ++processes;
            ::close(file);
            benchmark::DoNotOptimize(line);
        }
        ::closedir(proc);
        if (processes < kProcesses) state.SkipWithError("processes missing");
    }
}

const Comparison kEnumerate{{
    .operation = "processes: EnumProcesses with 500 and more",
    .body = enumerate,
    .floor = "readdir + open, read and close each",
    .floorBody = readEach,
    .aim = 1.2,
    .configure = [](benchmark::internal::Benchmark& it) { it.Unit(benchmark::kMicrosecond); },
}};

}  // namespace
}  // namespace traiklofox::bench
