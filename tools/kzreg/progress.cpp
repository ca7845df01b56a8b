#include "progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace kzreg {
namespace {

constexpr size_t kManySteps = 5000;
constexpr char kClearLine[] = "\r\033[K";

}  // namespace

Progress::Progress(std::string what, size_t steps)
    : what_(std::move(what)), steps_(steps), shown_(steps >= kManySteps && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
    if (shown_) std::fputs(kClearLine, stderr);
}

void Progress::step() {
    if (!shown_) return;
    ++done_;
    const size_t percent = steps_ / 100;
    if (done_ % percent == 0) say(what_ + " " + std::to_string(done_ / percent) + "%");
}

void Progress::say(const std::string& text) {
    if (shown_) std::fprintf(stderr, "%s%s", kClearLine, text.c_str());
}

}  // namespace kzreg
