// import.cpp: puts what a file in the registry's format says into the registry, by one write.

#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "file_check.h"
#include "key.h"
#include "progress.h"
#include "use_registry.h"

namespace kzreg {
namespace {

constexpr std::string_view kRoot = "hkey_local_machine";
constexpr unsigned long long kMostDefectsShown = 10;

struct FileKey {
    std::string path;  // below the root
    std::vector<RegValueList> values;
};

/// Collects what the file says. It is read once, so that what is imported is what was checked.
class FileContent : public FileChecker {
  public:
    using FileChecker::FileChecker;

    void onKey(DWORD line, const CKZString& name, LONG number) override {
        FileChecker::onKey(line, name, number);
        // Another root's key, which the registry's functions cannot reach, has been reported as a defect.
        reachable_ = name == kRoot || name.starts_with(std::string(kRoot) + '\\');
        if (reachable_) content_.push_back({name.substr(std::min(kRoot.size() + 1, name.size())), {}});
    }

    void onValue(DWORD line, const RegValueList& value) override {
        FileChecker::onValue(line, value);
        if (reachable_) content_.back().values.push_back(value);
    }

    std::vector<FileKey>& content() { return content_; }

  private:
    std::vector<FileKey> content_;
    bool reachable_ = false;
};

/// Makes and fills keys in this process's registry. Closing a changed key would write the whole file, so all
/// stay open until they have been written together.
class Importer {
  public:
    explicit Importer(const Key& root) : root_(root) {}

    void take(FileKey& key) {
        HKEY handle = 0;
        DWORD disposition = 0;
        if (RegCreateKeyEx(root_.handle(), key.path.c_str(), /*Reserved=*/0, /*lpClass=*/nullptr,
                           REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, /*lpSecurityAttributes=*/nullptr, &handle,
                           &disposition) != ERROR_SUCCESS ||
            RegBatchSetValueEx(handle, std::move(key.values)) != ERROR_SUCCESS)
            throw Failure(kFailed,
                          "nothing is imported: see above what the registry cannot hold of key " + key.path);
        open_.push_back(handle);
    }

    /// Where it throws, the keys stay open: closing them would try again what has just failed, once for each.
    void save() {
        if (WriteRegistry() == 0) failToWrite();
        for (const HKEY key : open_) (void)RegCloseKey(key);  // nothing is left to write
    }

  private:
    const Key& root_;
    std::vector<HKEY> open_;
};

void reportDefect(const std::string& path, unsigned long long count, DWORD line, const std::string& what) {
    if (count <= kMostDefectsShown)
        std::fprintf(stderr, "%s:%lu: %s\n", path.c_str(), static_cast<unsigned long>(line), what.c_str());
}

[[noreturn]] void refuse(const std::string& path, unsigned long long defects, const char* remedy) {
    if (defects > kMostDefectsShown) std::fprintf(stderr, "and %llu more\n", defects - kMostDefectsShown);
    throw Failure(kFailed, "nothing is imported: mend these lines (kzreg check '" + path +
                               "' lists them all)" + remedy);
}

void readChecked(FileContent& content, const std::string& path, bool force) {
    const bool whole = content.read(path);
    if (!whole || content.keys() == 0) refuse(path, content.defects(), "");
    if (content.defects() > 0 && !force)
        refuse(path, content.defects(), ", or take with --force what the registry would make of them");
}

void import(std::vector<FileKey>& keys, unsigned long long values) {
    const Key root = Key::open(KeyPath::typed("\\"));
    Importer importer(root);
    Progress progress("importing", static_cast<size_t>(keys.size() + values));
    for (FileKey& key : keys) {
        const size_t steps = 1 + key.values.size();
        importer.take(key);
        for (size_t i = 0; i < steps; ++i) progress.step();
    }
    progress.say("writing");
    importer.save();
}

}  // namespace

int importFile(const CommandLine& line) {
    const std::string& path = line.operands.front();
    unsigned long long reported = 0;
    FileContent content(
        [&](DWORD number, const std::string& what) { reportDefect(path, ++reported, number, what); });
    readChecked(content, path, line.force);
    useRegistry();
    import(content.content(), content.values());
    std::printf("imported %llu keys and %llu values from %s\n", content.keys(), content.values(),
                path.c_str());
    return kDone;
}

}  // namespace kzreg
