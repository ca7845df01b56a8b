// story.cpp: the sections of the account, in their order.
//
// The teller never opens the registry: it asks the processes, and reads the file as plain text.

#include "story.h"

#include "account.h"
#include "child_process.h"
#include "conversation.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace appserver {
namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

constexpr char kListener[] = "listeners/http";
constexpr char kSetting[] = "KeepAliveTimeout";
constexpr unsigned kFirstTimeout = 30;  // as the template has it
constexpr unsigned kSecondTimeout = 45;
constexpr unsigned kThirdTimeout = 60;

constexpr char kBurstKey[] = "measurements";
constexpr std::array kPrefixes = {"server", "web1", "web2",
                                  "admin"};  // of the names that each process writes
constexpr unsigned kValuesEach = 100;
constexpr std::chrono::seconds kBurstBound{180};

constexpr char kRequestKey[] = "requests";
constexpr unsigned kRequests = 1000;
constexpr unsigned kCounters = 10;
constexpr unsigned long kMostWorkers = 4;
constexpr unsigned kLazyIntervalMs = 200;

constexpr char kInstance[] = "https-appserver";  // see child_process.cpp
constexpr unsigned kLoad = 42;

constexpr unsigned long kKilledCode = 0xFFFFFFFF;

constexpr std::chrono::milliseconds kProofOfWaiting{300};
constexpr double kAtOnceMs = 5000;

/// The processes of the application server, and what is known of its registry.
struct Team {
    ChildProcess server;
    ChildProcess web1;
    ChildProcess web2;
    ChildProcess admin;

    std::array<ChildProcess*, 4> all() { return {&server, &web1, &web2, &admin}; }
};

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

std::string onlyLine(const Lines& answer) {
    check(answer.size() == 1, "an answer of one line");
    return answer.front();
}

ChildProcess start(const std::string& title, const Words& arguments) {
    ChildProcess process(title, arguments);
    const Lines greeting = process.awaitAnswer();
    say("%-14s pid %-7d %s", title.c_str(), static_cast<int>(process.pid()),
        greeting.empty() ? "ready" : greeting.front().c_str());
    return process;
}

/// What a new process prints for one administration command.
Lines inFreshProcess(const std::string& command) {
    Words words = wordsOf(command);
    words.insert(words.begin(), "admin");
    ChildProcess process("a fresh process", words);
    const Lines answer = process.awaitAnswer();
    check(process.finish() == 0, "a fresh process that ends well");
    return answer;
}

void checkCount(const Lines& answer, std::size_t keys, std::size_t values) {
    const std::string expected = std::to_string(keys) + " keys " + std::to_string(values) + " values";
    check(onlyLine(answer) == expected, "a walk that finds " + expected + ", not " + onlyLine(answer));
}

Lines setTimeout(ChildProcess& process, unsigned timeout) {
    return process.ask(std::string("set ") + kListener + " " + kSetting + " " + std::to_string(timeout));
}

void checkReadsTimeout(ChildProcess& process, unsigned expected) {
    const std::string line = onlyLine(process.ask(std::string("get ") + kListener + " " + kSetting));
    const std::string truth = "pid " + std::to_string(process.pid()) + " reads " + std::to_string(expected);
    check(line == truth, process.title() + ": \"" + truth + "\", not \"" + line + "\"");
    say("%-14s %s", process.title().c_str(), line.c_str());
}

/// The number in one of the lines that `kzreg status` prints; 0 where it says "none".
unsigned long statusField(ChildProcess& admin, const std::string& label) {
    for (const std::string& line : admin.ask("status")) {
        if (!line.starts_with(label)) continue;
        const std::size_t digits = line.find_first_of("0123456789", label.size());
        return digits != std::string::npos ? std::stoul(line.substr(digits)) : 0;
    }
    check(false, "a line \"" + label + "\"");
    return 0;
}

unsigned long versionStamp(ChildProcess& admin) {
    return statusField(admin, "version stamp:");
}

