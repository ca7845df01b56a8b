#pragma once

// Open keys of the registry. Call `useRegistry` first.

#include <traiklofox/registry.h>

#include <optional>
#include <string>
#include <vector>

#include "key_path.h"
#include "value.h"

namespace kzreg {

/// A key that is open for reading.
class Key {
  public:
    /// Throws `Failure` when there is no such key.
    static Key open(const KeyPath& path);
    /// The key of that path below the root; nothing when there is none (any more).
    static std::optional<Key> find(const std::string& belowRoot);
    /// The key directly below `parent`; nothing when there is none of that name (any more).
    static std::optional<Key> openBelow(const Key& parent, const std::string& name);
    /// The same, made if it is missing.
    static Key makeBelow(const Key& parent, const std::string& name);

    Key(Key&& other) noexcept;
    Key& operator=(Key&&) = delete;
    ~Key();

    HKEY handle() const { return handle_; }
    /// The whole path, spelled as the registry has it.
    std::string path() const { return RegFormatKey(nullptr, handle_); }

    /// True for a key that is there only because keys below it are: it has no line in the registry file.
    bool isStep() const { return RegHKEYtoString(handle_).size() != path().size(); }

    // All below throw `Failure` when the key has been deleted.

    /// Sorted by name as the registry file is.
    std::vector<Value> values() const;
    std::vector<std::string> subkeys() const;
    std::optional<Value> value(const std::string& name) const;

  private:
    explicit Key(HKEY handle) : handle_(handle) {}

    HKEY handle_;
};

/// A key that is open for changes, which `save` puts on the disk.
class KeyToChange {
  public:
    static KeyToChange open(const KeyPath& path);
    /// Makes the key, and those on the way to it, where they are missing: each in its own right.
    static KeyToChange make(const KeyPath& path);

    /// An end without `save` leaves the key open, because closing it would write what a command has just
    /// reported as failed. The process ends soon, and the change with it.
    ~KeyToChange() = default;

    HKEY handle() const { return handle_; }
    /// Throws `Failure` when the change is not on the disk.
    void save();

  private:
    explicit KeyToChange(HKEY handle) : handle_(handle) {}

    HKEY handle_;
};

/// Throws `Failure`: what was to be changed is not known to be on the disk.
[[noreturn]] void failToWrite();
/// Throws `Failure`, and says where the path ends.
[[noreturn]] void failToFind(const KeyPath& path);

}  // namespace kzreg
