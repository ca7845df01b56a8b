#include "kzreg/kzreg_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <thread>

#include "support/private_machine.h"

namespace traiklofox::test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kTemplateText =
    "hkey_local_machine:1000001\n"
    "hkey_local_machine\\software:1000002\n"
    "hkey_local_machine\\software\\example:1000003\n"
    "Name:                 \tprimary;              \tREG_SZ\n";

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

struct Ends {
    int ours = -1;
    int theirs = -1;
};

Ends makePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe2");
    return {ends[0], ends[1]};
}

Ends makeTerminal() {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char name[100];
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
        ::ptsname_r(master, name, sizeof name) != 0)
        fail("posix_openpt");
    const int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) fail(name);
    return {master, slave};
}

Ends makeFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) fail(path.c_str());
    return {-1, fd};
}

/// A program that the process becomes then has no capability: root's come from this set.
void dropPrivileges() {
    for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability) >= 0; ++capability)
        (void)::prctl(PR_CAPBSET_DROP, capability);  // one that stays shows in the test
}

std::vector<char*> pointersTo(Words& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

void closeOnce(int& fd) {
    if (fd >= 0) ::close(std::exchange(fd, -1));
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.status << "\n--- output:\n"
               << outcome.output << "--- errors:\n"
               << outcome.errors << "---";
}

Kzreg::Kzreg(const Words& arguments, const Surroundings& surroundings) {
    const Ends output = surroundings.outputFile.empty() ? makePipe() : makeFile(surroundings.outputFile);
    const Ends errors = surroundings.terminal ? makeTerminal() : makePipe();
    Words words = arguments;
    words.insert(words.begin(), "kzreg");
    const std::vector<char*> pointers = pointersTo(words);
    pid_ = ::fork();
    if (pid_ < 0) fail("fork");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(output.theirs, STDOUT_FILENO);
        ::dup2(errors.theirs, STDERR_FILENO);
        if (surroundings.unprivileged) dropPrivileges();
        ::execv(TRAIKLOFOX_TESTED_PROGRAM, pointers.data());
        ::_exit(127);
    }
    ::close(output.theirs);
    ::close(errors.theirs);
    output_.fd = output.ours;
    errors_.fd = errors.ours;
}

Kzreg::~Kzreg() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    closeOnce(output_.fd);
    closeOnce(errors_.fd);
}

void Kzreg::kill(int signal) {
    if (!status_) ::kill(pid_, signal);
}

bool Kzreg::readMore(Clock::time_point deadline) {
    // A stream that has ended has the descriptor -1, which poll passes over.
    pollfd items[] = {{output_.fd, POLLIN, 0}, {errors_.fd, POLLIN, 0}};
    if (output_.fd < 0 && errors_.fd < 0) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    const int ready = ::poll(items, std::size(items), left > 0 ? static_cast<int>(left) : 0);
    if (ready == 0 || (ready < 0 && errno != EINTR)) return false;
    for (Stream* stream : {&output_, &errors_}) {
        if (items[stream == &errors_].revents == 0) continue;
        char buffer[4096];
        const ssize_t got = ::read(stream->fd, buffer, sizeof buffer);
        if (got > 0)
            stream->unread.append(buffer, static_cast<size_t>(got));
        else  // a terminal ends with an error
            closeOnce(stream->fd);
    }
    return true;
}

std::optional<std::string> Kzreg::line(Stream& stream) {
    const auto deadline = Clock::now() + kPeerTimeout;
    size_t end;
    while ((end = stream.unread.find('\n')) == std::string::npos)
        if (!readMore(deadline)) return std::nullopt;
    std::string text = stream.unread.substr(0, end);
    stream.unread.erase(0, end + 1);
    return text;
}

Outcome Kzreg::finish() {
    const auto deadline = Clock::now() + kPeerTimeout;
    while (readMore(deadline)) continue;
    int status = 0;
    while (!status_ && Clock::now() < deadline) {
        if (::waitpid(pid_, &status, WNOHANG) == pid_)
            status_ = WIFSIGNALED(status) ? ExitStatus::killedBy(WTERMSIG(status))
                                          : ExitStatus::exited(WEXITSTATUS(status));
        else
            std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return {status_.value_or(ExitStatus::timedOut()), output_.unread, errors_.unread};
}

Outcome kzreg(const Words& arguments, const Kzreg::Surroundings& surroundings) {
    return Kzreg(arguments, surroundings).finish();
}

void KzregTest::SetUp() {
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() << machine.whyNot();
    home_.emplace();
    elsewhere_.emplace();
    writeText(templateFile(), kTemplateText);
    ::setenv("TWHOME", home().c_str(), /*overwrite=*/1);
}

std::string KzregTest::fileWith(std::string_view text) const {
    const std::string path = file("written");
    writeText(path, text);
    return path;
}

void KzregTest::add(const std::string& key, const std::string& name, const std::string& data) {
    EXPECT_EQ(kzreg({"add", key, "-v", name, "-d", data}), done());
}

std::vector<std::string> KzregTest::otherFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory()))
        if (entry.path() != registry() && entry.path() != templateFile())
            names.push_back(entry.path().filename());
    return names;
}

std::string withoutNumbers(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        const bool isKey = line.starts_with("hkey_local_machine");
        result += (isKey ? line.substr(0, line.find(':')) : line) + "\n";
    }
    return result;
}

}  // namespace traiklofox::test
