#include "kzreg/kzreg_fixture.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <system_error>

#include "support/bounded_wait.h"

namespace traiklofox::test {

namespace {

constexpr const char* kTemplateText =
    "hkey_local_machine:1000001\n"
    "hkey_local_machine\\software:1000002\n"
    "hkey_local_machine\\software\\example:1000003\n"
    "Name:                 \tprimary;              \tREG_SZ\n";

int require(int result, const char* what) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    return result;
}

/// Makes the terminal whose other end the returned descriptor is.
int makeTerminal(int& end) {
    char name[100];
    const int master = require(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
    require(::grantpt(master) | ::unlockpt(master) | -::ptsname_r(master, name, sizeof name), "grantpt");
    end = require(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), name);
    require(::fcntl(master, F_SETFL, O_NONBLOCK), "fcntl");
    return master;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.status << "\n--- output:\n"
               << outcome.output << "--- errors:\n"
               << outcome.errors << "---";
}

Kzreg::Kzreg(Words words, const Surroundings& surroundings) {
    words.insert(words.begin(), "kzreg");
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    // What goes to a file in memory is read from a descriptor with a position of its own.
    const auto makeFile = [](Stream& stream) {
        const int fd = require(::memfd_create("kzreg", MFD_CLOEXEC), "memfd_create");
        const std::string path = "/proc/self/fd/" + std::to_string(fd);
        stream.fd = require(::open(path.c_str(), O_RDONLY | O_CLOEXEC), "open");
        return fd;
    };
    const std::string& file = surroundings.outputFile;
    const int output =
        file.empty() ? makeFile(output_) : require(::open(file.c_str(), O_WRONLY | O_CLOEXEC), "open");
    int errors = -1;
    if (surroundings.terminal)
        errors_.fd = makeTerminal(errors);
    else
        errors = makeFile(errors_);
    pid_ = require(::fork(), "fork");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(output, STDOUT_FILENO);
        ::dup2(errors, STDERR_FILENO);
        // A program that the process becomes then has no capability: root's come from this set.
        for (int each = 0; surroundings.unprivileged && ::prctl(PR_CAPBSET_READ, each) >= 0; ++each)
            (void)::prctl(PR_CAPBSET_DROP, each);  // one that stays shows in the test
        ::execv(TRAIKLOFOX_TESTED_PROGRAM, pointers.data());
        ::_exit(127);
    }
    ::close(output);
    ::close(errors);
}

Kzreg::~Kzreg() {
    kill(SIGKILL);
    if (!status_) ::waitpid(pid_, nullptr, 0);
    for (const int fd : {output_.fd, errors_.fd})
        if (fd >= 0) ::close(fd);
}

void Kzreg::kill(int signal) {
    if (!status_) ::kill(pid_, signal);
}

void Kzreg::Stream::readMore() {
    char buffer[4096];
    for (ssize_t got; fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0;)
        unread.append(buffer, static_cast<size_t>(got));
}

std::optional<std::string> Kzreg::line(Stream& stream) {
    size_t end = std::string::npos;
    const bool came = within(kPeerTimeout, [&] {
        const bool over = ends();
        stream.readMore();
        return (end = stream.unread.find('\n')) != std::string::npos || over;
    });
    if (!came || end == std::string::npos) return std::nullopt;
    std::string text = stream.unread.substr(0, end);
    stream.unread.erase(0, end + 1);
    return text;
}

bool Kzreg::ends() {
    int status = 0;
    if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_)
        status_ = WIFSIGNALED(status) ? ExitStatus::killedBy(WTERMSIG(status))
                                      : ExitStatus::exited(WEXITSTATUS(status));
    return status_.has_value();
}

Outcome Kzreg::finish() {
    within(kPeerTimeout, [this] { return ends(); });
    output_.readMore();
    errors_.readMore();
    return {status_.value_or(ExitStatus::timedOut()), output_.unread, errors_.unread};
}

void KzregTest::SetUp() {
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() << machine.whyNot();
    // No stamp, and no writer's name, of the tests before in the same process.
    ASSERT_EQ(::unshare(CLONE_NEWIPC), 0);
    installAnew();
}

void KzregTest::installAnew() {
    home_.emplace();
    elsewhere_.emplace();
    writeText(templateFile(), kTemplateText);
    ::setenv("TWHOME", home_->path().c_str(), /*overwrite=*/1);
}

std::string KzregTest::fileWith(std::string_view text) const {
    const std::string path = file("written");
    writeText(path, text);
    return path;
}

std::string KzregTest::filledIn(std::string_view text) const {
    std::string filled;
    for (const char c : text)
        filled += c == '@'   ? registry()
                  : c == '~' ? templateFile()
                  : c == '%' ? directory()
                             : std::string(1, c);
    return filled;
}

void KzregTest::add(const std::string& key, const std::string& name, const std::string& data) {
    EXPECT_EQ(kzreg({"add", key, "-v", name, "-d", data}), done());
}

std::string KzregTest::otherFiles() const {
    std::string names;
    for (const auto& entry : fs::directory_iterator(directory()))
        if (entry.path() != registry() && entry.path() != templateFile()) names += entry.path().filename();
    return names;
}

std::string withoutNumbers(const std::string& text) {
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);)
        result += line.substr(0, line.starts_with("hkey_local_machine") ? line.find(':') : line.npos) + "\n";
    return result;
}

}  // namespace traiklofox::test
