#pragma once

// Finds the lines of a file in the registry's format that the registry would ignore, cut, or take otherwise
// than they look.

#include <traiklofox/registry.h>

#include <functional>
#include <map>
#include <string>

namespace kzreg {

/// Lets the reader's rules judge, and adds what they do not see: keys and values that are there twice, and
/// numbers that are none.
class FileChecker : public RegFileVisitor {
  public:
    using Report = std::function<void(DWORD line, const std::string& what)>;

    explicit FileChecker(Report report) : report_(std::move(report)) {}

    /// Reads the file and reports its defects in the order of its lines. Returns false when the file cannot
    /// be read to its end, which has been reported. Throws `Failure` when it cannot be opened.
    bool read(const std::string& path);

    unsigned long long keys() const { return keyCount_; }
    unsigned long long values() const { return valueCount_; }
    unsigned long long defects() const { return defectCount_; }

    void onKey(DWORD line, const CKZString& name, LONG number) override;
    void onValue(DWORD line, const RegValueList& value) override;
    void onDefect(DWORD line, const char* what) override { found(line, what); }

  private:
    using Lines = std::map<std::string, DWORD>;  // by name in lower case

    void found(DWORD line, const std::string& what);

    const Report report_;
    Lines keyLines_;
    Lines valueLines_;  // of the key that was last named
    unsigned long long keyCount_ = 0;
    unsigned long long valueCount_ = 0;
    unsigned long long defectCount_ = 0;
};

}  // namespace kzreg
