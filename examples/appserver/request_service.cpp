// request_service.cpp: a thread pool for the work, and a periodic timer on the thread that takes the requests in.

#include "request_service.h"

#include "registry_key.h"

#include <traiklofox/clocks.h>
#include <traiklofox/events.h>
#include <traiklofox/timers.h>
#include <traiklofox/wait.h>

#include <exception>
#include <stdexcept>

namespace appserver {
namespace {

constexpr DWORD kFewestWorkers = 1;
constexpr DWORD kMostWorkers = 4;
constexpr DWORD kIdleMs = 1000;
constexpr DWORD kBurst = 10;  // requests, and milliseconds to the next
constexpr long kFirstReportNs = 10'000'000;
constexpr LONG kReportMs = 1000;

timespec after(timespec time, long nanoseconds) {
    constexpr long kSecond = 1'000'000'000;
    time.tv_nsec += nanoseconds;
    time.tv_sec += time.tv_nsec / kSecond;
    time.tv_nsec %= kSecond;
    return time;
}

}  // namespace

RequestService::RequestService(const std::string& place)
    : place_(place),
      allHandled_(CreateEvent(/*attributes=*/nullptr, /*manualReset=*/FALSE, /*initialState=*/FALSE,
                              /*name=*/nullptr)),
      pool_(kFewestWorkers, kMostWorkers, handle, /*creator=*/nullptr, /*exitFunction=*/nullptr,
            /*discard=*/nullptr, kIdleMs) {}

RequestService::Result RequestService::serve(unsigned long count) {
    left_ = count;
    reports_ = 0;
    const OwnedHandle timer(
        CreateWaitableTimer(/*attributes=*/nullptr, /*manualReset=*/FALSE, /*name=*/nullptr));
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec firstReport = after(now, kFirstReportNs);
    if (!SetWaitableTimer(timer.get(), &firstReport, kReportMs, report, this, /*resume=*/FALSE))
        throw std::runtime_error("cannot set the timer");

    for (unsigned long taken = 0; taken < count; ++taken) {
        requests_.push_back({this, static_cast<unsigned>(taken % kCounters)});
        pool_.Produce(&requests_.back());
        if (taken % kBurst == kBurst - 1) SleepEx(kBurst, /*alertable=*/TRUE);
    }
    // The timer's calls end an alertable wait.
    while (count > 0 &&
           WaitForSingleObjectEx(allHandled_.get(), 60'000, /*alertable=*/TRUE) != WAIT_OBJECT_0) {
    }
    requests_.clear();
    if (failed_ > 0) throw std::runtime_error(std::to_string(failed_) + " requests have failed");
    return {mostWorking_, reports_};
}

void RequestService::handle(void* untyped) {
    const Request request = *static_cast<Request*>(untyped);
    RequestService& service = *request.service;
    const unsigned working = ++service.working_;
    unsigned most = service.mostWorking_;
    while (working > most && !service.mostWorking_.compare_exchange_weak(most, working)) {
    }
    try {
        service.add(request.counter);
    } catch (const std::exception&) {
        ++service.failed_;
    }
    --service.working_;
    if (--service.left_ == 0) SetEvent(service.allHandled_.get());
}

void RequestService::add(unsigned index) {
    Counter& counter = counters_[index];
    EnterCriticalSection(&counter.section);
    const auto leave = [](_critsection* section) { LeaveCriticalSection(section); };
    const std::unique_ptr<_critsection, decltype(leave)> section(&counter.section, leave);
    RegistryKey key = RegistryKey::openOrCreate(place_);
    key.writeNumber("Requests" + std::to_string(index), ++counter.number);
}

void RequestService::report(void* service, void*, void*) {
    ++static_cast<RequestService*>(service)->reports_;
}

}  // namespace appserver