Team startFromTemplate(const Installation& installation) {
    heading("Start-up from the template");
    const std::string original = textOf(installation.templateFile());
    const Lines lines = registryLines(installation.templateFile());
    const std::size_t keys = countKeyLines(lines);
    const std::size_t values = lines.size() - keys;
    check(installation.fileNames() == Lines{"tw.registry.template"},
          "an installation with nothing but a template");

    ChildProcess server = start("server", {"server"});
    checkCount(server.ask("count"), keys, values);
    say("The server, walking from the root, finds %zu keys and %zu values, as many as the template has.",
        keys, values);

    check(installation.fileNames() == Lines({"tw.registry", "tw.registry.bak", "tw.registry.template"}),
          "a registry, its backup and the template");
    check(textOf(installation.registryFile()) == original, "a registry that equals the template");
    check(textOf(installation.backupFile()) == original, "a backup that equals the template");
    say("It has made these files of %zu bytes, byte for byte the template's:", original.size());
    say("  %s", installation.registryFile().c_str());
    say("  %s", installation.backupFile().c_str());

    ChildProcess web1 = start("connector web1", {"connector", "web1"});
    ChildProcess web2 = start("connector web2", {"connector", "web2"});
    ChildProcess admin = start("administration", {"admin"});
    return {std::move(server), std::move(web1), std::move(web2), std::move(admin)};
}

void readByAll(Team& team) {
    heading("A setting read by all");
    say("%s, value %s:", kListener, kSetting);
    for (ChildProcess* process : team.all()) checkReadsTimeout(*process, kFirstTimeout);
}

/// Says which one line of the file is no longer the template's.
void tellChangedLine(const Installation& installation) {
    const Lines before = registryLines(installation.templateFile());
    const Lines after = registryLines(installation.registryFile());
    check(before.size() == after.size(), "a registry with as many lines as before");
    std::vector<std::pair<std::string, std::string>> changed;
    for (std::size_t i = 0; i < before.size(); ++i) {
        if (before[i] != after[i]) changed.emplace_back(assignmentOf(before[i]), assignmentOf(after[i]));
    }
    const std::pair<std::string, std::string> expected = {"KeepAliveTimeout = 0x1e",
                                                          "KeepAliveTimeout = 0x2d"};
    check(changed == std::vector{expected}, "one changed line in the file");
    say("The file was written once. Of its %zu lines one differs from the template's:", after.size());
    say("%s has become %s.", expected.first.c_str(), expected.second.c_str());
}

void changeSetting(Team& team, const Installation& installation) {
    heading("The setting changed by the administration process");
    team.server.ask(std::string("watch ") + kListener + " " + kSetting);
    const unsigned long stampBefore = versionStamp(team.admin);

    const Clock::time_point begin = Clock::now();
    const std::string command = onlyLine(setTimeout(team.admin, kSecondTimeout));
    say("  $ %s", command.c_str());
    say("On disk after %.1f ms.", millisecondsSince(begin));
    const std::string noticed = onlyLine(team.server.ask("await-change"));
    check(noticed == "noticed " + std::to_string(kSecondTimeout),
          "the server's watching thread to notice the change, not \"" + noticed + "\"");
    say("The server's thread that polls RegNotifyChangeKeyValue reports %u after %.1f ms.", kSecondTimeout,
        millisecondsSince(begin));
    say("At their next look-up:");
    for (ChildProcess* process : team.all()) checkReadsTimeout(*process, kSecondTimeout);
    check(versionStamp(team.admin) == stampBefore + 1, "a version stamp that rose by 1");
    tellChangedLine(installation);
}

struct Span {
    long long fromUs = 0;
    long long toUs = 0;
};

Span spanOf(const std::string& line) {
    Span span;
    check(std::sscanf(line.c_str(), "from %lld to %lld", &span.fromUs, &span.toUs) == 2, "a span of time");
    return span;
}

std::string decimal(unsigned number) {
    return std::to_string(number);
}

std::string asInFile(unsigned number) {
    char text[16];
    std::snprintf(text, sizeof text, "%#x", number);
    return text;
}

/// All values that the four write, as `assignmentOf` their lines.
std::set<std::string> burstAssignments(std::string (*numberText)(unsigned)) {
    std::set<std::string> assignments;
    for (const char* prefix : kPrefixes) {
        for (unsigned i = 1; i <= kValuesEach; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, "%s-%03u", prefix, i);
            assignments.insert(std::string(name) + " = " + numberText(i));
        }
    }
    return assignments;
}

