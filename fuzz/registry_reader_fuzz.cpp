// Any text as the registry file: read into the tree, merged with changes made here, written, and read again.
//
// The input is one or more files, each of which replaces the one before; comments in them say what is done besides:
//     #next          the file ends here: it is put in place and read, and what its other comments ask for is done
//     #set           sets the value of the last value's line in the key of the last key's line
//     #create        creates the subkey "made" below that key
//     #delete-value  deletes that value
//     #delete-key    deletes that key
//     #write         writes the registry
// After the last file the registry is written, too.

#include <traiklofox/registry.h>

#include <cctype>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "registry/find_key.h"
#include "registry/registry_line.h"
#include "registry/registry_reader.h"
#include "registry/registry_writer.h"
#include "require.h"
#include "support/private_machine.h"
#include "support/temp_dir.h"

namespace {

using namespace traiklofox::fuzz;
using namespace traiklofox::registry;
using traiklofox::foundation::LockGuard;
using traiklofox::test::readText;
using traiklofox::test::writeText;

constexpr int kCannotRun = 77;
constexpr std::string_view kUpperRoot = "HKEY_LOCAL_MACHINE";

std::string lowered(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return lower;
}

bool isAtOrBelow(std::string_view path, std::string_view above) {
    return path.starts_with(above) && (path.size() == above.size() || path[above.size()] == '\\');
}

struct Value {
    std::string name;
    DWORD type;
    std::string data;
    bool operator==(const Value&) const = default;
};
struct Key {
    std::string name;
    LONG number;
    std::map<std::string, Value> values;  // by name in lower case, as keys are by path
    bool operator==(const Key&) const = default;
};
using Keys = std::map<std::string, Key>;

std::string describe(const Keys& keys) {
    std::string text;
    for (const auto& [path, key] : keys) {
        text += path + " = " + key.name + ":" + std::to_string(key.number) + "\n";
        for (const auto& [name, value] : key.values)
            text += "  " + value.name + ": " + value.data + "; " + std::to_string(value.type) + "\n";
    }
    return text;
}

/// Puts a file together from what a visit tells of it.
class Visit : public RegFileVisitor {
  public:
    explicit Visit(const std::string& path) { isWhole = RegVisitFile(path.c_str(), *this) == 1; }

    void onKey(DWORD line, const CKZString& name, LONG number) override {
        ignored.erase(line);
        const std::string path = normalizedPath(name);
        require(!path.empty(), "a key's line that is told of names a key");
        for (size_t end = path.find('\\'); end != path.npos; end = path.find('\\', end + 1))
            numbers_.try_emplace(lowered(path).substr(0, end), number);
        number = numbers_.try_emplace(lowered(path), number).first->second;
        current_ = &keys.try_emplace(lowered(path), Key{path, number, {}}).first->second;
    }
    void onValue(DWORD line, const RegValueList& value) override {
        ignored.erase(line);
        require(current_ != nullptr, "a value that is told of has a key");
        current_->values[lowered(value.name)] = {value.name, value.type, value.data};
    }
    void onDefect(DWORD line, const char* what) override { ignored.emplace(line, what); }

    Keys keys;
    std::map<DWORD, std::string> ignored;  // lines, and why
    bool isWhole = false;

  private:
    std::map<std::string, LONG> numbers_;  // those of keys that are only on the way to others, too
    Key* current_ = nullptr;
};

/// The keys in the tree, and the places of all of them.
struct Tree {
    Tree() { add(RegKey::root(), ""); }

    Keys keys;
    std::set<std::string> places;

  private:
    void add(RegKey& key, const std::string& path) {
        std::vector<KeyRef> subkeys;
        {
            const LockGuard guard(key.lock);
            require(!key.isDead(), "what is in the tree is alive", path);
            if (!key.isImplicit() && !path.empty()) {
                Key& shown = keys[path] = {key.fullName(), key.sequence(), {}};
                key.values.inOrderOfCreation([&](const StoredValue& value) {
                    shown.values[lowered(value.name)] = {value.name, value.type, value.data};
                });
            }
            key.subkeys.inOrderOfCreation([&](RegKey& subkey) { subkeys.emplace_back(&subkey); });
        }
        for (const KeyRef& subkey : subkeys) {
            const std::string place = (path.empty() ? "" : path + "\\") + lowered(subkey->component);
            places.insert(place);
            add(*subkey, place);
        }
    }
};

/// What this process has changed and not yet written.
struct Changes {
    std::map<std::string, std::map<std::string, std::optional<std::string>>> values;  // nothing: deleted
    std::set<std::string> made;
    std::set<std::string> deleted;

    bool empty() const { return values.empty() && made.empty() && deleted.empty(); }
    bool isDeleted(std::string_view path) const {
        for (const std::string& key : deleted)
            if (isAtOrBelow(path, key)) return true;
        return false;
    }
    /// Whether something of these keeps a key at `path`.
    bool keep(std::string_view path) const {
        for (const auto& [key, ignored] : values)
            if (isAtOrBelow(key, path)) return true;
        for (const std::string& key : made)
            if (isAtOrBelow(key, path)) return true;
        return false;
    }
    void deleteKey(const std::string& path) {
        std::erase_if(values, [&](const auto& entry) { return isAtOrBelow(entry.first, path); });
        std::erase_if(made, [&](const auto& key) { return isAtOrBelow(key, path); });
        deleted.insert(path);
    }
};

/// One registry, from an empty one to its end.
class Session {
  public:
    explicit Session(const std::string& path) : path_(path) {}

