#include "registry/registry_fixture.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "registry/registry_line.h"
#include "support/private_machine.h"

namespace traiklofox::test {

namespace {

Names split(const std::string& text, char separator) {
    Names parts;
    size_t begin = 0;
    for (size_t end = 0; (end = text.find(separator, begin)) != text.npos; begin = end + 1)
        parts.push_back(text.substr(begin, end - begin));
    parts.push_back(text.substr(begin));
    return parts;
}

using Command = std::string (*)(const Names& words);
using std::to_string;

const std::map<std::string, Command>& peerCommands() {
    // clang-format off
    static const auto& commands = *new std::map<std::string, Command>{
        {"set", [](const Names& w) { return to_string(setText(OpenKey(w.at(1)), w.at(2), w.at(3))); }},
        {"get", [](const Names& w) { return textAt(w.at(1), w.at(2)).value_or("(none)"); }},
        {"delete", [](const Names& w) { return to_string(RegDeleteValue(OpenKey(w.at(1)), w.at(2).c_str())); }},
        {"create", [](const Names& w) { return to_string(OpenKey::createBelow(OpenKey(w.at(1)), w.at(2)) == 0); }},
        {"deleteKey", [](const Names& w) { return to_string(RegDeleteKey(OpenKey(w.at(1)), w.at(2).c_str())); }},
        {"exists", [](const Names& w) { return to_string(keyExists(w.at(1))); }},
        {"lock", [](const Names&) { return to_string(RegLockCache(REG_LOCK_EXCLUSIVE)); }},
        {"unlock", [](const Names&) { return to_string(RegUnlockCache(REG_LOCK_EXCLUSIVE)); }},
        {"lockFile", [](const Names& w) {
            return to_string(::lockf(::open(w.at(1).c_str(), O_RDWR | O_CREAT, 0600), F_LOCK, 0));
        }},
        {"setMany", [](const Names& w) {  // each written before the next; tells how many were not
            int failures = 0;
            const OpenKey key(w.at(1));
            for (int i = 0; i < std::stoi(w.at(3)); ++i)
                failures += setText(key, w.at(2) + to_string(i), "x") != 0 || RegFlushKey(key) != 0;
            return to_string(failures);
        }},
    };
    // clang-format on
    return commands;
}

}  // namespace

TEST_ROLE(registryPeer) {
    while (const auto line = hearTest()) {
        const Names words = split(*line, '\t');
        tellTest(peerCommands().at(words.at(0))(words));
    }
    return 0;
}

OpenKey::OpenKey(const std::string& path, REGSAM access) {
    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &handle_) != ERROR_SUCCESS) handle_ = 0;
}

OpenKey::~OpenKey() {
    if (handle_ != 0) (void)close();
}

OpenKey OpenKey::createBelow(HKEY parent, const std::string& path) {
    OpenKey made;
    DWORD disposition = 0;
    const LONG result = RegCreateKeyEx(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                       &made.handle_, &disposition);
    EXPECT_EQ(result, ERROR_SUCCESS) << path;
    return made;
}

bool keyExists(const std::string& path) {
    return OpenKey(path, KEY_READ) != 0;
}

LONG setText(HKEY key, const std::string& name, std::string_view text) {
    const std::string terminated(text);
    return RegSetValueEx(key, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(terminated.c_str()),
                         static_cast<DWORD>(terminated.size() + 1));
}

