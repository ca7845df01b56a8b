#pragma once

// The registry's files, and whether this process may use them.

#include <string>

namespace kzreg {

/// Where everything is. Known without the registry being up.
struct Places {
    std::string home;       // the installation directory, with a "/" at its end
    std::string directory;  // the registry's
    std::string registry;
    std::string registryTemplate;
    std::string backup;
    std::string lockFile;
};
Places places();

/// Checks what the registry's start-up needs, and throws `Failure` where that would end the process. Call it,
/// or `useRegistry`, before the first registry function.
void checkAccess();

/// `checkAccess`; also throws `Failure` when the registry file cannot be read to its end, since then what is
/// behind would seem to be missing.
void useRegistry();

/// True when some process has started the registry since the machine has.
bool sharedStateExists();

}  // namespace kzreg
