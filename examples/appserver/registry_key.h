#pragma once

// registry_key.h: an open registry key that closes itself, and typed access to its values. Failures are
// thrown as `RegistryError`.
//
// Settings are named by their place below the product's own key, with "/" or "\" between the steps:
// "listeners/http" is hkey_local_machine\software\example\appserver\listeners\http.

#include <traiklofox/registry.h>

#include <stdexcept>
#include <string>

namespace appserver {

class RegistryError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class RegistryKey {
  public:
    /// Opens an existing key for reading.
    static RegistryKey open(const std::string& place);
    /// Opens a key for writing, and makes it if it is missing.
    static RegistryKey openOrCreate(const std::string& place);
    /// The root of the whole registry, for reading.
    static RegistryKey openRoot();
    /// The key `name` directly below this one, for reading.
    RegistryKey openSubkey(const std::string& name) const;

    RegistryKey(RegistryKey&& other) noexcept;
    RegistryKey& operator=(RegistryKey&&) = delete;
    /// Closes the key. On one open for writing that asks the library to write what has changed.
    ~RegistryKey();

    /// A value as text, a number in decimal.
    std::string read(const std::string& name) const;
    DWORD readNumber(const std::string& name) const;

    /// Sets a value in this process; `flush` or the end of the object sends it to the others.
    void writeNumber(const std::string& name, DWORD number);
    void writeText(const std::string& name, const std::string& text);
    /// Returns when the changes are on disk or, while the lazy writer runs, noted for it.
    void flush();

    HKEY handle() const { return handle_; }

  private:
    explicit RegistryKey(HKEY handle) : handle_(handle) {}
    HKEY handle_;
};

}  // namespace appserver
