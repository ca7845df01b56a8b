#pragma once

// lazy_writer.h: runs the registry's lazy writer on a thread of its own for as long as the object lives.

#include <traiklofox/types.h>

#include <pthread.h>

namespace appserver {

class LazyWriter {
  public:
    /// From here on this process's changes are written at most once in `intervalMs`.
    explicit LazyWriter(DWORD intervalMs);
    LazyWriter(const LazyWriter&) = delete;
    LazyWriter& operator=(const LazyWriter&) = delete;
    /// Stops the writer, which writes once more, and waits for its end.
    ~LazyWriter();

  private:
    static void* run(void* writer);

    DWORD intervalMs_;
    pthread_t thread_;
};

}  // namespace appserver
