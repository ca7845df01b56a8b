// Runs a fuzz target over the files, and the files in the directories, that the command line names: its corpus as a
// test, or one finding in a debugger.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

std::vector<std::string> filesOf(const fs::path& path) {
    if (!fs::is_directory(path)) return {path};
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(path)) files.push_back(entry.path());
    return files;
}

}  // namespace

int main(int argc, char** argv) try {
    // Before the target sets itself up, which may hide them.
    std::vector<std::pair<std::string, std::string>> inputs;
    for (int i = 1; i < argc; ++i)
        for (const std::string& file : filesOf(argv[i]))
            inputs.emplace_back(file, traiklofox::test::readText(file));
    if (inputs.empty()) {
        std::fputs("no input: name files or directories\n", stderr);
        return 2;
    }
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    for (const auto& [name, text] : inputs) {
        std::fprintf(stderr, "%s\n", name.c_str());  // the last one named is the one that ended the program
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    }
    return 0;
} catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
