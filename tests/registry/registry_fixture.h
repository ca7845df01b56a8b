#pragma once

// What the registry's tests share: an installation on a machine of its own, short forms of the calls, a strict
// reading of the registry file, and other processes that work on the same registry.

#include <gtest/gtest.h>
#include <traiklofox/registry.h>

#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/role.h"
#include "support/temp_dir.h"

namespace traiklofox::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/// The key that the tests' template holds, below the root word, and the same in full.
constexpr const char* kExample = "software\\example";
constexpr const char* kExamplePath = "hkey_local_machine\\software\\example";
constexpr HKEY kWriteBit = 0x40000000;
constexpr HKEY kUnknown = 0x3ffffff0 | kWriteBit;  // a handle that nobody has

using Names = std::vector<std::string>;

struct Random {
    std::mt19937 engine;
    DWORD below(DWORD limit) { return static_cast<DWORD>(engine() % limit); }
};

/// A key that is open while this lives.
class OpenKey {
  public:
    OpenKey() = default;
    /// Opens `path`, which is below the root.
    explicit OpenKey(const std::string& path, REGSAM access = KEY_ALL_ACCESS);
    OpenKey(OpenKey&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
    OpenKey& operator=(OpenKey other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~OpenKey();
    /// Creates, or opens, `path` below `parent`; reports a test failure when that fails.
    static OpenKey createBelow(HKEY parent, const std::string& path);

    operator HKEY() const { return handle_; }
    /// Closes it at once; what `RegCloseKey` returns.
    LONG close() { return RegCloseKey(std::exchange(handle_, 0)); }

  private:
    HKEY handle_ = 0;
};

bool keyExists(const std::string& path);
LONG setText(HKEY key, const std::string& name, std::string_view text);
LONG setNumber(HKEY key, const char* name, DWORD number);
/// A REG_SZ; nothing when there is none of that name or the handle is no good.
std::optional<std::string> textOf(HKEY key, const std::string& name);
/// Opens `path`, reads there and closes.
std::optional<std::string> textAt(const std::string& path, const std::string& name);
/// All subkeys, or all values, in the order of enumeration.
Names subkeysOf(HKEY key);
Names valuesOf(HKEY key);

/// One call of a table, with the result that it should have and the one that it had.
struct Result {
    const char* call;
    LONG expected;
    LONG actual;
};
void expectResults(const std::vector<Result>& results);

struct FileValue {
    std::string type;
    std::string data;
    bool operator==(const FileValue&) const = default;
};
/// What a reader finds in a registry file's text: for each key's full name its values by name. Throws for a line that
/// the library would not have written, a key or value that comes twice, and a text that does not end with a line end.
using FileKeys = std::map<std::string, std::map<std::string, FileValue>>;
FileKeys parseRegistry(const std::string& text);
/// Lines of such a text: of the key `path`, which is below the root word, and of a REG_SZ.
std::string keyLine(const std::string& path, const std::string& number = "1");
std::string valueLine(std::string name, std::string text);

/// The registry's semaphore: its identifier, and how many may take it.
int semaphore();
int semaphoreValue();

/// An installation directory of the test's own, which TWHOME names, with a template and no registry file yet. The
/// registry starts once in a process, so each test needs a process of its own, as ctest gives it.
class RegistryTest : public ::testing::Test {
  protected:
    void SetUp() override;

    std::string home() const { return home_->path(); }
    std::string directory() const { return home() + "/registry"; }
    std::string file() const { return directory() + "/tw.registry"; }
    std::string templateFile() const { return file() + ".template"; }

    std::string fileText() const { return readText(file()); }
    FileKeys fileKeys() const { return parseRegistry(fileText()); }
    /// The data of a value of kExample in the file; nothing when it is not there.
    std::optional<std::string> inFile(const std::string& name) const;
    /// Puts another registry file in place, as another process's write does: every look-up from now on reads it.
    void replaceFile(std::string_view text) const;
    /// What is in the registry's directory besides the file and the template.
    Names otherFiles() const;

  private:
    std::optional<TempDir> home_;
};

/// The same with kExample open, and so the registry started.
class StartedRegistryTest : public RegistryTest {
  protected:
    void SetUp() override {
        RegistryTest::SetUp();
        if (!IsSkipped()) key = OpenKey(kExample);
    }
    OpenKey key;
};

/// Another process that carries out the commands listed in registry_fixture.cpp.
struct Peer {
    RoleProcess process{"registryPeer"};

    std::string ask(const Names& words) { return tell(words), answer(); }
    /// The two halves of `ask`.
    void tell(const Names& words);
    std::string answer() { return process.readLine().value_or("(no answer)"); }
    /// Sets a value of kExample and closes the key, which writes it.
    void set(const std::string& name, const std::string& text);
    /// A value of kExample as it finds it at its next look-up; "(none)" when there is none.
    std::string get(const std::string& name) { return ask({"get", kExample, name}); }
};

}  // namespace traiklofox::test
