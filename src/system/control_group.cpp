#include "system/control_group.h"

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "foundation/sys.h"

namespace traiklofox::system {

namespace {

constexpr std::uint64_t kNoLimit = std::uint64_t{1}
                                   << 60;  // what version 1 says for none is some pages less than 2^63

std::optional<std::uint64_t> numberIn(std::string_view text) {
    std::uint64_t number = 0;
    const size_t first = std::min(text.find_first_not_of(" \t"), text.size());
    const auto [end, error] = std::from_chars(text.data() + first, text.data() + text.size(), number);
    if (error != std::errc()) return std::nullopt;
    return number;
}

/// Takes the text up to `end` off the front.
std::string_view takeTo(std::string_view& text, char end) {
    const size_t place = text.find(end);
    const std::string_view taken = text.substr(0, place);
    text = place == text.npos ? std::string_view() : text.substr(place + 1);
    return taken;
}

bool isListed(std::string_view list, std::string_view name) {
    if (name.empty()) return list.empty();
    while (!list.empty())
        if (takeTo(list, ',') == name) return true;
    return false;
}

std::optional<std::uint64_t> limitOf(const std::string& file) {
    const auto limit = numberIn(textOfFile(file));  // "max" is no number
    return limit && *limit < kNoLimit ? limit : std::nullopt;
}

void takeLess(std::optional<GroupMemory>& tightest, std::optional<std::uint64_t> limit,
              std::string_view usage, std::string_view statistics, std::string_view cacheLabel) {
    if (!limit) return;
    const std::uint64_t used = numberIn(usage).value_or(0);
    const std::uint64_t cache = numberBehind(statistics, cacheLabel).value_or(0);
    const GroupMemory memory{.limit = *limit, .used = used - std::min(used, cache)};
    // The one that leaves least, which need not be the lowest.
    const auto left = [](const GroupMemory& of) { return of.limit - std::min(of.limit, of.used); };
    if (!tightest) {
        tightest = memory;
        return;
    }
    const std::uint64_t leastLeft = std::min(left(*tightest), left(memory));
    tightest->limit = std::min(tightest->limit, memory.limit);
    tightest->used = tightest->limit - std::min(tightest->limit, leastLeft);
}

}  // namespace

std::optional<std::uint64_t> numberBehind(std::string_view text, std::string_view label) {
    while (!text.empty()) {
        const std::string_view line = takeTo(text, '\n');
        if (line.starts_with(label)) return numberIn(line.substr(label.size()));
    }
    return std::nullopt;
}

std::string textOfFile(const std::string& path) {
    const int error = errno;
    std::string text;
    const sys::UniqueFd file(sys::open(path.c_str(), O_RDONLY));
    char buffer[4096];
    ssize_t got = 0;
    while (file && (got = sys::read(file.get(), buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(got));
    errno = error;
    return text;
}

ControlGroups::ControlGroups(std::string membership, std::string root)
    : membership_(std::move(membership)), root_(std::move(root)) {}

std::optional<std::string> ControlGroups::directoryOf(std::string_view controller) const {
    std::string_view text = membership_;
    while (!text.empty()) {
        std::string_view line = takeTo(text, '\n');
        (void)takeTo(line, ':');  // the hierarchy's number
        const std::string_view controllers = takeTo(line, ':');
        if (!isListed(controllers, controller) || !line.starts_with('/')) continue;
        return std::string(line.substr(line.ends_with('/') ? line.size() : 0));
    }
    return std::nullopt;
}

/// Calls `read` with the group's directory and all above it. In a container the path may be one of outside, of
/// which only the top is there.
template <class Read>
void ControlGroups::eachUpward(std::string_view controller, Read read) const {
    const auto group = directoryOf(controller);
    if (!group) return;
    std::string top = root_;
    if (!controller.empty()) top.append("/").append(controller);
    std::string path = *group;
    for (;;) {
        read(top + path + "/");
        if (path.empty()) return;
        path.resize(path.rfind('/'));
    }
}

std::optional<double> ControlGroups::processors() const {
    std::optional<double> least;
    const auto consider = [&](std::optional<std::uint64_t> quota, std::optional<std::uint64_t> period) {
        if (!quota || !period || *period == 0) return;
        const double share = static_cast<double>(*quota) / static_cast<double>(*period);
        least = std::min(least.value_or(share), share);
    };
    eachUpward("", [&](const std::string& directory) {
        const std::string file = textOfFile(directory + "cpu.max");
        std::string_view text = file;
        const auto quota = numberIn(takeTo(text, ' '));
        consider(quota, numberIn(text));
    });
    eachUpward("cpu", [&](const std::string& directory) {
        consider(numberIn(textOfFile(directory + "cpu.cfs_quota_us")),  // -1 is none
                 numberIn(textOfFile(directory + "cpu.cfs_period_us")));
    });
    return least;
}

std::optional<GroupMemory> ControlGroups::memory() const {
    std::optional<GroupMemory> tightest;
    eachUpward("", [&](const std::string& directory) {
        takeLess(tightest, limitOf(directory + "memory.max"), textOfFile(directory + "memory.current"),
                 textOfFile(directory + "memory.stat"), "inactive_file ");
    });
    eachUpward("memory", [&](const std::string& directory) {
        takeLess(tightest, limitOf(directory + "memory.limit_in_bytes"),
                 textOfFile(directory + "memory.usage_in_bytes"), textOfFile(directory + "memory.stat"),
                 "total_inactive_file ");
    });
    return tightest;
}

std::optional<GroupMemory> ControlGroups::swap() const {
    std::optional<GroupMemory> tightest;
    eachUpward("", [&](const std::string& directory) {
        takeLess(tightest, limitOf(directory + "memory.swap.max"),
                 textOfFile(directory + "memory.swap.current"),
                 /*statistics=*/"", /*cacheLabel=*/"");
    });
    return tightest;
}

}  // namespace traiklofox::system
