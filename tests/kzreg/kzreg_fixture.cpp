#include "kzreg/kzreg_fixture.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
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

/// Makes a terminal, and returns the name of its other end.
std::string makeTerminal(int& master) {
    char name[100];
    master = require(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
    require(::grantpt(master) | ::unlockpt(master) | -::ptsname_r(master, name, sizeof name), "grantpt");
    require(::fcntl(master, F_SETFL, O_NONBLOCK), "fcntl");
    return name;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.status << "\n--- output:\n"
               << outcome.output << "--- errors:\n"
               << outcome.errors << "---";
}

/// Becomes kzreg. Arguments are where its output and its errors go, whether as root, and its words.
TEST_ROLE(becomesKzreg) {
    (void)::dup2(::open(args.at(0).c_str(), O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    (void)::dup2(::open(args.at(1).c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC), STDERR_FILENO);
    // A program that the process becomes then has no capability: root's come from this set.
    for (int each = 0; args.at(2) != "root" && ::prctl(PR_CAPBSET_READ, each) >= 0; ++each)
        (void)::prctl(PR_CAPBSET_DROP, each);  // one that stays shows in the test
    Words words(args.begin() + 2, args.end());
    words[0] = "kzreg";
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    ::execv(TRAIKLOFOX_TESTED_PROGRAM, pointers.data());
    return 127;
}

Kzreg::Kzreg(const Words& words, const Surroundings& surroundings) {
    const auto makeFile = [](Stream& stream) {
        stream.fd = require(::memfd_create("kzreg", MFD_CLOEXEC), "memfd_create");
        return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(stream.fd);
    };
    const std::string& file = surroundings.outputFile;
    RoleArguments args{file.empty() ? makeFile(output_) : file,
                       surroundings.terminal ? makeTerminal(errors_.fd) : makeFile(errors_),
                       surroundings.unprivileged ? "unprivileged" : "root"};
    args.insert(args.end(), words.begin(), words.end());
    process_.emplace("becomesKzreg", args);
}

Kzreg::~Kzreg() {
    process_.reset();
    for (const int fd : {output_.fd, errors_.fd})
        if (fd >= 0) ::close(fd);
}

void Kzreg::Stream::readMore() {
    char buffer[4096];
    for (ssize_t got; fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0;)
        unread.append(buffer, static_cast<size_t>(got));
}

std::optional<std::string> Kzreg::line(Stream& stream) {
    size_t end = std::string::npos;
    const bool came = within(kPeerTimeout, [&] {
        const bool over = process_->wait(std::chrono::milliseconds{0}) != ExitStatus::timedOut();
        stream.readMore();
        return (end = stream.unread.find('\n')) != std::string::npos || over;
    });
    if (!came || end == std::string::npos) return std::nullopt;
    std::string text = stream.unread.substr(0, end);
    stream.unread.erase(0, end + 1);
    return text;
}

Outcome Kzreg::finish() {
    const ExitStatus status = process_->wait();
    output_.readMore();
    errors_.readMore();
    return {status, output_.unread, errors_.unread};
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
