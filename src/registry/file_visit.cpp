// file_visit.cpp: lets a caller see a file in the registry's format as the reader sees it.

#include <traiklofox/file_lock.h>
#include <traiklofox/registry.h>

#include "registry/registry_line.h"

namespace {

using namespace traiklofox::registry;
using Kind = RegistryLine::Kind;

constexpr int kReadMode = FileLock::in | FileLock::nocreate;

class LineTeller {
  public:
    explicit LineTeller(RegFileVisitor& visitor) : visitor_(visitor) {}

    void tell(DWORD number, std::string_view line) {
        const RegistryLine parsed = parseLine(line, /*wantsDefects=*/true);
        if (parsed.defect != nullptr) visitor_.onDefect(number, parsed.defect);
        if (parsed.kind == Kind::Key) {
            hasKey_ = namesKey(parsed.keyName);
            if (hasKey_) visitor_.onKey(number, CKZString(std::string(parsed.keyName)), parsed.number);
        } else if (parsed.kind == Kind::Value && !hasKey_) {
            visitor_.onDefect(number, "a value without a key");
        } else if (parsed.kind == Kind::Value) {
            const auto& [type, name, data] = parsed.value;
            visitor_.onValue(number, {std::string(name), type, std::string(data)});
        }
    }

  private:
    RegFileVisitor& visitor_;
    bool hasKey_ = false;
};

}  // namespace

int RegVisitFile(const char* path, RegFileVisitor& visitor) {
    FileLock file(nullptr, 0);
    if (!file.OpenFileUnLocked(path, kReadMode)) return 0;
    LineTeller teller(visitor);
    DWORD number = 0;
    std::string_view line;
    while (file.ReadLineView(line, kLongestLine)) teller.tell(++number, line);
    if (file.IsEndOfFile()) return 1;
    visitor.onDefect(number + 1, file.IsBad() ? "the file cannot be read any further"
                                              : "longer than 4095 characters; nothing from here on is read");
    return -1;
}