/// Lets all write at once. Returns how long one write took, in milliseconds.
double writeBurst(Team& team) {
    const unsigned long stampBefore = versionStamp(team.admin);
    for (std::size_t i = 0; i < team.all().size(); ++i) {
        team.all()[i]->send(std::string("fill ") + kBurstKey + " " + kPrefixes[i] + " " +
                            std::to_string(kValuesEach));
    }
    std::vector<Span> spans;
    for (ChildProcess* process : team.all()) {
        spans.push_back(spanOf(onlyLine(process->awaitAnswer(kBurstBound))));
    }
    const auto [firstBegin, lastBegin] = std::ranges::minmax(spans, {}, &Span::fromUs);
    const auto [firstEnd, lastEnd] = std::ranges::minmax(spans, {}, &Span::toUs);
    const double wholeMs = static_cast<double>(lastEnd.toUs - firstBegin.fromUs) / 1000;
    const double togetherMs = static_cast<double>(firstEnd.toUs - lastBegin.fromUs) / 1000;
    check(togetherMs > 0, "four processes that write at the same time");
    const unsigned long writes = versionStamp(team.admin) - stampBefore;
    check(writes >= 4 * kValuesEach, "a write for each of the values");

    const double writeMs = wholeMs / static_cast<double>(writes);
    say("Each sets %u values in one new key, each on disk before the next: the administration process by",
        kValuesEach);
    say("a run of kzreg for each value, the others by a flush.");
    say("With the making of the key that is %lu writes of the file in %.0f ms, %.1f ms a write.", writes,
        wholeMs, writeMs);
    say("For %.0f ms all four were at it.", togetherMs);
    return writeMs;
}

void checkBurst(const Installation& installation) {
    const Lines listed = inFreshProcess(std::string("list ") + kBurstKey);
    check(listed.size() == 4 * kValuesEach,
          "400 values in a fresh process, not " + std::to_string(listed.size()));
    check(std::set<std::string>(listed.begin(), listed.end()) == burstAssignments(decimal),
          "the values that were set");
    const Lines lines = valueLinesOf(registryLines(installation.registryFile()), kBurstKey);
    std::set<std::string> stored;
    for (const std::string& line : lines) stored.insert(assignmentOf(line));
    check(lines.size() == listed.size() && stored == burstAssignments(asInFile),
          "the lines of the values in the file");
    say("A fresh process finds all %zu values, and so does a search in the text of the file.", listed.size());
}

double writeAllAtOnce(Team& team, const Installation& installation) {
    heading("Four processes writing at once");
    const double writeMs = writeBurst(team);
    checkBurst(installation);
    return writeMs;
}

/// The number behind one of the words of the server's answer.
unsigned long numberBehind(const std::string& word, const Lines& answer) {
    for (const std::string& line : answer) {
        if (line.starts_with(word + " ")) return std::stoul(line.substr(word.size()));
    }
    check(false, "a line \"" + word + " ...\"");
    return 0;
}

void writeLazily(Team& team, double writeMs) {
    heading("A pool of workers, a timer and the lazy writer");
    const unsigned long stampBefore = versionStamp(team.admin);
    const Clock::time_point begin = Clock::now();
    team.server.ask("start-lazy-writer " + std::to_string(kLazyIntervalMs));
    const Lines served =
        team.server.ask(std::string("serve ") + kRequestKey + " " + std::to_string(kRequests));
    team.server.ask("stop-lazy-writer");
    const double elapsedMs = millisecondsSince(begin);
    const unsigned long writes = versionStamp(team.admin) - stampBefore;

    const double mostWrites = elapsedMs / kLazyIntervalMs + 1;
    check(writes >= 1 && static_cast<double>(writes) <= mostWrites,
          "at most " + std::to_string(mostWrites) + " writes, not " + std::to_string(writes));
    const unsigned long workers = numberBehind("workers", served);
    const unsigned long reports = numberBehind("reports", served);
    check(workers >= 1 && workers <= kMostWorkers, "no more workers than the pool may have");
    check(reports >= 1, "a timer that expires while the requests come");
    say("The server handles %u requests in %.0f ms, each of which changes a value and closes the key: up to",
        kRequests, elapsedMs);
    say("%lu workers of its pool at once. A timer on the thread that takes them in expires %s.", workers,
        reports == 1 ? "once" : (std::to_string(reports) + " times").c_str());
    say("The lazy writer writes every %u ms and once more when it is stopped: %lu writes (version stamp %lu "
        "to",
        kLazyIntervalMs, writes, stampBefore);
    say("%lu).", stampBefore + writes);
    say("Written one by one, as above, they would have taken %.0f ms.", kRequests * writeMs);

    Lines expected;
    for (unsigned i = 0; i < kCounters; ++i) {
        expected.push_back("Requests" + std::to_string(i) + " = " + std::to_string(kRequests / kCounters));
    }
    check(inFreshProcess(std::string("list ") + kRequestKey) == expected, "the last value of each counter");
    say("A fresh process finds the last value of each of the %u counters.", kCounters);
}

