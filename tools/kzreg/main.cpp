// main.cpp: finds the subcommand, and turns failures into messages and exit statuses.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "command_line.h"
#include "commands.h"
#include "failure.h"

namespace kzreg {
namespace {

constexpr char kHelp[] =
    R"(kzreg shows and changes the registry that the processes of an installation share.

  kzreg query KEY [-v NAME] [-s] [--json]           what is in a key
  kzreg add KEY [-v NAME [-t TYPE] [-d DATA]]       makes a key, or sets a value
  kzreg delete KEY [-v NAME]                        deletes a key, or a value
  kzreg export FILE [KEY]                           writes keys to a file
  kzreg import FILE [--force]                       takes keys from a file
  kzreg backup                                      copies the registry to its .bak
  kzreg status [--json]                             where it is and who uses it
  kzreg watch KEY                                   prints changes as they come
  kzreg check FILE                                  finds the bad lines of a file

kzreg COMMAND --help tells more of each.

A KEY is software\example, hkey_local_machine\software\example or HKLM\software\example in
any letter case, HKLM alone the root. Where there is no "\" in it, "/" separates as well.
The registry is registry/tw.registry in the directory that TWHOME names.
Exit status: 0 done, 1 not found or failed, 2 wrong usage or no usable registry.
)";

constexpr char kQueryHelp[] =
    R"(kzreg query KEY [-v NAME] [-s] [--json]

Prints the values of KEY and the names of its subkeys.
  -v NAME   only the value NAME (-v "": the one without a name, shown as (Default))
  -s        also of all keys below it
  --json    as JSON: {"keys": [{"key", "values": [{"name", "type", "data"}], "subkeys"}]},
            data a text, a number (REG_DWORD) or an array of texts (REG_MULTI_SZ)

The texts of a REG_MULTI_SZ are separated by "\0". Status 1: no such key, or no such value.
)";

constexpr char kAddHelp[] =
    R"(kzreg add KEY [-v NAME [-t TYPE] [-d DATA]]

Makes KEY, with the keys on the way to it, and sets a value in it. What is there already
is kept, or replaced when it is the value. It is on the disk when the command is done.
  -v NAME   the value's name (-v "": the one without a name)
  -t TYPE   REG_SZ (if not given), REG_DWORD or REG_MULTI_SZ
  -d DATA   REG_SZ: the text, empty if not given
            REG_DWORD: a number, decimal or 0x...
            REG_MULTI_SZ: texts, separated by "\0": -d 'one\0two'

Refused with status 1 is what would not come back from the registry file: data with a line
feed or a semicolon in them or white space in front, a name with a colon in it or a "#" in
front, a blank in a text of a REG_MULTI_SZ.
)";

constexpr char kDeleteHelp[] =
    R"(kzreg delete KEY [-v NAME]

Deletes KEY with everything below it, without asking, or only the value NAME in it
(-v "": the one without a name). It is gone from the disk when the command is done.
Status 1: no such key, or no such value.
)";

constexpr char kExportHelp[] =
    R"(kzreg export FILE [KEY]

Writes KEY and all keys below it, or the whole registry, to FILE, in the registry file's own
format: what import and check read. All of it is from one moment. FILE is replaced as a
whole, or not at all, and gets the permissions of the registry file less the umask.
)";

constexpr char kImportHelp[] =
    R"(kzreg import FILE [--force]

Makes the keys and sets the values that FILE names; others stay as they are. FILE is in the
registry file's own format (see kzreg export). All of it is imported, by one write, or
nothing: it is on the disk when the command is done.

A FILE with lines that the registry would not take as they look is refused with status 1.
  --force   take those lines as the registry would: ignore them, or take them cut
)";

constexpr char kBackupHelp[] =
    R"(kzreg backup

Copies the registry file to registry/tw.registry.bak.
)";

constexpr char kStatusHelp[] =
    R"(kzreg status [--json]

Prints where the registry's files are; the version stamp, which counts writes since the
machine was started; the process that wrote last and the one that holds the lock now; and
what is in the file. It waits for nobody.
  --json    as JSON; null for a file that is missing and a process that there is none of
)";

constexpr char kWatchHelp[] =
    R"(kzreg watch KEY

Prints a line for each value of KEY that is set or deleted and each subkey that is created
or deleted, by whichever process, until it is interrupted (status 0) or KEY is deleted
(status 1). What changes and changes back within a moment may be missed.
)";

constexpr char kCheckHelp[] =
    R"(kzreg check FILE

Prints FILE:LINE: and what is wrong for each line that the registry would ignore, cut or
take otherwise than it looks, and for each key or value that is there twice. Needs no
registry. Status 1: there is such a line, or FILE cannot be read.
)";

// clang-format off
constexpr Command kCommands[] = {
    //          options  operands
    {"query",   "vsj",   1, 1,     query,       kQueryHelp},
    {"add",     "vtd",   1, 1,     add,         kAddHelp},
    {"delete",  "v",     1, 1,     deleteEntry, kDeleteHelp},
    {"export",  "",      1, 2,     exportKeys,  kExportHelp},
    {"import",  "f",     1, 1,     importFile,  kImportHelp},
    {"backup",  "",      0, 0,     backup,      kBackupHelp},
    {"status",  "j",     0, 0,     showStatus,  kStatusHelp},
    {"watch",   "",      1, 1,     watch,       kWatchHelp},
    {"check",   "",      1, 1,     checkFile,   kCheckHelp},
};
// clang-format on

const Command& commandNamed(std::string_view name) {
    for (const Command& command : kCommands)
        if (command.name == name) return command;
    throw Failure(kUnusable, "there is no command " + std::string(name) + "; see kzreg --help");
}

int run(int count, char** arguments) {
    if (count < 2) {
        std::fputs(kHelp, stderr);
        return kUnusable;
    }
    const std::string_view name = arguments[1];
    if (name == "--help" || name == "-h" || name == "help") {
        std::fputs(kHelp, stdout);
        return kDone;
    }
    const Command& command = commandNamed(name);
    const CommandLine line = parseCommandLine(command, count - 1, arguments + 1);
    if (!line.help) return command.run(line);
    std::fputs(command.help, stdout);
    return kDone;
}

int report(ExitStatus status, const char* message) {
    std::fflush(stdout);  // what was printed before comes first
    std::fprintf(stderr, "kzreg: %s\n", message);
    return status;
}

}  // namespace
}  // namespace kzreg

int main(int count, char** arguments) {
    using namespace kzreg;
    try {
        const int status = run(count, arguments);
        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
        return report(kFailed, (std::string("cannot write the output: ") + std::strerror(errno)).c_str());
    } catch (const Failure& failure) {
        return report(failure.status(), failure.what());
    } catch (const std::exception& error) {
        return report(kFailed, error.what());
    }
}