LONG setNumber(HKEY key, const char* name, DWORD number) {
    return RegSetValueEx(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
}

std::optional<std::string> textOf(HKEY key, const std::string& name) {
    char buffer[5000];
    DWORD size = sizeof buffer;
    DWORD type = REG_NONE;
    const LONG result =
        RegQueryValueEx(key, name.c_str(), nullptr, &type, reinterpret_cast<LPBYTE>(buffer), &size);
    return result == 0 && type == REG_SZ ? std::optional<std::string>(buffer) : std::nullopt;
}

std::optional<std::string> textAt(const std::string& path, const std::string& name) {
    return textOf(OpenKey(path, KEY_READ), name);
}

Names subkeysOf(HKEY key) {
    Names names;
    char name[5000];
    for (DWORD i = 0; RegEnumKey(key, i, name, sizeof name) == ERROR_SUCCESS; ++i) names.emplace_back(name);
    return names;
}

Names valuesOf(HKEY key) {
    Names names;
    char name[5000];
    DWORD length = sizeof name - 1;
    while (RegEnumValue(key, static_cast<DWORD>(names.size()), name, &length, nullptr, nullptr, nullptr,
                        nullptr) == 0) {
        names.emplace_back(name);
        length = sizeof name - 1;
    }
    return names;
}

void expectResults(const std::vector<Result>& results) {
    for (const Result& result : results) EXPECT_EQ(result.actual, result.expected) << result.call;
}

FileKeys parseRegistry(const std::string& text) {
    Names lines = split(text, '\n');
    if (!lines.back().empty()) throw std::runtime_error("no line end at the end of the registry");
    lines.pop_back();
    FileKeys keys;
    FileKeys::mapped_type* values = nullptr;
    using Kind = registry::RegistryLine::Kind;
    for (const std::string& line : lines) {
        const auto parsed = registry::parseLine(line, /*wantsDefects=*/true);
        bool isNew = false;
        if (parsed.kind == Kind::Key && parsed.defect == nullptr) {
            const auto added = keys.try_emplace(std::string(parsed.keyName));
            isNew = added.second;
            values = &added.first->second;
        } else if (parsed.kind == Kind::Value && values != nullptr) {
            const auto& [type, name, data] = parsed.value;
            const FileValue value{std::string(registry::typeWord(type)), std::string(data)};
            isNew = values->try_emplace(std::string(name), value).second;
        }
        if (!isNew) throw std::runtime_error("not as the library writes it: " + line);
    }
    return keys;
}

int semaphore() {
    return ::semget(::ftok("/usr/lib/tarnwell/twml_data.dat", 1), 1, 0);
}
int semaphoreValue() {
    return ::semctl(semaphore(), 0, GETVAL);
}

std::string keyLine(const std::string& path, const std::string& number) {
    return "hkey_local_machine" + (path.empty() ? "" : "\\" + path) + ":" + number + "\n";
}

std::string valueLine(std::string name, std::string text) {
    (name += ':').resize(std::max<size_t>(name.size(), 22), ' ');
    (text += ';').resize(std::max<size_t>(text.size(), 22), ' ');
    return name + '\t' + text + "\tREG_SZ\n";
}

void RegistryTest::SetUp() {
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) GTEST_SKIP() << machine.whyNot();
    if (lRegReady != 0)
        GTEST_SKIP() << "the registry has started: run each test in its own process, as ctest does";
    home_.emplace();
    writeText(templateFile(), keyLine("", "1000001") + keyLine("software", "1000002") +
                                  keyLine(kExample, "1000003") + valueLine("Name", "primary"));
    ::chmod(templateFile().c_str(), 0640);
    ::setenv("TWHOME", home().c_str(), /*overwrite=*/1);
}

std::optional<std::string> RegistryTest::inFile(const std::string& name) const {
    const FileKeys keys = fileKeys();
    const auto values = keys.find(kExamplePath);
    if (values == keys.end() || !values->second.contains(name)) return std::nullopt;
    return values->second.at(name).data;
}

void RegistryTest::replaceFile(std::string_view text) const {
    writeText(home() + "/new", text);
    std::filesystem::rename(home() + "/new", file());
    RegBumpVersion();
}

Names RegistryTest::otherFiles() const {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(directory()))
        if (entry.path() != file() && entry.path() != templateFile())
            names.push_back(entry.path().filename());
    return names;
}

void Peer::tell(const Names& words) {
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : "\t") + word;
    EXPECT_TRUE(process.writeLine(line)) << line;
}

void Peer::set(const std::string& name, const std::string& text) {
    EXPECT_EQ(ask({"set", kExample, name, text}), "0") << name;
}

}  // namespace traiklofox::test
