// The path of a search: taken apart, and what it finds in a small directory beside what a listing of that finds.
//
// The input is a path, below a directory that holds a/bc/{d,e.x,.h} and f.x.

#include <traiklofox/file_search.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "files/glob_pattern.h"
#include "files/search_path.h"
#include "require.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace traiklofox::fuzz;
using traiklofox::files::GlobPattern;
using traiklofox::files::LeadingPeriod;
using traiklofox::files::SearchPath;
using Names = std::vector<std::string>;

Names foundBy(const std::string& path) {
    Names names;
    _WIN32_FIND_DATA data;
    Handle* const search = FindFirstFile(path.c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) return names;
    do names.emplace_back(data.cFileName);
    while (FindNextFile(search, &data));
    require(errno == ENOENT, "an exhausted search says so");
    require(FindClose(search) == 2, "closed");
    return names;
}

Names listed(const SearchPath& search) {
    const bool isEverything = search.pattern == "*";
    const GlobPattern pattern(search.pattern,
                              isEverything ? LeadingPeriod::Ordinary : LeadingPeriod::Explicit);
    Names names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(search.directory, error))
        names.push_back(entry.path().filename());
    if (error) return {};
    names.insert(names.end(), {".", ".."});
    std::erase_if(names, [&](const std::string& name) { return !pattern.matches(name); });
    std::ranges::sort(names);
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    using namespace traiklofox::test;
    static const TempDir& directory = *new TempDir;
    for (const char* name : {"a/bc/d", "a/bc/e.x", "a/bc/.h", "f.x"}) writeText(directory / name, name);
    fs::current_path(directory.path());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    const std::string_view text = textOf(bytes, size);
    const std::string path(text.substr(0, text.find('\0')));
    if (path.starts_with('/') || path.find("..") != path.npos)
        return 0;  // nothing outside, which others change

    const SearchPath search = traiklofox::files::searchPathOf(path);
    const size_t slash = path.rfind('/');
    if (search.directory == path) {
        require(search.pattern == "*", "of a whole directory, everything", path);
        require(slash == path.npos || slash == 1 || slash + 1 == path.size() || fs::is_directory(path),
                "a reason not to take it apart", path);
    } else {
        require(search.directory + search.pattern == path, "taken apart without a loss", path);
        require(
            search.directory.ends_with('/') && search.pattern.find('/') == search.pattern.npos && slash > 1,
            "at the last /", path);
    }
    if (search.pattern.size() < MAX_PATH)
        require(foundBy(path) == listed(search), "finds what is there", path);
    return 0;
}
