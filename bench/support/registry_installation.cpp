#include "support/registry_installation.h"

#include <cstdio>
#include <cstdlib>

#include "support/private_machine.h"

namespace traiklofox::bench {

namespace {

void appendColumn(std::string& text, const std::string& field) {
    constexpr size_t kColumn = 22;
    text += field;
    if (field.size() < kColumn) text.append(kColumn - field.size(), ' ');
    text += '\t';
}

}  // namespace

std::string RegistryShape::text() const {
    const std::string top = "hkey_local_machine\\" + topKey();
    std::string text = top + ":1\n";
    for (int key = 0; key < keys; ++key) {
        text += top + "\\" + keyName(key) + ":" + std::to_string(key + 2) + "\n";
        for (int value = 0; value < valuesPerKey; ++value) {
            appendColumn(text, "value" + std::to_string(value) + ":");
            appendColumn(text, "some text of key " + std::to_string(key) + ";");
            text += "REG_SZ\n";
        }
    }
    return text;
}

RegistryInstallation& RegistryInstallation::get() {
    static auto& made = *new RegistryInstallation;
    return made;
}

RegistryInstallation::RegistryInstallation() {
    if (const auto& machine = test::PrivateMachine::enter(); !machine.entered())
        std::fprintf(stderr, "registry benchmarks share this machine's semaphore: %s\n",
                     machine.whyNot().c_str());
    test::writeText(path("tw.registry.template"), "hkey_local_machine\\software:1\n");
    setenv("TWHOME", home_.path().c_str(), 1);
    InitRegistry(0, true);
}

void RegistryInstallation::hold(const std::string& text) {
    test::writeText(path("tw.registry"), text);
    if (!ReadRegistry(/*purge=*/1)) std::abort();
}

HKEY openOrAbort(const std::string& key) {
    HKEY handle = 0;
    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_ALL_ACCESS, &handle) != ERROR_SUCCESS)
        std::abort();
    return handle;
}

}  // namespace traiklofox::bench
