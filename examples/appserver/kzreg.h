#pragma once

// kzreg.h: runs kzreg, the registry at the command line, as an administrator or his script does.

#include "conversation.h"

#include <string>
#include <vector>

namespace appserver {

/// Runs `kzreg` with the arguments: the program beside this one, or else the one of the build that made this one, or
/// else the one in PATH. Returns the lines that it printed; throws `std::runtime_error` with what it said when it
/// cannot be started or does not end with status 0.
std::vector<std::string> runKzreg(Words arguments);

}  // namespace appserver
