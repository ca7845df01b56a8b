// setting_commands.cpp: a command opens a key, does its work and closes the key again. Opening is what brings
// this process up to date with the others; closing, or `flush`, is what sends a change to them.

#include "setting_commands.h"

#include "registry_key.h"
#include "registry_walk.h"

#include <traiklofox/process.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace appserver {
namespace {

void get(const Words& arguments) {
    const RegistryKey key = RegistryKey::open(arguments[0]);
    std::printf("pid %u reads %s\n", static_cast<unsigned>(GetCurrentProcessId()),
                key.read(arguments[1]).c_str());
}

void set(const Words& arguments) {
    RegistryKey key = RegistryKey::openOrCreate(arguments[0]);
    if (isNumber(arguments[2])) {
        key.writeNumber(arguments[1], static_cast<DWORD>(std::stoul(arguments[2])));
    } else {
        key.writeText(arguments[1], arguments[2]);
    }
}

void list(const Words& arguments) {
    const RegistryKey key = RegistryKey::open(arguments[0]);
    for (const std::string& name : valueNames(key)) {
        std::printf("%s = %s\n", name.c_str(), key.read(name).c_str());
    }
}

void countAll(const Words&) {
    const RegistryCount count = countFrom(RegistryKey::openRoot());
    std::printf("%zu keys %zu values\n", count.keys, count.values);
}

long long nowUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void fill(const Words& arguments) {
    RegistryKey key = RegistryKey::openOrCreate(arguments[0]);
    fillNumbers(arguments, [&](const std::string& name, DWORD number) {
        key.writeNumber(name, number);
        key.flush();
    });
}

}  // namespace

bool isNumber(const std::string& text) {
    return !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
}

void fillNumbers(const Words& arguments, const std::function<void(const std::string&, DWORD)>& set) {
    const unsigned long last = std::stoul(arguments[2]);
    const long long begun = nowUs();
    for (unsigned long i = 1; i <= last; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "%.40s-%03lu", arguments[1].c_str(), i);
        set(name, static_cast<DWORD>(i));
    }
    std::printf("from %lld to %lld\n", begun, nowUs());
}

void addSettingCommands(Conversation& conversation) {
    conversation.add("get KEY NAME", get);
    conversation.add("set KEY NAME VALUE", set);
    conversation.add("list KEY", list);
    conversation.add("count", countAll);
    conversation.add("fill KEY PREFIX COUNT", fill);
}

}  // namespace appserver
