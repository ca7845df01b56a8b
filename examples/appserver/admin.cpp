// admin.cpp: an administrator at work. Each command runs kzreg, so this process has no registry of its own; except that
// nothing but a process that uses the library can hold its lock.

#include "kzreg.h"
#include "roles.h"
#include "setting_commands.h"

#include <traiklofox/registry.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace appserver {
namespace {

constexpr char kProduct[] = "software/example/appserver/";

struct Setting {
    std::string name;
    std::string data;
};

/// A value as kzreg prints it, in fields with four blanks in front of each; a number then in decimal.
Setting settingIn(const std::string& line) {
    constexpr std::size_t kGap = 4;
    const std::size_t type = line.find("    ", kGap) + kGap;
    const std::size_t data = line.find("    ", type) + kGap;
    if (!line.starts_with("    ") || type < kGap || data < type)
        throw std::runtime_error("kzreg prints \"" + line + "\"");
    Setting setting{line.substr(kGap, type - 2 * kGap), line.substr(data)};
    if (line.substr(type, data - kGap - type) == "REG_DWORD")
        setting.data = std::to_string(std::stoul(setting.data, nullptr, /*base=*/16));
    return setting;
}

void get(const Words& arguments) {
    const Words lines = runKzreg({"query", kProduct + arguments[0], "-v", arguments[1]});
    std::printf("pid %d reads %s\n", static_cast<int>(getpid()), settingIn(lines.at(1)).data.c_str());
}

/// Tells the command, for others to see how it is done.
void set(const Words& arguments) {
    const Words command = {"add", kProduct + arguments[0],
                           "-v",  arguments[1],
                           "-t",  isNumber(arguments[2]) ? "REG_DWORD" : "REG_SZ",
                           "-d",  arguments[2]};
    runKzreg(command);
    std::string typed = "kzreg";
    for (const std::string& word : command) typed += " " + word;
    std::puts(typed.c_str());
}

void list(const Words& arguments) {
    for (const std::string& line : runKzreg({"query", kProduct + arguments[0]})) {
        if (!line.starts_with("    ")) continue;
        const Setting setting = settingIn(line);
        std::printf("%s = %s\n", setting.name.c_str(), setting.data.c_str());
    }
}

void countAll(const Words&) {
    std::size_t keys = 0;
    std::size_t values = 0;
    for (const std::string& line : runKzreg({"query", "HKLM", "-s"})) {
        keys += line.starts_with("hkey_local_machine");
        values += line.starts_with("    ");
    }
    std::printf("%zu keys %zu values\n", keys, values);
}

void fill(const Words& arguments) {
    fillNumbers(arguments, [&](const std::string& name, DWORD number) {
        runKzreg(
            {"add", kProduct + arguments[0], "-v", name, "-t", "REG_DWORD", "-d", std::to_string(number)});
    });
}

void showStatus(const Words&) {
    for (const std::string& line : runKzreg({"status"})) std::puts(line.c_str());
}

void checkFile(const Words& arguments) {
    runKzreg({"check", arguments[0]});
}

/// Until it is released no other process can change the registry, or look anything up once it has changed.
void holdLock(const Words&) {
    RegLockCache(REG_LOCK_EXCLUSIVE);
}

void releaseLock(const Words&) {
    if (RegUnlockCache(REG_LOCK_EXCLUSIVE) == 0) throw std::runtime_error("the lock is not held here");
}

}  // namespace

int runAdmin(const Words& words) {
    Conversation conversation;
    conversation.add("get KEY NAME", get);
    conversation.add("set KEY NAME VALUE", set);
    conversation.add("list KEY", list);
    conversation.add("count", countAll);
    conversation.add("fill KEY PREFIX COUNT", fill);
    conversation.add("status", showStatus);
    conversation.add("check FILE", checkFile);
    conversation.add("hold-lock", holdLock);
    conversation.add("release-lock", releaseLock);
    if (!words.empty()) return conversation.answer(words) ? 0 : 1;
    conversation.hold();
    return 0;
}

}  // namespace appserver
