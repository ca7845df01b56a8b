// Runs a fuzz target over the files, and the files in the directories, that the command line names: its corpus as a
// test, or one finding in a debugger. `--mutate SECONDS` in front goes on with inputs made of those, the same ones in
// every run; one that ends the program is left beside it, as PROGRAM.finding.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;
using Inputs = std::vector<std::pair<std::string, std::string>>;  // by the files' names

constexpr size_t kLongestInput = 16384;
constexpr int kCannotRun = 77;

/// The input under way, where it outlives the process that it ends.
struct UnderWay {
    size_t size;
    char text[kLongestInput];
};

std::vector<std::string> filesOf(const fs::path& path) {
    if (!fs::is_directory(path)) return {path};
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(path)) files.push_back(entry.path());
    std::ranges::sort(files);  // for the mutations to be the same everywhere
    return files;
}

void run(std::string_view input) {
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

class Mutator {
  public:
    explicit Mutator(const Inputs& seeds) : seeds_(seeds) {}

    std::string next() {
        std::string text = anySeed();
        for (size_t changes = 1 + below(6); changes > 0; --changes) change(text);
        text.resize(std::min(text.size(), kLongestInput));
        return text;
    }

  private:
    size_t below(size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    const std::string& anySeed() { return seeds_[below(seeds_.size())].second; }
    std::string_view pieceOf(std::string_view text) {
        const size_t start = below(text.size());
        return text.substr(start, 1 + below(below(2) == 0 ? 8 : text.size() - start));
    }

    void change(std::string& text) {
        using namespace std::string_view_literals;
        constexpr auto kTelling = "\0\n\r\t ;:,.-+%'\"\\/#[](){}*?@0189Az\x7F\x80\xFF"sv;
        const size_t at = below(text.size() + 1);
        switch (below(6)) {
            case 0: text.insert(at, 1, kTelling[below(kTelling.size())]); break;
            case 1: text.insert(at, pieceOf(anySeed())); break;
            case 2: text.insert(at, std::string(pieceOf(text))); break;
            case 3: text.erase(at, pieceOf(text).size()); break;
            case 4: text = text.substr(0, at) + std::string(pieceOf(anySeed())); break;
            default:
                if (at < text.size()) text[at] = static_cast<char>(random_());
        }
    }

    const Inputs& seeds_;
    std::minstd_rand random_;
};

void mutate(const Inputs& seeds, std::chrono::duration<double> time, UnderWay& underWay) {
    Mutator mutator(seeds);
    size_t count = 0;
    for (const auto end = std::chrono::steady_clock::now() + time; std::chrono::steady_clock::now() < end;
         ++count) {
        const std::string input = mutator.next();
        std::memcpy(underWay.text, input.data(), input.size());
        underWay.size = input.size();
        run(input);
    }
    std::fprintf(stderr, "%zu inputs made of these\n", count);
}

void runAll(const Inputs& inputs) {
    for (const auto& [name, text] : inputs) {
        std::fprintf(stderr, "%s\n", name.c_str());  // the last one named is the one that ended the program
        run(text);
    }
}

/// Runs the target in a child, which may come to a bad end, and returns the exit status that it is to be told by.
int mutateInChild(const Inputs& seeds, double seconds, int argc, char** argv) {
    const fs::path finding = fs::absolute(std::string(argv[0]) + ".finding");
    void* const memory =
        ::mmap(nullptr, sizeof(UnderWay), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 1;
    auto& underWay = *static_cast<UnderWay*>(memory);
    const pid_t child = ::fork();
    if (child == 0) {  // before anything is set up, which need not be the same in a fork
        if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
        runAll(seeds);
        mutate(seeds, std::chrono::duration<double>(seconds), underWay);
        std::exit(0);  // a leak sanitizer looks then
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return 1;
    if (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kCannotRun))
        return WEXITSTATUS(status);
    traiklofox::test::writeText(finding, {underWay.text, underWay.size});
    std::fprintf(stderr, "%s: the input made of these that ended the program\n", finding.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) try {
    const bool mutates = argc > 2 && std::strcmp(argv[1], "--mutate") == 0;
    // Before the target sets itself up, which may hide them.
    Inputs inputs;
    for (int i = mutates ? 3 : 1; i < argc; ++i)
        for (const std::string& file : filesOf(argv[i]))
            inputs.emplace_back(file, traiklofox::test::readText(file));
    if (inputs.empty()) {
        std::fputs("no input: name files or directories\n", stderr);
        return 2;
    }
    if (mutates) return mutateInChild(inputs, std::atof(argv[2]), argc, argv);
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    runAll(inputs);
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
