// instance_name.cpp: which server instance a process belongs to.

#include <traiklofox/process_list.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <string>

#include "foundation/sys.h"
#include "system/proc_files.h"

namespace sys = traiklofox::sys;

namespace {

constexpr size_t kLongestDirectory = 4095;
constexpr size_t kLongestCommandLine = 256;
constexpr std::string_view kInDirectory = "https-";
constexpr std::string_view kInCommandLine = "/https-";

/// What begins with `mark` in `text`, up to a blank or the next "/". Empty when it is not there.
std::string_view instanceIn(std::string_view text, std::string_view mark) {
    const size_t start = text.find(mark);
    if (start == text.npos) return {};
    const size_t end = text.find_first_of(std::string_view(" \t\0/", 4), start + 1);
    return text.substr(start, end == text.npos ? end : end - start);
}

/// The arguments with blanks between them, as far as the first empty one.
std::string commandLineOf(pid_t process) {
    char buffer[kLongestCommandLine];
    const auto start = traiklofox::system::readStart(
        AT_FDCWD, traiklofox::system::ProcPath(process, "cmdline").get(), buffer);
    if (!start) return {};
    std::string line(start->substr(0, start->find(std::string_view("\0\0", 2))));
    for (char& byte : line)
        if (byte == '\0') byte = ' ';
    return line;
}

}  // namespace

CKZString GetProcessInstanceName(DWORD processId) {
    const auto self = static_cast<DWORD>(::getpid());
    const DWORD process = processId == 0 ? self : processId;
    if (process == self) {
        std::array<char, kLongestDirectory> directory{};
        if (sys::getcwd(directory.data(), directory.size()) != nullptr) {
            const std::string_view instance = instanceIn(directory.data(), kInDirectory);
            if (!instance.empty()) return CKZString(instance);
        }
    }
    return CKZString(instanceIn(commandLineOf(static_cast<pid_t>(process)), kInCommandLine));
}
