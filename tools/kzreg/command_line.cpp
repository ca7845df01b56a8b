#include "command_line.h"

#include <getopt.h>

#include <cstring>

#include "failure.h"

namespace kzreg {
namespace {

constexpr char kShortOptions[] = ":v:t:d:sh";
constexpr option kLongOptions[] = {
    {"json", no_argument, nullptr, 'j'},
    {"force", no_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void refuse(const Command& command, const std::string& trouble) {
    throw Failure(kUnusable, trouble + "; see kzreg " + command.name + " --help");
}

std::string spelled(int option) {
    for (const struct option& known : kLongOptions)
        if (known.val == option) return std::string("--") + known.name;
    return {'-', static_cast<char>(option)};
}

void setOnce(const Command& command, int letter, std::optional<std::string>& place) {
    if (place) refuse(command, spelled(letter) + " is given twice");
    place = optarg;
}

void take(const Command& command, int letter, CommandLine& line) {
    if (letter != 'h' && std::strchr(command.options, letter) == nullptr)
        refuse(command, std::string(command.name) + " takes no " + spelled(letter));
    switch (letter) {
        case 'v': setOnce(command, letter, line.valueName); break;
        case 't': setOnce(command, letter, line.type); break;
        case 'd': setOnce(command, letter, line.data); break;
        case 's': line.subkeys = true; break;
        case 'j': line.json = true; break;
        case 'f': line.force = true; break;
        default: line.help = true; break;
    }
}

}  // namespace

CommandLine parseCommandLine(const Command& command, int count, char** arguments) {
    CommandLine line;
    opterr = 0;  // the messages are ours
    int letter = 0;
    while ((letter = getopt_long(count, arguments, kShortOptions, kLongOptions, nullptr)) != -1) {
        if (letter == ':') refuse(command, std::string(arguments[optind - 1]) + " needs something behind it");
        if (letter == '?' && optopt != 0) refuse(command, "there is no option " + spelled(optopt));
        if (letter == '?') refuse(command, std::string("there is no option ") + arguments[optind - 1]);
        take(command, letter, line);
    }
    line.operands.assign(arguments + optind, arguments + count);
    if (line.help) return line;
    if (line.operands.size() < command.fewestOperands) refuse(command, "something is missing");
    if (line.operands.size() > command.mostOperands)
        refuse(command, "\"" + line.operands[command.mostOperands] + "\" is too much");
    return line;
}

}  // namespace kzreg
