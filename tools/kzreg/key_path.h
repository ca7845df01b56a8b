#pragma once

// Keys as people write them.

#include <string>
#include <vector>

namespace kzreg {

/// A key's place below the root.
class KeyPath {
  public:
    /// Takes a key as it is typed: with or without the root in front (hkey_local_machine or HKLM, in any
    /// letter case), components separated by "\", or by "/" where there is no "\" at all. Throws `Failure`
    /// for an empty text and for roots that there are none of.
    static KeyPath typed(const std::string& text);

    bool isRoot() const { return components_.empty(); }
    const std::vector<std::string>& components() const { return components_; }
    const std::string& name() const { return components_.back(); }
    KeyPath parent() const;

    /// The path below the root, empty for the root.
    std::string belowRoot() const;
    /// The whole path.
    std::string whole() const;

  private:
    explicit KeyPath(std::vector<std::string> components) : components_(std::move(components)) {}

    std::vector<std::string> components_;
};

}  // namespace kzreg
