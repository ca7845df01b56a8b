// Programs as Win32 textbooks have them, run as they are: what they say is what they would say at home.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "support/private_machine.h"
#include "support/temp_dir.h"

namespace traiklofox::test {
namespace {

namespace fs = std::filesystem;

/// What a run of the program prints; a line more when it does not end with 0.
std::string outputOf(const std::string& command) {
    FILE* stream = ::popen((WIN32_PROGRAMS + command).c_str(), "re");
    if (stream == nullptr) return "not started";
    std::string text;
    char part[256];
    while (std::fgets(part, sizeof part, stream) != nullptr) text += part;
    const int status = ::pclose(stream);
    return status == 0 ? text : text + "status " + std::to_string(status) + "\n";
}

TEST(Win32Program, ProducersAndConsumersLoseNothing) {
    EXPECT_EQ(outputOf("producer_consumer"), "3000 items consumed, their sum is 1501500\n");
}

TEST(Win32Program, ServiceLoopTakesWhateverComes) {
    EXPECT_EQ(outputOf("service_loop"),
              "the helper has ended with 3\n"
              "working\n"
              "reading the settings again\n"
              "working\n"
              "stopping\n");
}

TEST(Win32Program, SettingsAreKeptInTheRegistryAndInAnIniFile) {
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() << machine.whyNot();
    const TempDir home;
    writeText(home / "registry/tw.registry.template",
              "hkey_local_machine:1000001\n"
              "hkey_local_machine\\software:1000002\n"
              "hkey_local_machine\\software\\example:1000003\n");
    ::setenv("TWHOME", home.path().c_str(), /*replace=*/1);
    const std::string ini = home / "old.ini";
    writeText(ini, "; of the old tool\n[server]\nport = 1 ; not ours\n");

    EXPECT_EQ(outputOf("settings " + ini), "nothing is set\n");
    EXPECT_EQ(outputOf("settings " + ini + " 8080 'main server' alpha beta"), "made\n");
    EXPECT_EQ(outputOf("settings " + ini + " 8081 'main server' alpha beta"), "changed\n");
    EXPECT_EQ(outputOf("settings " + ini),
              "registry: main server on port 8081\n"
              "  for alpha\n"
              "  for beta\n"
              "INI file: main server on port 8081\n");
    EXPECT_EQ(readText(ini).find("; of the old tool\n[server]\n"), 0u) << readText(ini);
}

TEST(Win32Program, DirectoryWatcherTellsWhatIsDroppedIn) {
    const TempDir directory;
    writeText(directory / "old", "already there");
    FILE* const stream =
        ::popen((std::string(WIN32_PROGRAMS "watch_directory ") + directory.path()).c_str(), "re");
    ASSERT_NE(stream, nullptr);
    char line[256];
    const auto next = [&] {
        return std::string(std::fgets(line, sizeof line, stream) != nullptr ? line : "the end");
    };
    EXPECT_EQ(next(), "added old, 13 bytes\n");
    writeText(directory / "part", "twelve bytes");
    fs::rename(directory / "part", directory / "new");  // may be seen under both names
    std::string seen;
    while (seen.find("added new, 12 bytes\n") == std::string::npos &&
           seen.find("the end") == std::string::npos)
        seen += next();
    fs::remove(directory / "old");
    seen.clear();
    while (seen.find("removed old, 13 bytes\n") == std::string::npos &&
           seen.find("the end") == std::string::npos)
        seen += next();
    writeText(directory / "stop", "");
    while (std::fgets(line, sizeof line, stream) != nullptr) {
    }
    EXPECT_EQ(::pclose(stream), 0);
}

TEST(Win32Program, DateFieldReadsWhatUsersType) {
    EXPECT_EQ(outputOf("date_entry <<'END'\n"
                       "1/2/2000\n"
                       "3 March 2000\n"
                       "2000-3-4 10:30 pm\n"
                       "Dec 31 99\n"
                       "30 February\n"
                       "tomorrow\n"
                       "END"),
              "1/2/2000               2000-01-02 00:00:00\n"
              "3 March 2000           2000-03-03 00:00:00, 61 days later\n"
              "2000-3-4 10:30 pm      2000-03-04 22:30:00, 62 days later\n"
              "Dec 31 99              1999-12-31 00:00:00, -2 days later\n"
              "30 February            1930-02-01 00:00:00, -25537 days later\n"
              "tomorrow               is no date\n");
}

}  // namespace
}  // namespace traiklofox::test
