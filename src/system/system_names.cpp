// system_names.cpp: the names of the computer, the user, the directories and the command line.

#include <traiklofox/system_info.h>

#include <cxxabi.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "files/arguments.h"
#include "foundation/install_path.h"
#include "system/control_group.h"

using namespace traiklofox::system;

namespace {

/// Stores a name; `counted` is what of its NUL counts in the length.
BOOL giveName(std::string_view name, char* buffer, DWORD* size, DWORD counted) {
    if (buffer == nullptr || *size <= name.size()) {
        *size = static_cast<DWORD>(name.size()) + 1;
        errno = ERANGE;
        return FALSE;
    }
    std::memcpy(buffer, name.data(), name.size());
    buffer[name.size()] = '\0';
    *size = static_cast<DWORD>(name.size()) + counted;
    return TRUE;
}

template <class Result, class Body>
Result namesCall(Body body) {
    try {
        return body();
    } catch (const abi::__forced_unwind&) {
        throw;  // pthread_cancel: swallowing it aborts the process
    } catch (...) {
        errno = ENOMEM;
        return Result{};
    }
}

std::string userName() {
    const uid_t user = ::geteuid();
    std::vector<char> room(1024);
    struct passwd entry {};
    struct passwd* found = nullptr;
    int error = 0;
    while ((error = ::getpwuid_r(user, &entry, room.data(), room.size(), &found)) == ERANGE &&
           room.size() < (1U << 20))
        room.resize(room.size() * 2);
    return error == 0 && found != nullptr ? entry.pw_name : std::to_string(user);
}

std::string installDirectory() {
    std::string path = traiklofox::foundation::installPath();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

/// A word as it must stand to be taken for one.
std::string quoted(std::string_view word) {
    if (!word.empty() && word.find_first_of(" \t\"'") == word.npos) return std::string(word);
    // Backslashes at its end would make the closing quote one of the word's: they go behind it.
    const size_t end = word.find_last_not_of('\\') + 1;
    std::string text = "\"";
    for (const char character : word.substr(0, end)) {
        if (character == '"' || character == '\'') text += '\\';
        text += character;
    }
    return text.append("\"").append(word.substr(end));
}

std::string commandLine() {
    const std::string words = textOfFile("/proc/self/cmdline");
    std::string line;
    for (size_t begin = 0; begin < words.size();) {
        const size_t end = std::min(words.find('\0', begin), words.size());
        if (begin > 0) line += ' ';
        line += quoted(std::string_view(words).substr(begin, end - begin));
        begin = end + 1;
    }
    return line;
}

}  // namespace

BOOL GetComputerName(LPSTR buffer, LPDWORD size) {
    if (size == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    struct utsname name {};
    if (::uname(&name) != 0) return FALSE;
    const std::string_view whole = name.nodename;
    return giveName(whole.substr(0, whole.find('.')), buffer, size, /*counted=*/0);
}

BOOL GetUserName(LPSTR buffer, LPDWORD size) {
    if (size == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    return namesCall<BOOL>([&] { return giveName(userName(), buffer, size, /*counted=*/1); });
}

UINT GetWindowsDirectory(LPSTR buffer, UINT size) {
    return namesCall<UINT>(
        [&] { return static_cast<UINT>(traiklofox::files::giveText(installDirectory(), buffer, size)); });
}

UINT GetSystemDirectory(LPSTR buffer, UINT size) {
    return namesCall<UINT>([&] {
        const std::string path = installDirectory();
        const char* below = path.ends_with('/') ? "bin" : "/bin";
        return static_cast<UINT>(traiklofox::files::giveText(path + below, buffer, size));
    });
}

LPSTR GetCommandLine() {
    static char nothing[] = "";
    const auto make = [] {
        static std::string& line = *new std::string(commandLine());
        return line.data();
    };
    char* const line = namesCall<char*>(make);
    return line != nullptr ? line : nothing;
}
