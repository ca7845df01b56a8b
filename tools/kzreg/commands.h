#pragma once

// The subcommands. Each returns the exit status, or throws `Failure`.

#include "command_line.h"

namespace kzreg {

int query(const CommandLine& line);
int add(const CommandLine& line);
int deleteEntry(const CommandLine& line);
int exportKeys(const CommandLine& line);
int importFile(const CommandLine& line);
int backup(const CommandLine& line);
int showStatus(const CommandLine& line);
int watch(const CommandLine& line);
int checkFile(const CommandLine& line);

}  // namespace kzreg
