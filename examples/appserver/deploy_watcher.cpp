// deploy_watcher.cpp: the scanner's thread, and a completion port that tells what it has found.

#include "deploy_watcher.h"

#include <traiklofox/clocks.h>
#include <traiklofox/completion_ports.h>
#include <traiklofox/events.h>
#include <traiklofox/file_io.h>
#include <traiklofox/threads.h>
#include <traiklofox/wait.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace appserver {
namespace {

// A server leaves the pause to the scanner, which asks for 4 s and more; a demonstration has no time for that.
constexpr DWORD kPauseMs = 50;
constexpr ULONG_PTR kKey = 1;

std::atomic<bool> isOver{false};

WatchDirsCallbacks callbacks{.sleep = [](DWORD) { Sleep(kPauseMs); },
                             .stop = [] { return isOver.load(); },
                             .onExit = nullptr,
                             .deviceTest = nullptr};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

DeployWatcher::DeployWatcher(const std::string& directory)
    : buffer_(),
      overlapped_(),
      directory_(CreateFile(directory.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ, /*security=*/nullptr,
                            OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, /*template=*/nullptr)) {
    if (directory_.get() == INVALID_HANDLE_VALUE) fail("cannot open the deploy directory");
    port_.reset(CreateIoCompletionPort(directory_.get(), /*existing=*/nullptr, kKey, /*threads=*/0));
    if (!port_) fail("cannot make a completion port");
    ask();
    isOver = false;
    scanner_.reset(CreateThread(/*attributes=*/nullptr, /*stackSize=*/0, WatchDirsThread, &callbacks,
                                /*flags=*/0,
                                /*threadId=*/nullptr));
    if (!scanner_) fail("cannot start the scanner");
}

DeployWatcher::~DeployWatcher() {
    isOver = true;
    WaitForSingleObject(scanner_.get(), INFINITE);
}

DeployWatcher::Change DeployWatcher::awaitChange(DWORD milliseconds) {
    if (changes_.empty()) fetch(milliseconds);
    if (changes_.empty()) throw std::runtime_error("no change of the deploy directory was noticed");
    const Change change = changes_.front();
    changes_.pop_front();
    return change;
}

void DeployWatcher::ask() {
    if (!ReadDirectoryChanges(directory_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()),
                              /*watchSubtree=*/FALSE, FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE,
                              /*bytes=*/nullptr, &overlapped_, /*completionRoutine=*/nullptr))
        fail("cannot watch the deploy directory");
}

void DeployWatcher::fetch(DWORD milliseconds) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    LPOVERLAPPED overlapped = nullptr;
    if (!GetQueuedCompletionStatus(port_.get(), &bytes, &key, &overlapped, milliseconds)) return;
    if (key != kKey || overlapped != &overlapped_) throw std::runtime_error("a completion of something else");
    for (DWORD offset = 0; offset < bytes;) {
        FILE_NOTIFY_INFORMATION record;
        std::memcpy(&record, buffer_.data() + offset, sizeof record);
        const char* name = buffer_.data() + offset + offsetof(FILE_NOTIFY_INFORMATION, FileName);
        changes_.push_back({record.Action, std::string(name, record.FileNameLength), record.FileSize});
        offset = record.NextEntryOffset != 0 ? offset + record.NextEntryOffset : bytes;
    }
    ask();
}

}  // namespace appserver
