// kzreg.cpp: one process and one pipe, which output and messages share.

#include "kzreg.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace appserver {
namespace {

namespace fs = std::filesystem;

std::string program() {
    std::error_code error;
    const fs::path beside = fs::read_symlink("/proc/self/exe", error).replace_filename("kzreg");
    if (access(beside.c_str(), X_OK) == 0) return beside;
#ifdef EXAMPLE_KZREG
    if (access(EXAMPLE_KZREG, X_OK) == 0) return EXAMPLE_KZREG;
#endif
    return "kzreg";
}

pid_t spawn(Words words, int output) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, /*mode=*/0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    pid_t pid = -1;
    const int error =
        posix_spawnp(&pid, program().c_str(), &actions, /*attributes=*/nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), "cannot run kzreg");
    return pid;
}

std::string readAll(int input) {
    std::string text;
    std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t count = read(input, buffer.data(), buffer.size());
        if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EINTR)) return text;
    }
}

int statusOf(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, /*options=*/0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::vector<std::string> runKzreg(Words arguments) {
    arguments.insert(arguments.begin(), "kzreg");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    pid_t pid = -1;
    try {
        pid = spawn(std::move(arguments), ends[1]);
    } catch (...) {
        close(ends[0]);
        close(ends[1]);
        throw;
    }
    close(ends[1]);
    const std::string said = readAll(ends[0]);
    close(ends[0]);
    const int status = statusOf(pid);
    if (status != 0) throw std::runtime_error("status " + std::to_string(status) + " and \"" + said + "\"");

    std::istringstream text(said);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

}  // namespace appserver
