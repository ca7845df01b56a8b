// A line of /proc/<id>/stat: any text, and one that a kernel would make.
//
// The input is a process's name, a line feed, its state, parent and exit signal and where the line is cut, with blanks
// between, a line feed, and a line.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "kernel/process_life.h"
#include "require.h"
#include "system/proc_files.h"

namespace {

using namespace traiklofox::fuzz;
using traiklofox::kernel::tellsOfEnd;
using namespace traiklofox::system;

constexpr int kFieldsBetween = 33;  // from the parent to the exit signal

/// Whatever the line, what is told is in it.
void checkAny(const std::string& line) {
    const std::string_view command = commandIn(line);
    require(command.empty() || line.find("(" + std::string(command) + ")") != line.npos,
            "the command stands in parentheses", line);
    require(command.find_first_of(" \t\n") == command.npos, "and is one word", line);
    if (const auto names = namesOf(line)) {
        require(names->name.starts_with('(') && names->name.ends_with(')') &&
                    names->name.data() + names->name.size() == line.data() + line.rfind(')') + 1,
                "a name is in its parentheses", line);
        const size_t state = line.find(' ', line.rfind(')'));
        const size_t parent = line.find(' ', state + 1);
        require(parent != line.npos && std::strtol(line.c_str() + parent, nullptr, 10) == names->parent,
                "the parent is the second behind it", line);
    }
    if (exitSignalOf(line))
        require(std::ranges::count(line, ' ') >= kFieldsBetween + 3, "a 38th field needs so many", line);
    require(!tellsOfEnd(line) || line.find(") Z") != line.npos || line.find(") X") != line.npos,
            "an end has its state", line);
}

void checkMade(const std::string& name, char state, int parent, int exitSignal, size_t cut) {
    const std::string front = "4711 (" + name + ") ";
    const std::string toParent = front + state + " " + std::to_string(parent);
    std::string line = toParent;
    for (int i = 0; i < kFieldsBetween; ++i) line += " " + std::to_string(i);
    line += " " + std::to_string(exitSignal);
    const size_t whole = line.size();
    line += " 0 0\n";
    line.resize(std::min(cut, line.size()));
    checkAny(line);

    const auto names = namesOf(line);
    if (line.size() >= toParent.size())
        require(names && names->name == "(" + name + ")" && names->parent == parent,
                "the name and the parent are the kernel's", line);
    const auto signal = exitSignalOf(line);
    require(line.size() < whole || signal == exitSignal, "so is the exit signal", line);
    if (line.size() > front.size())
        require(tellsOfEnd(line) == (state == 'Z' || state == 'X'), "and the state", line);
    if (line.size() >= front.size() && name.find_first_of(" \t\n\v\f\r)") == name.npos)
        require(commandIn(line) == name, "a plain name is the command's", line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view rest = textOf(bytes, size);
    const std::string name(takeLine(rest));
    const std::string numbers(takeLine(rest));
    checkAny(std::string(rest));
    char state = 'S';
    int parent = 1;
    int exitSignal = kChildExitSignal;
    size_t cut = 512;
    (void)std::sscanf(numbers.c_str(), "%c %d %d %zu", &state, &parent, &exitSignal, &cut);
    if (std::isalpha(static_cast<unsigned char>(state)) != 0) checkMade(name, state, parent, exitSignal, cut);
    return 0;
}
