#include "soak/registry_state.h"

#include <algorithm>
#include <exception>

#include "soak/board.h"

namespace traiklofox::soak {

using test::FileKeys;

namespace {

constexpr std::uint32_t kValues = 8;
constexpr std::uint32_t kSubkeys = 4;
constexpr std::uint32_t kKeyInterval = 5;
constexpr std::uint32_t kMemory = 40;  // steps, after which every name has been changed again
static_assert(kMemory >= 2 * kSubkeys * kKeyInterval);
constexpr int kBallastKeys = 60;
constexpr int kBallastValues = 4;

using State = std::map<std::string, std::string>;

State stateAfter(std::uint32_t last) {
    State state;
    for (std::uint32_t number = last > kMemory ? last - kMemory : 1; number <= last; ++number) {
        const Step step(number);
        state[step.value] = step.number;
        if (step.madeKey) state[*step.madeKey] = step.number;
        if (step.deletedKey) state.erase(*step.deletedKey);
    }
    return state;
}

/// A subkey counts as its value "step".
State stateIn(const FileKeys& keys, const std::string& path) {
    State state;
    const auto own = keys.find(path);
    if (own == keys.end()) return state;
    for (const auto& [name, value] : own->second) state[name] = value.data;
    for (auto below = std::next(own); below != keys.end() && below->first.starts_with(path + "\\"); ++below) {
        const auto value = below->second.find("step");
        state[below->first.substr(path.size() + 1)] =
            value != below->second.end() ? value->second.data : "(no value)";
    }
    return state;
}

std::string textIn(const State& state, const std::string& name) {
    const auto entry = state.find(name);
    return entry != state.end() ? entry->second : "(none)";
}

std::string pathOf(size_t slot) {
    return std::string("hkey_local_machine\\") + kSoakKey + "\\" + writerKey(slot);
}

}  // namespace

Step::Step(std::uint32_t step) : number(std::to_string(step)), value("v" + std::to_string(step % kValues)) {
    if (step % kKeyInterval != 0) return;
    madeKey = "k" + std::to_string(step % kSubkeys);
    deletedKey = "k" + std::to_string((step + 2) % kSubkeys);
}

std::string writerKey(size_t slot) {
    return "w" + std::to_string(slot);
}

std::string homeDirectory() {
    return runDirectory() + "/home";
}
std::string registryFile() {
    return homeDirectory() + "/registry/tw.registry";
}

std::optional<FileKeys> readRegistryFile() {
    try {
        FileKeys keys = test::parseRegistry(test::readText(registryFile()));
        check(FileIsWhole, true, "%s", "");
        return keys;
    } catch (const std::exception& failure) {
        check(FileIsWhole, false, "%s", failure.what());
        return std::nullopt;
    }
}

void checkWriter(const FileKeys& keys, size_t slot, std::uint32_t acknowledged, std::uint32_t asked) {
    const State found = stateIn(keys, pathOf(slot));
    State names = found;
    std::map<std::string, std::vector<std::string>> allowed;
    std::vector<State> states;
    for (std::uint32_t step = acknowledged; step <= asked; ++step) {
        states.push_back(stateAfter(step));
        names.insert(states.back().begin(), states.back().end());
    }
    for (const auto& [name, any] : names) {
        const std::string text = textIn(found, name);
        const bool held = std::ranges::any_of(
            states, [&, &name = name](const State& state) { return textIn(state, name) == text; });
        check(WritesStay, held, "writer %zu has %s=%s in the file, acknowledged %u, asked %u", slot,
              name.c_str(), text.c_str(), acknowledged, asked);
    }
}

void checkCounter(const FileKeys& keys, size_t slot, std::uint32_t acknowledged, std::uint32_t asked) {
    const std::string text = textIn(stateIn(keys, pathOf(slot)), "n");
    const auto value = text == "(none)" ? 0 : std::stoul(text);
    check(WritesStay, value >= acknowledged && value <= asked,
          "lazy writer %zu has %s in the file, acknowledged %u, asked %u", slot, text.c_str(), acknowledged,
          asked);
}

void checkBallast(const FileKeys& keys) {
    static const auto& expected =
        *new FileKeys(test::parseRegistry(test::readText(registryFile() + ".template")));
    for (const auto& [path, values] : expected) {
        const auto found = keys.find(path);
        check(WritesStay, found != keys.end() && found->second == values, "%s is not as it was installed",
              path.c_str());
    }
}

void writeTemplate() {
    int number = 1'000'000;
    const auto key = [&](const std::string& path) { return test::keyLine(path, std::to_string(++number)); };
    std::string text = key("") + key("software") + key("software\\ballast");
    for (int i = 0; i < kBallastKeys; ++i) {
        text += key("software\\ballast\\" + std::to_string(100 + i));
        for (int j = 0; j < kBallastValues; ++j)
            text +=
                test::valueLine("value" + std::to_string(j), std::string(static_cast<size_t>(10 * j), 'x'));
    }
    test::writeText(registryFile() + ".template", text + key(kSoakKey));
}

}  // namespace traiklofox::soak
