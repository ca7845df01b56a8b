#include "soak/board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace traiklofox::soak {

namespace {

std::string ownName = "supervisor";
Slot* slot = nullptr;

Board* mapBoard() {
    const std::string path = runDirectory() + "/board";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    void* memory = MAP_FAILED;
    if (fd >= 0 && ::ftruncate(fd, sizeof(Board)) == 0)
        memory = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
    ::close(fd);
    return static_cast<Board*>(memory);
}

}  // namespace

void raise(Count& most, std::uint32_t value) {
    std::uint32_t seen = most.load();
    while (seen < value && !most.compare_exchange_weak(seen, value)) {
    }
}

Board& board() {
    static Board* const mapped = mapBoard();  // zeroes at first, which every field begins with
    return *mapped;
}

std::string runDirectory() {
    const char* directory = std::getenv("SOAK_DIRECTORY");
    return directory != nullptr ? directory : "";
}

void check(Invariant invariant, bool held, const char* format, ...) {
    auto& entry = board().invariants[static_cast<size_t>(invariant)];
    ++entry.checks;
    if (held) return;
    char text[sizeof entry.first / 2];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "BROKEN: %s: %s: %s\n", kInvariants[static_cast<size_t>(invariant)], ownName.c_str(),
                 text);
    if (entry.broken++ == 0) std::snprintf(entry.first, sizeof entry.first, "%s: %s", ownName.c_str(), text);
}

std::uint32_t monotonicSeconds() {
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count());
}

void note(Op op, Clock::duration took) {
    auto& entry = board().operations[static_cast<size_t>(op)];
    ++entry.done;
    raise(entry.worstUs,
          static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
    if (slot != nullptr) slot->beat = monotonicSeconds();
}

void playAs(const std::string& role, size_t number) {
    ownName = role + " " + std::to_string(number);
    slot = &board().slots[number];
}

Slot& ownSlot() {
    return *slot;
}

}  // namespace traiklofox::soak
