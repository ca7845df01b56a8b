// glob_bench.cpp: comparing names with a file name pattern.

#include <fnmatch.h>

#include <string>
#include <vector>

#include "files/glob_pattern.h"
#include "support/floor.h"

namespace traiklofox::bench {
namespace {

struct Case {
    std::string pattern;
    std::vector<std::string> alternatives;  // what its braces stand for: fnmatch has none
};

const Case& caseOf(const benchmark::State& state) {
    static const std::vector<Case> cases{
        {"*.jsp", {"*.jsp"}},
        {"*page*[0-9].jsp", {"*page*[0-9].jsp"}},
        {"a*a*a*b", {"a*a*a*b"}},
        {"*.{jsp,html}", {"*.jsp", "*.html"}},
    };
    return cases[static_cast<size_t>(state.range(0))];
}

const std::vector<std::string>& names() {
    static const std::vector<std::string> all = [] {
        std::vector<std::string> made;
        for (int i = 0; i < 64; ++i) {
            made.push_back("page-" + std::to_string(i * 37) + ".jsp");
            made.push_back("picture-of-something" + std::to_string(i) + ".html");
            made.push_back("aaaaaaaaaaaaaaaaaaaa" + std::to_string(i));
            made.push_back(".hidden" + std::to_string(i));
        }
        return made;
    }();
    return all;
}

void compare(benchmark::State& state) {
    const files::GlobPattern pattern(caseOf(state).pattern, files::LeadingPeriod::Explicit);
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pattern.matches(names()[next]));
        next = (next + 1) % names().size();
    }
}

void callFnmatch(benchmark::State& state) {
    const Case& it = caseOf(state);
    size_t next = 0;
    for (auto _ : state) {
        bool matches = false;
        for (size_t i = 0; i < it.alternatives.size() && !matches; ++i)
            matches =
                ::fnmatch(it.alternatives[i].c_str(), names()[next].c_str(), FNM_PERIOD | FNM_NOESCAPE) == 0;
        benchmark::DoNotOptimize(matches);
        next = (next + 1) % names().size();
    }
}

const Comparison kCompare{{
    .operation = "glob: compare a name (*.jsp, *page*[0-9].jsp, a*a*a*b, *.{jsp,html})",
    .body = compare,
    .floor = "fnmatch, of each alternative",
    .floorBody = callFnmatch,
    .aim = 1,
    .configure = [](benchmark::internal::Benchmark& it) { it.DenseRange(0, 3); },
}};

}  // namespace
}  // namespace traiklofox::bench
