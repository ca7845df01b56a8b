#include "registry/registry_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>

#include "support/private_machine.h"

namespace traiklofox::test {

namespace {

constexpr const char* kTemplateText =
    "hkey_local_machine:1000001\n"
    "hkey_local_machine\\software:1000002\n"
    "hkey_local_machine\\software\\example:1000003\n"
    "Name:                 \tprimary;              \tREG_SZ\n";

constexpr const char* kNothing = "(none)";

std::runtime_error malformed(std::string_view line) {
    return std::runtime_error("not laid out as a line of the registry: " + std::string(line));
}

/// "<text><end>" and blanks up to 22 characters, then a tab; takes it off `rest`.
std::string takeColumn(std::string_view& rest, std::string_view line, size_t length) {
    const std::string column(rest.substr(0, length));
    const size_t padded = std::max<size_t>(length + 1, 22);
    if (rest.size() < padded + 1 || rest[padded] != '\t') throw malformed(line);
    if (rest.substr(length + 1, padded - length - 1).find_first_not_of(' ') != rest.npos)
        throw malformed(line);
    rest.remove_prefix(padded + 1);
    return column;
}

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> words(1);
    for (const char c : line) {
        if (c == '\t')
            words.emplace_back();
        else
            words.back() += c;
    }
    return words;
}

/// Sets `count` values of `path`, each of them written before the next; how many were not.
int setMany(const std::string& path, const std::string& prefix, int count) {
    int failures = 0;
    const OpenKey key(path);
    for (int i = 0; i < count; ++i) {
        const std::string name = prefix + std::to_string(i);
        if (setText(key, name.c_str(), name) != 0 || RegFlushKey(key) != 0) ++failures;
    }
    return failures;
}

using Words = std::vector<std::string>;
using Command = std::function<std::string(const Words&)>;

const std::map<std::string, Command>& peerCommands() {
    using std::to_string;
    static const auto& commands = *new std::map<std::string, Command>{
        {"set",
         [](const Words& w) { return to_string(setText(OpenKey(w.at(1)), w.at(2).c_str(), w.at(3))); }},
        {"setMany", [](const Words& w) { return to_string(setMany(w.at(1), w.at(2), std::stoi(w.at(3)))); }},
        {"get", [](const Words& w) { return textAt(w.at(1), w.at(2).c_str()).value_or(kNothing); }},
        {"deleteValue",
         [](const Words& w) { return to_string(RegDeleteValue(OpenKey(w.at(1)), w.at(2).c_str())); }},
        {"create",
         [](const Words& w) { return to_string(OpenKey::createBelow(OpenKey(w.at(1)), w.at(2)).isOpen()); }},
        {"deleteKey",
         [](const Words& w) { return to_string(RegDeleteKey(OpenKey(w.at(1)), w.at(2).c_str())); }},
        {"exists", [](const Words& w) { return to_string(keyExists(w.at(1))); }},
        {"number", [](const Words& w) { return to_string(static_cast<HKEY>(OpenKey(w.at(1), KEY_READ))); }},
        {"lock", [](const Words&) { return to_string(RegLockCache(REG_LOCK_EXCLUSIVE)); }},
        {"unlock", [](const Words&) { return to_string(RegUnlockCache(REG_LOCK_EXCLUSIVE)); }},
        {"write", [](const Words&) { return to_string(WriteRegistry()); }},
    };
    return commands;
}

}  // namespace

TEST_ROLE(registryPeer) {
    while (const auto line = hearTest()) {
        const Words words = split(*line);
        tellTest(peerCommands().at(words.at(0))(words));
    }
    return 0;
}

OpenKey::OpenKey(const std::string& path, REGSAM access) {
    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &handle_) != ERROR_SUCCESS) handle_ = 0;
}

OpenKey::~OpenKey() {
    if (isOpen()) (void)close();
}

OpenKey OpenKey::createBelow(HKEY parent, const std::string& path) {
    OpenKey key;
    DWORD disposition = 0;
    EXPECT_EQ(RegCreateKeyEx(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key.handle_,
                             &disposition),
              ERROR_SUCCESS)
        << path;
    return key;
}

LONG OpenKey::close() {
    return RegCloseKey(std::exchange(handle_, 0));
}

bool keyExists(const std::string& path) {
    return OpenKey(path, KEY_READ).isOpen();
}

LONG setText(HKEY key, const char* name, std::string_view text) {
    const std::string terminated(text);
    return RegSetValueEx(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(terminated.c_str()),
                         static_cast<DWORD>(terminated.size() + 1));
}

