#include "soak/supervisor.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <traiklofox/file_mapping.h>

#include <array>
#include <filesystem>
#include <sstream>
#include <thread>

#include "soak/registry_state.h"
#include "soak/workers.h"
#include "support/owned_handle.h"

namespace traiklofox::soak {

namespace {

using namespace std::chrono_literals;
using test::ExitStatus;
namespace fs = std::filesystem;

constexpr size_t kDiskBytes = 4 * 1024 * 1024;
constexpr DWORD kMostLeftFree = 48 * 1024;  // some writes then fail at their beginning, some later
constexpr std::uint32_t kBlockedSeconds = 60;
constexpr std::chrono::seconds kEndBound{90};

/// What each worker has asked and been told, before the file is read and after it.
std::array<std::uint32_t, kMostSlots> all(Count Journal::*which) {
    std::array<std::uint32_t, kMostSlots> numbers{};
    for (size_t slot = 0; slot < kMostSlots; ++slot) numbers[slot] = board().slots[slot].registry.*which;
    return numbers;
}

std::string textOf(const ExitStatus& status) {
    std::ostringstream text;
    text << status;
    return text.str();
}

void checkSum(Invariant invariant, Journal Slot::*journal, std::uint32_t found) {
    std::uint32_t asked = 0;
    std::uint32_t acknowledged = 0;
    for (const Slot& slot : board().slots) {
        asked += (slot.*journal).asked;
        acknowledged += (slot.*journal).acknowledged;
    }
    check(invariant, found >= acknowledged && found <= asked, "%u counted, %u acknowledged, %u asked", found,
          acknowledged, asked);
}

}  // namespace

Supervisor::Supervisor(unsigned seed) : random_{std::mt19937(seed)}, disk_(homeDirectory(), kDiskBytes) {
    writeTemplate();
    size_t slot = 0;
    for (const WorkerRow& row : kWorkers)
        for (size_t i = 0; i < row.steady + row.mortal; ++i)
            workers_.push_back({row.role, slot++, /*isMortal=*/i >= row.steady, nullptr});
    for (Worker& worker : workers_) {
        if (worker.isMortal) mortals_.push_back(worker.slot);
        start(worker);
    }
}

void Supervisor::start(Worker& worker) {
    std::ostringstream seed;
    seed << random_.below(0xFFFFFFFF);
    worker.process = std::make_unique<test::RoleProcess>(
        worker.role, test::RoleArguments{worker.role, std::to_string(worker.slot), seed.str(),
                                         worker.isMortal ? "mortal" : "steady"});
    board().slots[worker.slot].beat = monotonicSeconds();
}

void Supervisor::runUntil(Clock::time_point end) {
    auto nextCheck = Clock::now();
    while (Clock::now() < end) {
        std::this_thread::sleep_for(1ms * (10 + random_.below(200)));
        replaceTheDead();
        if (random_.below(3) == 0) killOne();
        if (random_.below(6) == 0) fillOrFreeDisk();
        if (Clock::now() < nextCheck) continue;
        nextCheck = Clock::now() + 1s;
        checkRegistry();
        checkProgress();
    }
}

void Supervisor::replaceTheDead() {
    for (Worker& worker : workers_) {
        const ExitStatus status = worker.process->wait(0ms);
        if (status == ExitStatus::timedOut()) continue;
        const bool wasOurs = worker.isMortal && status == ExitStatus::killedBy(SIGKILL);
        ownKills_ += wasOurs;
        check(NobodyCrashes, wasOurs, "%s %zu: %s", worker.role.c_str(), worker.slot, textOf(status).c_str());
        start(worker);
    }
}

void Supervisor::killOne() {
    Worker& worker = workers_[mortals_[random_.below(static_cast<DWORD>(mortals_.size()))]];
    worker.process->kill(SIGKILL);
    const ExitStatus status = worker.process->wait();
    check(NobodyCrashes, status == ExitStatus::killedBy(SIGKILL), "%s %zu: %s", worker.role.c_str(),
          worker.slot, textOf(status).c_str());
    ++kills_[worker.role];
    if (worker.role == kWorkers[0].role) checkRegistry();  // before it goes on
    start(worker);
}

void Supervisor::fillOrFreeDisk() {
    if (!fs::exists(registryFile())) return;  // the first of all needs room for it
    try {
        disk_.leaveFree(isFull_ ? kDiskBytes : random_.below(kMostLeftFree));
        isFull_ = !isFull_;
        fullDisks_ += isFull_;
    } catch (const std::system_error&) {
        isFull_ = false;  // somebody took what was free just then
    }
}

void Supervisor::checkRegistry() {
    if (!fs::exists(registryFile())) return;
    const auto acknowledged = all(&Journal::acknowledged);
    const auto keys = readRegistryFile();
    const auto asked = all(&Journal::asked);
    if (!keys) return;
    checkBallast(*keys);
    for (size_t slot = 0; slot < kWriters; ++slot) checkWriter(*keys, slot, acknowledged[slot], asked[slot]);
    for (size_t slot = kWriters; slot < kWriters + kLazyWriters; ++slot)
        checkCounter(*keys, slot, acknowledged[slot], asked[slot]);
}

void Supervisor::checkProgress() {
    for (const Worker& worker : workers_) {
        const std::uint32_t idle = monotonicSeconds() - board().slots[worker.slot].beat;
        check(NobodyBlocks, static_cast<std::int32_t>(idle) < static_cast<std::int32_t>(kBlockedSeconds),
              "%s %zu has done nothing for %u s", worker.role.c_str(), worker.slot, idle);
    }
}

void Supervisor::finish() {
    while (isFull_) fillOrFreeDisk();
    board().stop = 1;
    const auto bound = Clock::now() + kEndBound;
    for (Worker& worker : workers_) {
        ExitStatus status =
            worker.process->wait(std::chrono::ceil<std::chrono::milliseconds>(bound - Clock::now()));
        const bool isOver = status != ExitStatus::timedOut();
        check(NobodyBlocks, isOver, "%s %zu does not end", worker.role.c_str(), worker.slot);
        const bool killedItself = worker.isMortal && status == ExitStatus::killedBy(SIGKILL);
        ownKills_ += killedItself;
        check(NobodyCrashes, !isOver || status == ExitStatus::exited(0) || killedItself, "%s %zu: %s",
              worker.role.c_str(), worker.slot, textOf(status).c_str());
        worker.process.reset();
    }
    checkRegistry();
    test::RoleProcess survivor("survivor", {"survivor", std::to_string(kMostSlots - 1)});
    check(NobodyBlocks, survivor.wait() == ExitStatus::exited(0), "who comes last");
    checkRegistry();
    checkSums();
    checkSharedState();
}

void Supervisor::checkSums() const {
    checkSum(LocksExclude, &Slot::locks, board().guarded);
    const test::OwnedHandle mapping(
        CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Count), kMapping));
    auto* counter = static_cast<Count*>(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    checkSum(MappingsShared, &Slot::mapping, *counter);
    (void)UnmapViewOfFile(counter);
}

void Supervisor::checkSharedState() const {
    const auto inDirectory =
        std::distance(fs::directory_iterator(fs::path(registryFile()).parent_path()), {});
    check(SharedStateClean, inDirectory == 2, "%d files beside the registry and its template",
          static_cast<int>(inDirectory) - 2);

    const int semaphore = ::semget(::ftok("/usr/lib/tarnwell/twml_data.dat", 1), 1, 0);
    seminfo semaphores{};
    (void)::semctl(0, 0, SEM_INFO, &semaphores);
    check(SharedStateClean, ::semctl(semaphore, 0, GETVAL) == 1 && semaphores.semusz == 1,
          "%d semaphores, of value %d", semaphores.semusz, ::semctl(semaphore, 0, GETVAL));

    shmid_ds page{};
    shm_info pages{};
    (void)::shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&pages));
    const int region = ::shmctl(0, SHM_STAT, &page);
    check(SharedStateClean, pages.used_ids == 1 && region >= 0 && page.shm_nattch == 0,
          "%d pages, attached %u times", pages.used_ids, static_cast<unsigned>(page.shm_nattch));
}

}  // namespace traiklofox::soak
