#pragma once

// What the tests of kzreg share: an installation on a machine of its own, and the program, run as a process.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "support/private_machine.h"
#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Words = std::vector<std::string>;

/// How a run ended, and what it said.
struct Outcome {
    ExitStatus status;
    std::string output;
    std::string errors;
    bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

/// A run with nothing on standard error.
inline Outcome done(std::string_view output = "") {
    return {ExitStatus::exited(0), std::string{output}, ""};
}

struct Surroundings {
    bool unprivileged = false;    // the same user, without what root may do beyond others
    bool terminal = false;        // standard error is a terminal
    std::string outputFile = {};  // standard output goes there
};

/// One run of the program.
class Kzreg {
  public:
    explicit Kzreg(const Words& words, const Surroundings& surroundings = {});
    Kzreg(const Kzreg&) = delete;
    Kzreg& operator=(const Kzreg&) = delete;
    /// Kills the process if it still runs.
    ~Kzreg();

    void kill(int signal) { process_->kill(signal); }
    /// The next line on standard output, or on standard error; nothing after `kPeerTimeout`.
    std::optional<std::string> outputLine() { return line(output_); }
    std::optional<std::string> errorLine() { return line(errors_); }
    /// Waits for the end. The lines that were taken before are not in the outcome.
    Outcome finish();

  private:
    struct Stream {
        int fd = -1;
        std::string unread;
        void readMore();
    };
    std::optional<std::string> line(Stream& stream);

    std::optional<RoleProcess> process_;
    Stream output_, errors_;
};

/// Runs the program to its end.
inline Outcome kzreg(const Words& words, const Surroundings& surroundings = {}) {
    return Kzreg(words, surroundings).finish();
}

/// An installation that TWHOME names, with a template and no registry file yet.
class KzregTest : public ::testing::Test {
  protected:
    void SetUp() override;
    /// Another one, fresh, in its place.
    void installAnew();

    static constexpr const char* kExample = "hkey_local_machine\\software\\example";

    std::string directory() const { return home_->path() + "/registry"; }
    std::string registry() const { return directory() + "/tw.registry"; }
    std::string templateFile() const { return registry() + ".template"; }
    /// A file beside the installation.
    std::string file(std::string_view name) const { return *elsewhere_ / name; }
    std::string fileWith(std::string_view text) const;
    /// The text with paths in the places of @ (the registry), ~ (the template) and % (their directory).
    std::string filledIn(std::string_view text) const;

    std::string registryText() const { return readText(registry()); }
    /// Adds one value and expects that to succeed, by which the registry file comes into being as well.
    static void add(const std::string& key, const std::string& name, const std::string& data);
    /// What is in the registry's directory besides the file and the template.
    std::string otherFiles() const;

  private:
    std::optional<TempDir> home_, elsewhere_;
};

/// The text without the numbers of its keys, which differ from run to run.
std::string withoutNumbers(const std::string& text);

/// Matches an outcome with this exit status, no output, and an error report that begins with "kzreg: " in its last line
/// and contains `part`.
MATCHER_P2(Fails, status, part, "") {
    const std::string& errors = arg.errors;
    const size_t lastLine = errors.rfind('\n', errors.size() - 2) + 1;
    return arg.status == ExitStatus::exited(status) && arg.output.empty() && errors.ends_with('\n') &&
           errors.compare(lastLine, 7, "kzreg: ") == 0 && errors.find(part) != errors.npos;
}

}  // namespace traiklofox::test
