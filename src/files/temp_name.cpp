#include "files/temp_name.h"

#include <traiklofox/temp_name.h>

#include <atomic>
#include <charconv>

#include "foundation/sys.h"

namespace traiklofox::files {

namespace {

constexpr std::string_view kPrefix = ".kztmp.";

}  // namespace

std::optional<pid_t> processOfTemporaryName(std::string_view name) {
    if (!name.starts_with(kPrefix)) return std::nullopt;
    name.remove_prefix(kPrefix.size());
    pid_t process = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
    const bool valid = error == std::errc() && process > 0 && end != name.data() + name.size() && *end == '.';
    return valid ? std::optional(process) : std::nullopt;
}

}  // namespace traiklofox::files

CKZString KZTempNam(const CKZString& directory) {
    namespace sys = traiklofox::sys;
    static constinit std::atomic<unsigned int> counter{0};
    CKZString name;
    const char* const separator = directory.empty() || directory.back() == '/' ? "" : "/";
    do {
        // The time tells this process from a dead one with the same id, whose file may still be there.
        const timeval now = sys::now();
        const auto moment =
            static_cast<unsigned long long>(now.tv_sec) * 1'000'000 + static_cast<unsigned>(now.tv_usec);
        name.Format("%s%s.kztmp.%d.%x-%llx", directory.c_str(), separator, static_cast<int>(getpid()),
                    counter.fetch_add(1, std::memory_order_relaxed), moment);
    } while (sys::access(name.c_str(), F_OK) == 0);
    return name;
}
