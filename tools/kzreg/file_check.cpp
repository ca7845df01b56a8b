#include "file_check.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "failure.h"
#include "value.h"

namespace kzreg {
namespace {

std::string lowered(const CKZString& text) {
    CKZString lower = text;
    lower.MakeLower();
    return lower;
}

std::string lineText(DWORD line) {
    return "line " + std::to_string(line);
}

}  // namespace

bool FileChecker::read(const std::string& path) {
    const int result = RegVisitFile(path.c_str(), *this);
    if (result == 0) throw Failure(kFailed, path + ": " + std::strerror(errno));
    if (result == 1 && keyCount_ + valueCount_ + defectCount_ == 0)
        found(1, "the file names no key; a registry like this is a lost one");
    return result == 1;
}

void FileChecker::onKey(DWORD line, const CKZString& name, LONG) {
    ++keyCount_;
    valueLines_.clear();
    const auto [earlier, isNew] = keyLines_.emplace(lowered(name), line);
    if (!isNew) found(line, "the key of " + lineText(earlier->second) + " again; its number is ignored");
}

void FileChecker::onValue(DWORD line, const RegValueList& value) {
    ++valueCount_;
    const auto [earlier, isNew] = valueLines_.emplace(lowered(value.name), line);
    if (!isNew) found(line, "takes the place of the value in " + lineText(earlier->second));
    earlier->second = line;
    if (value.type == REG_DWORD && !numberIn(value.data, /*base=*/0))
        found(line, "the data of a REG_DWORD are no 32-bit number");
}

void FileChecker::found(DWORD line, const std::string& what) {
    ++defectCount_;
    report_(line, what);
}

int checkFile(const CommandLine& line) {
    const std::string& path = line.operands.front();
    FileChecker checker([&](DWORD number, const std::string& what) {
        std::printf("%s:%lu: %s\n", path.c_str(), static_cast<unsigned long>(number), what.c_str());
    });
    (void)checker.read(path);  // what keeps it from the end has been told
    return checker.defects() == 0 ? kDone : kFailed;
}

}  // namespace kzreg
