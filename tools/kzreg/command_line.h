#pragma once

// What stands behind "kzreg COMMAND".

#include <optional>
#include <string>
#include <vector>

namespace kzreg {

struct CommandLine {
    std::vector<std::string> operands;
    std::optional<std::string> valueName;  // -v
    std::optional<std::string> type;       // -t
    std::optional<std::string> data;       // -d
    bool subkeys = false;                  // -s
    bool json = false;
    bool force = false;
    bool help = false;
};

/// One subcommand: what it takes, and what it does.
struct Command {
    const char* name;
    const char* options;  // letters of those that it takes: v t d s, j for --json, f for --force
    size_t fewestOperands;
    size_t mostOperands;
    int (*run)(const CommandLine& line);
    const char* help;  // a line of usage, then what it does
};

/// Takes apart what follows the command's name, which is `arguments[0]`. Throws `Failure` for what the
/// command does not take. With --help nothing else is required.
CommandLine parseCommandLine(const Command& command, int count, char** arguments);

}  // namespace kzreg
