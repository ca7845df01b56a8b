// glob_compiler.cpp: the text of a file name pattern becomes a program.

#include <iterator>
#include <utility>

#include "files/glob_pattern.h"

namespace traiklofox::files {

namespace {

using Op = GlobPattern::Op;
using Program = GlobPattern::Program;

constexpr std::uint32_t kNone = UINT32_MAX;

/// A piece of the text that means one thing.
struct Token {
    enum class Kind : std::uint8_t { Byte, Any, Set, Star, Open, Comma, Close } kind;
    char byte = 0;
    std::uint32_t link = kNone;  // Set: which; Open: its Close; Comma: its Open
    std::uint32_t commas = 0;    // Open
};

class Tokenizer {
  public:
    explicit Tokenizer(std::string_view text) : rest_(text) {}

    std::vector<Token> run() {
        while (!rest_.empty()) take();
        return std::move(tokens_);
    }
    std::vector<std::bitset<256>> takeSets() { return std::move(sets_); }

  private:
    void take() {
        const char byte = rest_.front();
        if (byte == '[' && takeSet()) return;
        rest_.remove_prefix(1);
        switch (byte) {
            case '*': return add({Token::Kind::Star});
            case '?': return add({Token::Kind::Any});
            case '{': open_.push_back(count()); return add({Token::Kind::Open, byte});
            case ',': return open_.empty() ? addByte(byte) : addComma();
            case '}': return open_.empty() ? addByte(byte) : close();
            default: return addByte(byte);
        }
    }

    void addComma() {
        ++tokens_[open_.back()].commas;
        add({Token::Kind::Comma, ',', open_.back()});
    }

    void close() {
        Token& open = tokens_[open_.back()];
        open_.pop_back();
        if (&open == &tokens_.back()) {
            open = {Token::Kind::Byte, '{'};
            return addByte('}');
        }
        open.link = count();
        add({Token::Kind::Close});
    }

    /// False when no "]" closes it.
    bool takeSet() {
        if (noMoreSets_) return false;
        const bool isNegated = rest_.substr(1).starts_with('!');
        const size_t first = isNegated ? 2 : 1;
        const size_t end = rest_.find(']', first + 1);  // a "]" in the first place is a member
        noMoreSets_ = end == std::string_view::npos;    // then none that begins later is closed either
        if (noMoreSets_) return false;

        std::bitset<256> members = membersOf(rest_.substr(first, end - first));
        add({Token::Kind::Set, /*byte=*/0, static_cast<std::uint32_t>(sets_.size())});
        sets_.push_back(isNegated ? ~members : members);
        rest_.remove_prefix(end + 1);
        return true;
    }

    static std::bitset<256> membersOf(std::string_view list) {
        std::bitset<256> members;
        while (!list.empty()) {
            const bool isRange = list.size() > 2 && list[1] == '-';
            const auto low = static_cast<unsigned char>(list[0]);
            const auto high = static_cast<unsigned char>(list[isRange ? 2 : 0]);
            for (unsigned int byte = low; byte <= high; ++byte) members.set(byte);
            list.remove_prefix(isRange ? 3 : 1);
        }
        return members;
    }

    std::uint32_t count() const { return static_cast<std::uint32_t>(tokens_.size()); }
    void add(const Token& token) { tokens_.push_back(token); }
    void addByte(char byte) { add({Token::Kind::Byte, byte}); }

    std::string_view rest_;
    std::vector<Token> tokens_;
    std::vector<std::bitset<256>> sets_;
    std::vector<std::uint32_t> open_;
    bool noMoreSets_ = false;
};

class Compiler {
  public:
    Program run(std::string_view text) {
        Tokenizer tokenizer(text);
        const std::vector<Token> tokens = tokenizer.run();
        program_.sets = tokenizer.takeSets();
        for (const Token& token : tokens) compile(token, tokens);
        add({Op::End});
        measureTail();
        return std::move(program_);
    }

  private:
    /// Braces that are not closed yet.
    struct Group {
        std::uint32_t commas;        // that follow
        std::uint32_t fork = kNone;  // the Fork that leads to the next alternative
        std::uint32_t jump = kNone;  // the last alternative's Jump to the end; its operand is the one before
    };

    void compile(const Token& token, const std::vector<Token>& tokens) {
        switch (token.kind) {
            case Token::Kind::Byte: return addByte(token.byte);
            case Token::Kind::Any: return add({Op::Any});
            case Token::Kind::Set: return add({Op::Set, token.link});
            case Token::Kind::Star:
                if (!endsIn(Op::Star)) addDecision(Op::Star);
                return;
            case Token::Kind::Open: return token.link == kNone ? addByte(token.byte) : open(token.commas);
            case Token::Kind::Comma:
                return tokens[token.link].link == kNone ? addByte(token.byte) : nextAlternative();
            case Token::Kind::Close: return close();
        }
    }

    void open(std::uint32_t commas) {
        groups_.push_back({commas});
        if (commas > 0) beginAlternative(groups_.back());
    }

    void nextAlternative() {
        Group& group = groups_.back();
        const std::uint32_t jump = next();
        add({Op::Jump, std::exchange(group.jump, jump)});
        program_.steps[group.fork].operand = next();
        if (--group.commas > 0) beginAlternative(group);
    }

    /// For one that another follows.
    void beginAlternative(Group& group) {
        group.fork = next();
        addDecision(Op::Fork);
    }

    void close() {
        std::uint32_t jump = groups_.back().jump;
        groups_.pop_back();
        if (jump == kNone) return;
        while (jump != kNone) jump = std::exchange(program_.steps[jump].operand, next());
        addDecision(Op::Join);
    }

    void addByte(char byte) {
        if (!endsIn(Op::Text)) add({Op::Text, static_cast<std::uint32_t>(program_.text.size())});
        program_.text += byte;
        ++program_.steps.back().length;
    }

    void addDecision(Op op) {
        program_.hasBranches |= op == Op::Fork;
        add({op, /*operand=*/0, /*length=*/0, program_.decisions++});
    }

    /// The last star knows where the rest must stand, if that has a fixed length.
    void measureTail() {
        std::uint32_t tail = 0;
        for (auto step = std::next(program_.steps.rbegin()); step != program_.steps.rend(); ++step) {
            switch (step->op) {
                case Op::Text: tail += step->length; break;
                case Op::Any:
                case Op::Set: ++tail; break;
                case Op::Star: step->operand = tail + 1; return;
                case Op::Fork:
                case Op::Join:
                case Op::Jump:
                case Op::End: return;
            }
        }
    }

    bool endsIn(Op op) const { return !program_.steps.empty() && program_.steps.back().op == op; }
    std::uint32_t next() const { return static_cast<std::uint32_t>(program_.steps.size()); }
    void add(const GlobPattern::Step& step) { program_.steps.push_back(step); }

    Program program_;
    std::vector<Group> groups_;
};

}  // namespace

GlobPattern::Program compileGlob(std::string_view text) {
    return Compiler().run(text);
}

}  // namespace traiklofox::files
