#pragma once

namespace traiklofox::kernel {

/// The kernel's share of the library's start: the per-thread record's key, the signal handlers, the signal
/// mask and the handlers around a fork.
void startKernel();

void createThreadContextKey();

}  // namespace traiklofox::kernel
