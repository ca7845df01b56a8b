// temp_name.cpp: temporary names: made here, and taken apart again.

#include "files/temp_name.h"

#include <traiklofox/temp_name.h>

#include <atomic>
#include <charconv>
#include <cinttypes>

#include "foundation/sys.h"

namespace sys = traiklofox::sys;

namespace traiklofox::files {

namespace {

constexpr std::string_view kPrefix = ".kztmp.";
constexpr size_t kLongestNumber = 16;  // hexadecimal digits of 64 bits

/// Removes what stands before the first `end`, and that; gives it back. Nothing when there is no `end`.
std::optional<std::string_view> takeUntil(std::string_view& text, char end) {
    const size_t length = text.find(end);
    if (length == std::string_view::npos) return std::nullopt;
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length + 1);
    return taken;
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.size() <= kLongestNumber &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// Tells two processes apart that have one id: one after the other, or in two process namespaces.
std::uint64_t randomNumber() {
    std::uint64_t number = 0;
    if (sys::getrandom(&number, sizeof number) == sizeof number) return number;
    const timespec now = sys::monotonic();  // early at boot: nothing before had this time
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::optional<pid_t> processOfTemporaryName(std::string_view name) {
    if (!name.starts_with(kPrefix)) return std::nullopt;
    name.remove_prefix(kPrefix.size());
    const auto id = takeUntil(name, '.');
    const auto count = takeUntil(name, '-');
    if (!id || !count || !isNumber(*count) || !isNumber(name)) return std::nullopt;

    pid_t process = 0;
    const auto [end, error] = std::from_chars(id->data(), id->data() + id->size(), process);
    const bool isProcess =
        error == std::errc() && end == id->data() + id->size() && process > 0 && !id->starts_with('0');
    return isProcess ? std::optional(process) : std::nullopt;
}

}  // namespace traiklofox::files

CKZString KZTempNam(const CKZString& directory) {
    static constinit std::atomic<unsigned int> counter{0};
    const int error = errno;
    CKZString start = directory.empty() ? CKZString(".") : directory;
    start.erase(start.find_last_not_of('/') + 1);

    CKZString name;
    struct statx status;
    do {
        name.Format("%s/%s%d.%x-%" PRIx64, start.c_str(), traiklofox::files::kPrefix.data(),
                    static_cast<int>(getpid()), counter.fetch_add(1, std::memory_order_relaxed),
                    traiklofox::files::randomNumber());
    } while (sys::lstat(name.c_str(), &status) == 0);
    errno = error;
    return name;
}
