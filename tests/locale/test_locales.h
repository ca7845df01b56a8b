#pragma once

// The locales that were built for the tests, in place of the machine's.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

namespace traiklofox::test {

/// Why the test cannot run here; empty when the locale was built. From then on the library finds it.
inline std::string missingTestLocale(const std::string& name) {
    const std::string directory = TRAIKLOFOX_TEST_LOCALES;
    setenv("LOCPATH", directory.c_str(), /*replace=*/1);
    struct stat status {};
    if (stat((directory + "/" + name).c_str(), &status) == 0) return {};
    return "no locale " + name + " (install Debian's locales); see " + directory + "/missing";
}

}  // namespace traiklofox::test

/// Skips the test, with the reason, when the locale could not be built.
#define NEEDS_TEST_LOCALE(name) \
    if (const std::string why = ::traiklofox::test::missingTestLocale(name); !why.empty()) GTEST_SKIP() << why
