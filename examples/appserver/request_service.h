#pragma once

// request_service.h: requests, which a pool of workers handles while a timer reports how far they are.

#include "owned_handle.h"

#include <traiklofox/critical_section.h>
#include <traiklofox/thread_pool.h>

#include <array>
#include <atomic>
#include <deque>
#include <string>

namespace appserver {

class RequestService {
  public:
    struct Result {
        unsigned mostWorkers;  // at once
        unsigned reports;      // of the timer
    };

    /// Its counters are values of the registry key `place`.
    explicit RequestService(const std::string& place);

    /// Handles COUNT requests, which come in bursts, about one a millisecond. Each adds 1 to one of the counters and
    /// closes the key as code does that knows nothing of a lazy writer. Throws when one has failed.
    Result serve(unsigned long count);

  private:
    static constexpr unsigned kCounters = 10;

    struct Counter {
        Counter() { InitializeCriticalSection(&section); }
        ~Counter() { DeleteCriticalSection(&section); }
        Counter(const Counter&) = delete;
        Counter& operator=(const Counter&) = delete;
        _critsection section;  // of the number, and of writing it
        DWORD number = 0;
    };
    struct Request {
        RequestService* service;
        unsigned counter;
    };

    static void handle(void* request);
    void add(unsigned counter);
    static void report(void* service, void* dueSeconds, void* dueNanoseconds);

    const std::string place_;
    std::array<Counter, kCounters> counters_;
    std::deque<Request> requests_;
    std::atomic<unsigned long> left_ = 0;
    std::atomic<unsigned long> failed_ = 0;
    std::atomic<unsigned> working_ = 0;
    std::atomic<unsigned> mostWorking_ = 0;
    unsigned reports_ = 0;    // the serving thread's
    OwnedHandle allHandled_;  // an event
    ThreadPool pool_;
};

}  // namespace appserver
