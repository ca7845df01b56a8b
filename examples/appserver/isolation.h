#pragma once

// isolation.h: keeps the demonstration away from the machine's own registry.
//
// All processes of a machine find the registry's semaphore and shared memory through one lock file in
// /usr/lib/tarnwell. In IPC and mount namespaces of its own a process, with those that it starts, has a
// semaphore of its own and sees an empty folder in that place.

#include <filesystem>
#include <string>

namespace appserver {

/// Moves the calling process into such namespaces. It must have no other thread. `scratch` is an empty
/// directory to mount on meanwhile. Returns an empty text, or why it cannot be done here.
std::string isolateFromMachine(const std::filesystem::path& scratch);

}  // namespace appserver