    void putInPlace(std::string_view text) {
        const Keys before = Tree().keys;
        writeText(path_, text);
        const Visit visit(path_);
        file_ = visit.keys;
        isWhole_ = visit.isWhole;
        require(readTree(Purging::Yes) == 1, "the file can be opened");
        check();
        if (isWhole_) return;
        const Tree tree;
        for (const auto& [key, ignored] : before)
            require(tree.keys.contains(key), "a file that is not whole deletes nothing", key);
    }

    /// The tree has what the file says, as far as it was not changed here, and nothing else.
    void check() const {
        const Tree tree;
        for (const auto& [path, key] : file_) {
            if (changes_.isDeleted(path)) continue;
            require(tree.keys.contains(path), "a key of the file is in the tree", path);
            for (const auto& [name, value] : key.values)
                if (!isChanged(path, name))
                    require(tree.keys.at(path).values.contains(name) &&
                                tree.keys.at(path).values.at(name) == value,
                            "a value of the file is in the tree", [&tree] { return describe(tree.keys); });
        }
        for (const auto& [path, values] : changes_.values) {
            require(tree.keys.contains(path), "a key changed here is in the tree", path);
            const Key& key = tree.keys.at(path);
            for (const auto& [name, text] : values)
                require(key.values.contains(name) == text.has_value() &&
                            (!text || key.values.at(name).data == *text),
                        "a value changed here is as it was made here", path + ": " + name);
        }
        for (const std::string& path : changes_.made)
            require(tree.keys.contains(path), "a key made here is in the tree", path);
        for (const std::string& place : tree.places)
            require(!changes_.isDeleted(place) || changes_.keep(place), "a key deleted here is gone", place);
        for (const auto& [path, key] : tree.keys)
            for (const auto& [name, value] : key.values)
                require(!changes_.isDeleted(path) || isChanged(path, name),
                        "a key made anew has nothing of its former self", path + ": " + name);
        if (!changes_.empty() || !isWhole_) return;
        for (const auto& [path, key] : tree.keys) {
            const auto inFile = file_.find(path);
            // A key that has become a step on the way to others stays one.
            require(inFile != file_.end() ? key.values == inFile->second.values
                                          : key.values.empty() && fileHasBelow(path),
                    "what is in the tree is in the file", path);
        }
    }

    /// Names and numbers are the file's, too, as long as no key is older than the file.
    void checkNamesAndNumbers() const {
        if (isWhole_)
            require(Tree().keys == file_, "names and numbers are those in the file",
                    [] { return describe(Tree().keys); });
    }

    void perform(std::string_view command, const std::string& path, const std::string& value) {
        if (command == "#write")
            write();
        else if (isAtOrBelow(lowered(path), kRootWord))
            change(command, path.size() > kRootWord.size() ? path.substr(kRootWord.size() + 1) : "", value);
        if (!isAstray_) check();
    }

    void write() {
        const std::string before = readText(path_);
        const Tree tree;
        if (!isWhole_ || tree.keys.empty()) {
            require(writeTree() == 0 && readText(path_) == before,
                    "without a registry the file stays as it is");
            return;
        }
        require(writeTree() == 1, "the registry can be written");
        // Written as it stands, such a name is no key's to a reader, and its values are the key's before it.
        for (const auto& [path, key] : tree.keys)
            if (key.name.starts_with(kUpperRoot) && key.name.find(kRootWord) == key.name.npos)
                isAstray_ = true;
        changes_ = {};
        const Visit written(path_);
        file_ = isAstray_ ? file_ : written.keys;
        if (isAstray_) return;
        require(written.isWhole, "all of it can be read");
        require(written.ignored.empty(), "every line of it says something",
                [&] { return written.ignored.begin()->second + "\n" + readText(path_); });
        Keys expected = tree.keys;
        for (auto& [path, key] : expected)
            if (written.keys.contains(path) && written.keys.at(path).number == 0)
                key.number = 0;  // no room for it
        require(written.keys == expected, "it says what the tree says",
                [&] { return readText(path_) + "\n" + describe(expected); });

        const std::string text = readText(path_);
        require(readTree(Purging::Yes) == 1 && Tree().keys == tree.keys, "reading it again changes nothing");
        require(writeTree() == 1 && readText(path_) == text, "nor does writing it again");
    }
    bool isAstray() const { return isAstray_; }

  private:
    bool fileHasBelow(std::string_view path) const {
        for (const auto& [key, ignored] : file_)
            if (isAtOrBelow(key, path)) return true;
        return false;
    }
    bool isChanged(const std::string& path, const std::string& name) const {
        const auto key = changes_.values.find(path);
        return key != changes_.values.end() && key->second.contains(name);
    }