void replaceHelper(Team& team) {
    heading("A helper process that is replaced when it crashes");
    const auto first = static_cast<pid_t>(numberBehind("helper", team.server.ask("start-helper")));
    say("The server has started a helper, pid %d, and waits for its end and for an event at once.",
        static_cast<int>(first));
    const Clock::time_point begin = Clock::now();
    check(::kill(first, SIGKILL) == 0, "a helper that can be killed");
    const Lines answer = team.server.ask("await-helper");
    const double elapsedMs = millisecondsSince(begin);
    check(numberBehind("code", answer) == kKilledCode, "the exit code of a process that was killed");
    const auto second = static_cast<pid_t>(numberBehind("helper", answer));
    check(second != first && ::kill(second, 0) == 0, "another helper");
    say("It is killed with SIGKILL. %.1f ms later the next one runs, pid %d.", elapsedMs,
        static_cast<int>(second));
    check(numberBehind("code", team.server.ask("stop-helper")) == 0, "a helper that ends well");
    check(::kill(first, 0) != 0 && ::kill(second, 0) != 0, "no helper that is left, running or uncollected");
    say("The event ends the wait, the helper is let go and ends with 0. Neither is left.");
}

void showLoadAndProcesses(Team& team) {
    heading("The server's load and its processes, for a connector");
    const std::string suffix = std::string(kInstance) + "-" + std::to_string(team.server.pid());
    team.server.ask("publish-load " + suffix + " " + std::to_string(kLoad));
    check(onlyLine(team.web1.ask("read-load " + suffix)) == "load " + std::to_string(kLoad),
          "the load that was published");
    team.server.ask("hide-load");
    check(onlyLine(team.web1.ask("read-load " + suffix)) == "no server", "no load without a server");
    std::filesystem::remove("/tmp/.KZLoadValue" + suffix);  // which outlives all processes
    say("The server publishes that it is busy to %u %%, and connector web1 reads it from shared memory; then "
        "the",
        kLoad);
    say("server takes itself out, and web1 finds that, too.");

    Lines expected;
    for (ChildProcess* process : team.all()) {
        expected.push_back(std::to_string(process->pid()) + " appserver");
    }
    Lines found = team.web1.ask(std::string("list-processes ") + kInstance);
    std::ranges::sort(expected);
    std::ranges::sort(found);
    check(found == expected, "the four processes of the instance");
    say("Among all processes of the machine web1 knows the %zu of its instance, %s.", found.size(),
        kInstance);
}

void deploy(Team& team, const Installation& installation) {
    heading("A file dropped into the deploy directory");
    const std::filesystem::path directory = installation.home() / "deploy";
    const std::filesystem::path file = directory / "application.jar";
    const std::filesystem::path unfinished = installation.home() / "application.part";
    std::filesystem::create_directory(directory);
    team.server.ask("watch-deploy " + directory.string());
    say("The server watches %s, and waits at a completion port.", directory.c_str());

    const auto checkNotices = [&](const std::string& expected) {
        const Clock::time_point begin = Clock::now();
        const std::string line = onlyLine(team.server.ask("await-deploy"));
        check(line == expected, "\"" + expected + "\", not \"" + line + "\"");
        say("  %-32s after %.0f ms", line.c_str(), millisecondsSince(begin));
    };
    std::ofstream(unfinished) << "version 1";
    std::filesystem::rename(unfinished, file);
    checkNotices("added application.jar 9");
    std::ofstream(unfinished) << "version 1.1";
    std::filesystem::rename(unfinished, file);
    checkNotices("modified application.jar 11");
    std::filesystem::remove(file);
    checkNotices("removed application.jar 11");
    team.server.ask("stop-deploy");
    std::filesystem::remove(directory);
}

void killLockHolder(Team& team) {
    heading("A writer killed while it holds the lock");
    ChildProcess holder("second admin", {"admin"});
    holder.awaitAnswer();
    holder.ask("hold-lock");
    const pid_t holderPid = holder.pid();
    check(statusField(team.admin, "lock owner:") == static_cast<unsigned long>(holderPid),
          "a lock held by the process that took it");
    team.web1.send(std::string("set ") + kListener + " " + kSetting + " " + std::to_string(kThirdTimeout));
    check(!team.web1.speaksWithin(kProofOfWaiting), "a writer that waits for the lock");
    say("A second administration process, pid %d, holds the lock.", static_cast<int>(holderPid));
    say("Connector web1 wants to write, and has waited for %d ms.",
        static_cast<int>(kProofOfWaiting.count()));

    const Clock::time_point begin = Clock::now();
    holder.kill();
    team.web1.awaitAnswer();
    const double elapsedMs = millisecondsSince(begin);
    check(elapsedMs < kAtOnceMs,
          "a lock that comes free at once, not after " + std::to_string(elapsedMs) + " ms");
    say("The holder is killed with SIGKILL. %.1f ms later connector web1 has written.", elapsedMs);
    say("The others go on:");
    for (ChildProcess* process : team.all()) checkReadsTimeout(*process, kThirdTimeout);
    setTimeout(team.server, kFirstTimeout);
    checkReadsTimeout(team.web2, kFirstTimeout);
}

