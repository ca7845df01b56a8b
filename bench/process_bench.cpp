// process_bench.cpp: starting a program and seeing its end, from a small process and from one with much memory.

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <traiklofox/events.h>
#include <traiklofox/process.h>
#include <traiklofox/wait.h>
#include <unistd.h>

#include <cstring>

#include "support/floor.h"

namespace traiklofox::bench {
namespace {

constexpr char kProgram[] = "/bin/true";

/// So many MiB of the process's memory, every page of it in use.
class Ballast {
  public:
    explicit Ballast(benchmark::State& state)
        : size_(static_cast<size_t>(state.range(0)) << 20),
          memory_(size_ == 0
                      ? nullptr
                      : ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (memory_ == MAP_FAILED) state.SkipWithError("no memory");
        if (memory_ != nullptr && memory_ != MAP_FAILED) std::memset(memory_, 1, size_);
    }
    Ballast(const Ballast&) = delete;
    Ballast& operator=(const Ballast&) = delete;
    ~Ballast() {
        if (memory_ != nullptr && memory_ != MAP_FAILED) ::munmap(memory_, size_);
    }

  private:
    const size_t size_;
    void* const memory_;
};

Handle* start(benchmark::State& state) {
    char command[] = "/bin/true";
    _PROCESS_INFORMATION info{};
    if (!CreateProcess(nullptr, command, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr, &info))
        state.SkipWithError("CreateProcess");
    return info.hProcess;
}

void finish(benchmark::State& state, Handle* process) {
    DWORD code = 1;
    if (!GetExitCodeProcess(process, &code) || code != 0) state.SkipWithError("GetExitCodeProcess");
    CloseHandle(process);
}

void createAndWait(benchmark::State& state) {
    const Ballast ballast(state);
    for (auto _ : state) {
        Handle* process = start(state);
        WaitForSingleObject(process, INFINITE);
        finish(state, process);
    }
}

void createAndWaitWithEvent(benchmark::State& state) {
    const Ballast ballast(state);
    Handle* event = CreateEvent(nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE, nullptr);
    for (auto _ : state) {
        Handle* handles[] = {event, start(state)};
        WaitForMultipleObjects(2, handles, /*waitAll=*/FALSE, INFINITE);
        finish(state, handles[1]);
    }
    CloseHandle(event);
}

void spawnAndWait(benchmark::State& state) {
    const Ballast ballast(state);
    char* const words[] = {const_cast<char*>(kProgram), nullptr};  // only read
    for (auto _ : state) {
        pid_t pid = -1;
        int status = 1;
        if (::posix_spawn(&pid, kProgram, nullptr, nullptr, words, environ) != 0 ||
            ::waitpid(pid, &status, 0) != pid || status != 0)
            state.SkipWithError("posix_spawn");
    }
}

constexpr double kAim = 1.25;

void withBallast(benchmark::internal::Benchmark& runs) {
    runs.Arg(0)->Arg(256)->ArgName("MiB");
}

const Comparison kCreate{{
    .operation = "CreateProcess, wait, exit code",
    .body = createAndWait,
    .floor = "posix_spawn + waitpid",
    .floorBody = spawnAndWait,
    .aim = kAim,
    .configure = withBallast,
}};
const Comparison kCreateMixed{{
    .operation = "CreateProcess, wait with an event, exit code",
    .body = createAndWaitWithEvent,
    .floor = "posix_spawn + waitpid",
    .floorBody = spawnAndWait,
    .aim = kAim,
    .configure = withBallast,
}};

}  // namespace
}  // namespace traiklofox::bench