LONG setNumber(HKEY key, const char* name, DWORD number) {
    return RegSetValueEx(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
}

std::optional<std::string> textOf(HKEY key, const char* name) {
    std::vector<char> buffer(5000);
    auto size = static_cast<DWORD>(buffer.size());
    DWORD type = REG_NONE;
    if (RegQueryValueEx(key, name, nullptr, &type, reinterpret_cast<LPBYTE>(buffer.data()), &size) != 0 ||
        type != REG_SZ)
        return std::nullopt;
    return buffer.data();
}

std::optional<std::string> textAt(const std::string& path, const char* name) {
    const OpenKey key(path, KEY_READ);
    return key.isOpen() ? textOf(key, name) : std::nullopt;
}

std::vector<std::string> subkeysOf(HKEY key) {
    std::vector<std::string> names;
    char name[5000];
    for (DWORD i = 0; RegEnumKey(key, i, name, sizeof name) == ERROR_SUCCESS; ++i) names.emplace_back(name);
    return names;
}

std::vector<std::string> valuesOf(HKEY key) {
    std::vector<std::string> names;
    char name[5000];
    for (DWORD i = 0;; ++i) {
        DWORD length = sizeof name - 1;
        if (RegEnumValue(key, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return names;
        names.emplace_back(name);
    }
}

FileKeys parseRegistry(const std::string& text) {
    if (text.empty() || text.back() != '\n')
        throw std::runtime_error("no line end at the end of the registry");
    FileKeys keys;
    std::map<std::string, FileValue>* values = nullptr;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const std::string_view line(text.data() + start, end - start);
        start = end + 1;
        const size_t colon = line.find(':');
        if (colon == line.npos) throw malformed(line);
        if (line.find("hkey_local_machine") == 0 || line.find("HKEY_LOCAL_MACHINE") == 0) {
            if (line.find_first_not_of("0123456789", colon + 1) != line.npos) throw malformed(line);
            if (keys.contains(std::string(line.substr(0, colon)))) throw malformed(line);
            values = &keys[std::string(line.substr(0, colon))];
            continue;
        }
        if (values == nullptr) throw malformed(line);
        std::string_view rest = line;
        const std::string name = takeColumn(rest, line, colon);
        const size_t semicolon = rest.rfind(';');
        if (semicolon == rest.npos) throw malformed(line);
        const std::string data = takeColumn(rest, line, semicolon);
        if (rest != "REG_SZ" && rest != "REG_DWORD" && rest != "REG_MULTI_SZ") throw malformed(line);
        if (!values->emplace(name, FileValue{std::string(rest), data}).second) throw malformed(line);
    }
    return keys;
}

void RegistryTest::SetUp() {
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() << machine.whyNot();
    if (lRegReady != 0)
        GTEST_SKIP() << "the registry has started in this process: run each test in its own, as ctest does";
    home_.emplace();
    writeText(templateFile(), kTemplateText);
    ::chmod(templateFile().c_str(), 0640);
    ::setenv("TWHOME", home().c_str(), /*overwrite=*/1);
}

std::optional<std::string> RegistryTest::inFile(const std::string& keyPath, const std::string& name) const {
    const FileKeys keys = fileKeys();
    const auto key = keys.find(keyPath);
    if (key == keys.end()) return std::nullopt;
    const auto value = key->second.find(name);
    return value != key->second.end() ? std::optional(value->second.data) : std::nullopt;
}

void RegistryTest::replaceFile(std::string_view text) const {
    writeText(home() + "/new", text);
    std::filesystem::rename(home() + "/new", file());
    RegBumpVersion();
}

std::vector<std::string> RegistryTest::otherFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory()))
        if (entry.path() != file() && entry.path() != templateFile())
            names.push_back(entry.path().filename());
    return names;
}

Peer::Peer() : process_("registryPeer") {}

std::string Peer::ask(const std::vector<std::string>& words) {
    tell(words);
    return answer();
}

void Peer::tell(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : "\t") + word;
    EXPECT_TRUE(process_.writeLine(line)) << line;
}

std::string Peer::answer() {
    return process_.readLine().value_or("(no answer)");
}

void Peer::set(const std::string& path, const std::string& name, const std::string& text) {
    EXPECT_EQ(ask({"set", path, name, text}), "0") << path << " " << name;
}

void Peer::finish() {
    process_.closeInput();
    EXPECT_EQ(process_.wait(), ExitStatus::exited(0));
}

}  // namespace traiklofox::test
