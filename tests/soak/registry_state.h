#pragma once

// What a registry writer changes at each step, and what the file must then hold of it.

#include <map>
#include <optional>
#include <string>

#include "registry/registry_fixture.h"

namespace traiklofox::soak {

/// The key that the template holds; each writer has one below it.
constexpr const char* kSoakKey = "software\\soak";

/// One step's changes, which are acknowledged as a whole: a value, and at some steps a key that is made and one that is
/// deleted, by turns.
struct Step {
    explicit Step(std::uint32_t number);
    std::string number;
    std::string value;
    std::optional<std::string> madeKey;
    std::optional<std::string> deletedKey;
};

/// A writer's own key, below kSoakKey.
std::string writerKey(size_t slot);

/// The registry file and its template, in the run's installation directory.
std::string homeDirectory();
std::string registryFile();

/// What the registry file says; nothing, and the invariant broken, when it is not whole.
std::optional<test::FileKeys> readRegistryFile();

/// Checks that all of a writer's names are as after one of the steps from `acknowledged` to `asked`.
void checkWriter(const test::FileKeys& keys, size_t slot, std::uint32_t acknowledged, std::uint32_t asked);
/// Checks that a value that counts up is in that range.
void checkCounter(const test::FileKeys& keys, size_t slot, std::uint32_t acknowledged, std::uint32_t asked);
/// Checks that what nobody changes is as in the template.
void checkBallast(const test::FileKeys& keys);
/// Makes the template.
void writeTemplate();

}  // namespace traiklofox::soak
