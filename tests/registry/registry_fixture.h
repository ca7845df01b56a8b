#pragma once

// What the registry's tests share: an installation on a machine of its own, short forms of the calls, a strict
// reader of the registry file, and other processes that work on the same registry.
//
// The registry starts once in a process, so each test needs a process of its own, as ctest gives it.

#include <gtest/gtest.h>
#include <traiklofox/registry.h>

#include <map>
#include <optional>
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
    bool isOpen() const { return handle_ != 0; }
    /// Closes it at once; what `RegCloseKey` returns.
    LONG close();

  private:
    HKEY handle_ = 0;
};

bool keyExists(const std::string& path);
LONG setText(HKEY key, const char* name, std::string_view text);
LONG setNumber(HKEY key, const char* name, DWORD number);
/// A REG_SZ; nothing when there is none of that name or the handle is no good.
std::optional<std::string> textOf(HKEY key, const char* name);
/// Opens `path`, reads there and closes.
std::optional<std::string> textAt(const std::string& path, const char* name);
/// The names of all subkeys, or of all values, in the order of enumeration.
std::vector<std::string> subkeysOf(HKEY key);
std::vector<std::string> valuesOf(HKEY key);

struct FileValue {
    std::string type;
    std::string data;
    bool operator==(const FileValue&) const = default;
};
/// A registry file's text: for each key's full name its values by name. Throws std::runtime_error for a line that is
/// not laid out exactly as the library writes it, and for a text that does not end with a line end.
using FileKeys = std::map<std::string, std::map<std::string, FileValue>>;
FileKeys parseRegistry(const std::string& text);

/// An installation directory of the test's own, which TWHOME names, with a template and no registry file yet.
class RegistryTest : public ::testing::Test {
  protected:
    void SetUp() override;

    std::string home() const { return home_->path(); }
    std::string directory() const { return home() + "/registry"; }
    std::string file() const { return directory() + "/tw.registry"; }
    std::string templateFile() const { return file() + ".template"; }

    std::string fileText() const { return readText(file()); }
    FileKeys fileKeys() const { return parseRegistry(fileText()); }
    /// The text of a value in the file; nothing when it is not there.
    std::optional<std::string> inFile(const std::string& keyPath, const std::string& name) const;
    /// Puts another registry file in place, as another process's write does: every look-up from now on reads it.
    void replaceFile(std::string_view text) const;
    /// What is in the registry's directory besides the file and the template.
    std::vector<std::string> otherFiles() const;

  private:
    std::optional<TempDir> home_;
};

/// Another process that works on the same registry as it is told.
class Peer {
  public:
    Peer();
    /// Has it carry out a command of the list in registry_fixture.cpp; its answer.
    std::string ask(const std::vector<std::string>& words);
    /// The two halves of `ask`.
    void tell(const std::vector<std::string>& words);
    std::string answer();

    /// Sets a value and closes the key, which writes it.
    void set(const std::string& path, const std::string& name, const std::string& text);
    /// What it finds at its next look-up; "(none)" when there is nothing.
    std::string get(const std::string& path, const std::string& name) { return ask({"get", path, name}); }

    RoleProcess& process() { return process_; }
    /// Ends it; it must end by itself, with status 0.
    void finish();

  private:
    RoleProcess process_;
};

}  // namespace traiklofox::test
