// lazy_writer.cpp: the writer's loop never returns, so its thread is cancelled, and joined: the last write is
// the thread's last act.

#include "lazy_writer.h"

#include <traiklofox/clocks.h>
#include <traiklofox/registry.h>
#include <traiklofox/threads.h>

#include <atomic>
#include <stdexcept>

namespace appserver {
namespace {

constexpr DWORD kStartPollMs = 1;

}  // namespace

LazyWriter::LazyWriter(DWORD intervalMs) : intervalMs_(intervalMs), thread_() {
    if (unixthread_create(&thread_, /*attributes=*/nullptr, run, this) != 0) {
        throw std::runtime_error("cannot start the lazy writer");
    }
    while (std::atomic_ref<int>(bLazyFlush).load() == 0) Sleep(kStartPollMs);
}

LazyWriter::~LazyWriter() {
    pthread_cancel(thread_);
    pthread_join(thread_, /*retval=*/nullptr);
}

void* LazyWriter::run(void* writer) {
    RegLazyWriteThread(&static_cast<LazyWriter*>(writer)->intervalMs_);
    return nullptr;
}

}  // namespace appserver