    void change(std::string_view command, const std::string& belowRoot, const std::string& value) {
        HKEY key = 0;
        if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, belowRoot.c_str(), 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
            return;
        const std::string path =
            lowered(std::string(kRootWord) + (belowRoot.empty() ? "" : "\\") + belowRoot);
        const std::string name = lowered(value);
        HKEY made = 0;
        DWORD disposition = 0;  // asked for, lest the new key count as unchanged
        const bool wasThere = Tree().keys.contains(path + "\\made");  // as more than a step on the way
        const std::string text = "change " + std::to_string(++changeCount_);
        const auto* data = reinterpret_cast<const BYTE*>(text.c_str());
        if (command == "#set" && RegSetValueEx(key, value.c_str(), 0, REG_SZ, data, 0) == ERROR_SUCCESS) {
            changes_.values[path][name] = text;
        } else if (command == "#create" && RegCreateKeyEx(key, "made", 0, nullptr, 0, KEY_READ, nullptr,
                                                          &made, &disposition) == ERROR_SUCCESS) {
            if (!wasThere) changes_.made.insert(path + "\\made");
            require(RegCloseKey(made) == ERROR_SUCCESS, "a key that was created can be closed");
        } else if (command == "#delete-value" && RegDeleteValue(key, value.c_str()) == ERROR_SUCCESS) {
            changes_.values[path][name] = std::nullopt;
        } else if (command == "#delete-key" && !belowRoot.empty()) {
            const auto [parent, last] = splitLast(path);
            const std::string parentBelowRoot(
                parent.size() > kRootWord.size() ? parent.substr(kRootWord.size() + 1) : std::string_view());
            HKEY above = 0;
            require(RegOpenKeyEx(HKEY_LOCAL_MACHINE, parentBelowRoot.c_str(), 0, KEY_ALL_ACCESS, &above) ==
                        ERROR_SUCCESS,
                    "a key that is open has a parent", path);
            const LONG result = RegDeleteKey(above, std::string(last).c_str());
            require(result == ERROR_SUCCESS, "it can be deleted", path);
            changes_.deleteKey(path);
            require(RegCloseKey(above) == ERROR_SUCCESS, "its parent can be closed");
        }
        require(RegCloseKey(key) == ERROR_SUCCESS, "what was opened can be closed", path);
    }

    const std::string path_;
    Keys file_;
    bool isWhole_ = true;
    bool isAstray_ = false;
    int changeCount_ = 0;
    Changes changes_;
};

/// Runs the commands in a file that has been put in place.
void performCommands(Session& session, std::string_view text) {
    std::string path;
    std::string value;
    while (!text.empty() && !session.isAstray()) {
        const std::string_view line = takeLine(text);
        const RegistryLine parsed = parseLine(line);
        if (parsed.kind == RegistryLine::Kind::Key)
            path = normalizedPath(parsed.keyName);
        else if (parsed.kind == RegistryLine::Kind::Value)
            value = parsed.value.name;
        else if (line.starts_with('#'))
            session.perform(line, path, value);
    }
}

/// The text up to the comment that ends a file.
std::string_view takeFile(std::string_view& text) {
    constexpr std::string_view kEnd = "\n#next\n";
    const size_t end = text.find(kEnd);
    const std::string_view file = text.substr(0, end == text.npos ? end : end + 1);
    text = end == text.npos ? std::string_view() : text.substr(end + kEnd.size());
    return file;
}

const std::string& registryFile() {
    static const std::string& path = *new std::string(GetRegistryPath());
    return path;
}

/// Nothing is left over for the next input: a write settles every change, and what is settled and not in the file goes.
void startAnew() {
    writeText(registryFile(), "hkey_local_machine:1\n");
    require(readTree(Purging::Yes) == 1 && writeTree() == 1, "a good file ends every trouble");
    writeText(registryFile(), "");
    require(readTree(Purging::Yes) == 1 && Tree().places.empty(), "what is written and not in the file goes");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    using namespace traiklofox::test;
    if (const auto& machine = PrivateMachine::enter(); !machine.entered()) {
        std::fprintf(stderr, "%s\n", machine.whyNot().c_str());
        std::exit(kCannotRun);
    }
    ::setenv("TMPDIR", "/dev/shm", /*overwrite=*/1);
    static const TempDir& home = *new TempDir;
    ::setenv("TWHOME", home.path().c_str(), /*overwrite=*/1);
    writeText(home / "registry/tw.registry.template", "hkey_local_machine:1\n");
    InitRegistry(/*flags=*/0, /*create=*/true);
    bLazyFlush = 1;  // only this program's own calls write
    startAnew();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, size_t size) {
    std::string_view text = textOf(bytes, size);
    {
        Session session(registryFile());
        for (bool isFirst = true; !session.isAstray() && (isFirst || !text.empty()); isFirst = false) {
            const std::string_view file = takeFile(text);
            session.putInPlace(file);
            if (isFirst) session.checkNamesAndNumbers();
            performCommands(session, file);
        }
        if (!session.isAstray()) session.write();
    }
    startAnew();
    return 0;
}