/// As the server's lines begin.
std::string today() {
    const std::time_t now = std::time(nullptr);
    std::tm fields{};
    localtime_r(&now, &fields);
    return std::to_string(fields.tm_mon + 1) + "/" + std::to_string(fields.tm_mday) + "/" +
           std::to_string(fields.tm_year + 1900) + " ";
}

void readLog(Team& team, const Installation& installation, const std::string& dayOfStart) {
    heading("The log since a date, in whatever order that is typed");
    for (const char* typed : {"12/31/2024", "31/12/2024", "2024-12-31"}) {
        Lines lines = team.server.ask(std::string("log-since ") + typed);
        check(lines.front() == "since 12/31/2024", std::string("a date, ") + typed);
        lines.erase(lines.begin());
        check(lines == linesOf(installation.logFile()) && lines.size() >= 7, "all lines of the log");
        const std::string dayOfEnd = today();  // a demonstration may run over midnight
        check(std::ranges::all_of(lines,
                                  [&](const std::string& line) {
                                      return line.starts_with(dayOfStart) || line.starts_with(dayOfEnd);
                                  }),
              "lines that begin with their date");
        say("  log-since %-12s %zu lines, as the file %s has them; the last one:", typed, lines.size(),
            installation.logFile().filename().c_str());
        say("    %s", lines.back().c_str());
    }
    check(team.server.ask("log-since 31/12/9999").size() == 1, "no line of the future");
}

void changeLegacyFile(Team& team, const Installation& installation) {
    heading("A setting in the INI file of an older edition");
    const std::string before =
        "; kept by hand\r\n[Listener]\r\nPort = 8080\r\n;seconds\r\nKeepAlive = 30\r\n";
    std::ofstream(installation.legacyFile(), std::ios::binary) << before;
    const std::string name = installation.legacyFile().filename().string();
    const auto readBy = [&](ChildProcess& process, const char* expected) {
        const std::string line = onlyLine(process.ask("ini-get " + name + " listener keepalive"));
        check(line == "pid " + std::to_string(process.pid()) + " reads " + expected,
              process.title() + " to read " + expected + ", not \"" + line + "\"");
        say("%-14s %s", process.title().c_str(), line.c_str());
    };
    readBy(team.server, "30");
    readBy(team.web1, "30");
    team.web1.ask("ini-set " + name + " LISTENER keepalive 45");
    say("Connector web1 changes it:");
    readBy(team.server, "45");
    std::string expected = before;
    expected.replace(expected.find("30"), 2, "45");
    check(textOf(installation.legacyFile()) == expected, "a file with nothing else changed");
    say("In %s nothing else has changed, comments and blanks included.", name.c_str());
}

void endAll(Team& team, const Installation& installation) {
    heading("The end");
    const Lines lines = registryLines(installation.registryFile());
    const std::size_t keys = countKeyLines(lines);
    checkCount(inFreshProcess("count"), keys, lines.size() - keys);
    const Lines original = registryLines(installation.templateFile());
    const std::size_t newKeys = 2;
    const std::size_t newValues = 4 * kValuesEach + kCounters;
    check(lines.size() == original.size() + newKeys + newValues, "a file that has grown by what was set");
    say("The file has %zu keys and %zu values: the template's, and the %zu and %zu that were set.", keys,
        lines.size() - keys, newKeys, newValues);
    team.admin.ask("check " + installation.registryFile().string());
    say("kzreg check finds no bad line in it.");
    for (ChildProcess* process : team.all()) check(process->finish() == 0, process->title() + " ends well");
    check(installation.fileNames() == Lines({"tw.registry", "tw.registry.bak", "tw.registry.template"}),
          "a directory without temporary files");
    say("All processes have ended with status 0 and left no temporary file.");
}

}  // namespace

void tellStory(const Installation& installation) {
    const std::string dayOfStart = today();
    Team team = startFromTemplate(installation);
    readByAll(team);
    changeSetting(team, installation);
    const double writeMs = writeAllAtOnce(team, installation);
    writeLazily(team, writeMs);
    killLockHolder(team);
    replaceHelper(team);
    deploy(team, installation);
    showLoadAndProcesses(team);
    changeLegacyFile(team, installation);
    readLog(team, installation, dayOfStart);
    endAll(team, installation);
}

}  // namespace appserver
