// glob_pattern.cpp: runs a file name pattern's program over a name.

#include "files/glob_pattern.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

namespace traiklofox::files {

namespace {

/// Where to go on when a way turned out wrong.
struct Choice {
    size_t step;
    size_t at;
};

/// Without branches only the last star matters: an earlier one that took more would leave it less.
class LastStar {
  public:
    bool isNew(const GlobPattern::Step&, size_t) const { return true; }
    void keep(size_t step, size_t at) { star_ = {step, at}; }
    std::optional<Choice> take() { return std::exchange(star_, std::nullopt); }
    /// The name's end is all that is left to compare.
    void keepNone() { star_.reset(); }

  private:
    std::optional<Choice> star_;
};

/// Remembers every decision at every place of the name, on the stack as long as they are few.
class Branches {
  public:
    Branches(size_t decisions, size_t nameLength) : places_(nameLength + 1) {
        const size_t words = (decisions * places_ + kBits - 1) / kBits;
        if (words <= few_.size()) {
            std::fill_n(few_.begin(), words, 0);
            met_ = few_.data();
        } else {
            many_.resize(words);
            met_ = many_.data();
        }
    }
    Branches(const Branches&) = delete;
    Branches& operator=(const Branches&) = delete;

    bool isNew(const GlobPattern::Step& step, size_t at) {
        const size_t bit = step.decision * places_ + at;
        const std::uint32_t mask = std::uint32_t{1} << (bit % kBits);
        const bool isMet = (met_[bit / kBits] & mask) != 0;
        met_[bit / kBits] |= mask;
        return !isMet;
    }
    void keep(size_t step, size_t at) {
        if (kept_ < first_.size())
            first_[kept_] = {step, at};
        else
            later_.push_back({step, at});
        ++kept_;
    }
    std::optional<Choice> take() {
        if (kept_ == 0) return std::nullopt;
        if (--kept_ < first_.size()) return first_[kept_];
        const Choice choice = later_.back();
        later_.pop_back();
        return choice;
    }
    void keepNone() {}  // another branch may end otherwise

  private:
    static constexpr size_t kBits = 32;
    size_t places_;
    std::uint32_t* met_;
    size_t kept_ = 0;
    std::array<std::uint32_t, 64> few_;
    std::array<Choice, 32> first_;
    std::vector<std::uint32_t> many_;
    std::vector<Choice> later_;
};

}  // namespace

GlobPattern::GlobPattern(std::string_view text, LeadingPeriod period)
    : program_(compileGlob(text)),
      matchesEverything_(period == LeadingPeriod::Ordinary && program_.steps[0].op == Op::Star &&
                         program_.steps[1].op == Op::End),
      period_(period) {}

bool GlobPattern::matches(std::string_view name) const {
    if (matchesEverything_) return true;
    if (program_.hasBranches) {
        Branches branches(program_.decisions, name.size());
        return run(name, branches);
    }
    LastStar lastStar;
    return run(name, lastStar);
}

template <class Choices>
bool GlobPattern::run(std::string_view name, Choices& choices) const {
    const size_t wildFrom = period_ == LeadingPeriod::Explicit && name.starts_with('.') ? 1 : 0;
    const Step* const steps = program_.steps.data();
    const char* const text = program_.text.data();
    size_t now = 0;
    size_t at = 0;
    for (;;) {
        const Step& step = steps[now];
        bool goesOn = false;
        switch (step.op) {
            case Op::Text:
                goesOn = name.size() - at >= step.length &&
                         std::memcmp(name.data() + at, text + step.operand, step.length) == 0;
                at += step.length;
                ++now;
                break;
            case Op::Any:
                goesOn = at >= wildFrom && at < name.size();
                ++at;
                ++now;
                break;
            case Op::Set:
                goesOn = at >= wildFrom && at < name.size() &&
                         program_.sets[step.operand].test(static_cast<unsigned char>(name[at]));
                ++at;
                ++now;
                break;
            case Op::Star: {
                if (at < wildFrom || !choices.isNew(step, at)) break;
                const Step& follower = steps[now + 1];
                if (step.operand != 0) {
                    choices.keepNone();
                    const size_t tail = step.operand - 1;
                    goesOn = name.size() - at >= tail;
                    at = name.size() - tail;
                } else {
                    goesOn = true;
                    if (follower.op == Op::Text) {
                        const size_t found = name.find(text[follower.operand], at);
                        goesOn = found != name.npos;
                        at = found;
                    }
                    if (goesOn && at < name.size()) choices.keep(now, at + 1);
                }
                ++now;
                break;
            }
            case Op::Fork:
                goesOn = choices.isNew(step, at);
                if (goesOn) choices.keep(step.operand, at);
                ++now;
                break;
            case Op::Join:
                goesOn = choices.isNew(step, at);
                ++now;
                break;
            case Op::Jump:
                goesOn = true;
                now = step.operand;
                break;
            case Op::End:
                if (at == name.size()) return true;
                break;
        }
        if (goesOn) continue;
        const std::optional<Choice> choice = choices.take();
        if (!choice) return false;
        now = choice->step;
        at = choice->at;
    }
}

}  // namespace traiklofox::files
