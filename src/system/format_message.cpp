// format_message.cpp: where a message's text comes from, its sequences, its lines, and the memory it goes into.

#include <traiklofox/diagnostics.h>
#include <traiklofox/messages.h>

#include <cxxabi.h>
#include <nl_types.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "system/message_insert.h"

using namespace traiklofox::system;

namespace {

constexpr DWORD kSources =
    FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;

bool failWith(int error) {
    errno = error;
    return false;
}

/// A text, and whether sequences in it mean something.
struct MessageText {
    std::string text;
    bool hasSequences = true;
};

std::optional<MessageText> textOfCatalogue(LPCVOID catalogue, DWORD messageId) {
    const int facility = static_cast<int>(messageId >> 16 & 0xFFF);
    const int number = static_cast<int>(messageId & 0xFFFF);
    static const char kNone[] = "";  // by its address
    // Before the call, which gives the default for what is no catalogue, too.
    if (catalogue == nullptr || catalogue == reinterpret_cast<LPCVOID>(-1)) return std::nullopt;
    const char* text =
        ::catgets(const_cast<nl_catd>(catalogue), facility != 0 ? facility : NL_SETD, number, kNone);
    if (text == kNone) return std::nullopt;
    return MessageText{.text = text};
}

std::optional<MessageText> textOfSystem(DWORD messageId) {
    constexpr struct {
        LONG result;
        const char* text;
    } kOwn[] = {
        {ERROR_MORE_DATA, "More data is available"},
        {ERROR_NO_MORE_ITEMS, "No more items are available"},
    };
    for (const auto& row : kOwn)
        if (static_cast<DWORD>(row.result) == messageId) return MessageText{row.text, false};
    const int error = static_cast<int>(messageId);
    if (::strerrordesc_np(error) == nullptr) return std::nullopt;
    char buffer[256];
    return MessageText{::strerror_r(error, buffer, sizeof buffer), false};
}

/// Nothing, with errno, when there is none.
std::optional<MessageText> textFrom(DWORD flags, LPCVOID source, DWORD messageId) {
    const DWORD sources = flags & kSources;
    if ((sources & FORMAT_MESSAGE_FROM_STRING) != 0) {
        if (sources != FORMAT_MESSAGE_FROM_STRING || source == nullptr) {
            errno = EINVAL;
            return std::nullopt;
        }
        return MessageText{.text = static_cast<const char*>(source)};
    }
    const int error = errno;  // which a catalogue without the message changes
    std::optional<MessageText> text;
    if ((sources & FORMAT_MESSAGE_FROM_HMODULE) != 0) text = textOfCatalogue(source, messageId);
    if (!text && (sources & FORMAT_MESSAGE_FROM_SYSTEM) != 0) text = textOfSystem(messageId);
    errno = text ? error : sources == 0 ? EINVAL : ENOENT;
    return text;
}

/// One step through a text.
struct Piece {
    enum class Kind { Characters, LineEnd, HardLineEnd, Insert, End, Bad } kind = Kind::Characters;
    std::string_view text = {};
    MessageInsert insert = {};
};

Piece takeSequence(std::string_view& text) {
    using enum Piece::Kind;
    if (text.size() < 2) return {.kind = Bad};
    const char character = text[1];
    if (character >= '1' && character <= '9') {
        const std::string_view whole = text;
        Piece piece{.kind = Insert};
        text.remove_prefix(1);
        if (!takeInsert(text, piece.insert)) return {.kind = Bad};
        piece.text = whole.substr(0, whole.size() - text.size());
        return piece;
    }
    const std::string_view itself = text.substr(1, 1);
    text.remove_prefix(2);
    switch (character) {
        case '0': return {.kind = End};
        case 'n': return {.kind = HardLineEnd};
        case 'r': return {.text = "\r"};
        case 't': return {.text = "\t"};
        default: return {.text = itself};
    }
}

Piece takePiece(std::string_view& text, bool hasSequences) {
    if (text.empty()) return {.kind = Piece::Kind::End};
    if (text.front() == '%' && hasSequences) return takeSequence(text);
    if (text.front() == '\n' || text.starts_with("\r\n")) {
        text.remove_prefix(text.front() == '\n' ? 1 : 2);
        return {.kind = Piece::Kind::LineEnd};
    }
    constexpr size_t kMost = 4096;  // or a line of any length would be broken before it is found too long
    const size_t end = text.substr(0, kMost).find_first_of("%\r\n", 1);
    const std::string_view characters = text.substr(0, std::min(end, kMost));
    text.remove_prefix(characters.size());
    return {.text = characters};
}

/// Takes a message's pieces and breaks its lines.
class MessageLines {
  public:
    explicit MessageLines(DWORD width) : width_(width) {}

    std::string& message() { return message_; }

    /// Breaks the line that has become too long at its last blanks that leave it short enough.
    void breakLine() {
        if (width_ == 0 || width_ == FORMAT_MESSAGE_MAX_WIDTH_MASK) return;
        while (message_.size() - lineBegin_ > width_) {
            const size_t word = message_.find_first_not_of(' ', lineBegin_);
            if (word == message_.npos) return;
            size_t blank = message_.rfind(' ', lineBegin_ + width_);
            if (blank == message_.npos || blank < word) blank = message_.find(' ', word);
            if (blank == message_.npos) return;
            const size_t next = std::min(message_.find_first_not_of(' ', blank), message_.size());
            if (next == message_.size()) return;  // blanks at its end break nothing yet
            size_t end = blank;
            while (end > lineBegin_ && message_[end - 1] == ' ') --end;
            message_[end] = '\n';
            message_.erase(end + 1, next - end - 1);
            lineBegin_ = end + 1;
        }
    }
    void endLine(bool isHard) {
        if (width_ != 0 && !isHard) {
            message_ += ' ';
            return;
        }
        message_ += '\n';
        lineBegin_ = message_.size();
    }

  private:
    DWORD width_;
    std::string message_;
    size_t lineBegin_ = 0;
};

/// Notes what the inserts take. False, with errno, when a sequence is none.
bool expectArguments(const MessageText& text, MessageArguments& arguments) {
    std::string_view rest = text.text;
    for (;;) {
        const Piece piece = takePiece(rest, text.hasSequences);
        if (piece.kind == Piece::Kind::End) return true;
        if (piece.kind == Piece::Kind::Bad) return failWith(EINVAL);
        if (piece.kind == Piece::Kind::Insert) arguments.expect(piece.insert);
    }
}

/// False, with errno, when there are none to be had.
bool fetchArguments(const MessageText& text, DWORD flags, va_list* given, MessageArguments& arguments) {
    if (!expectArguments(text, arguments)) return false;
    if (!arguments.areExpected() || (flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0) return true;
    if (given == nullptr) return failWith(EINVAL);
    if ((flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0)
        arguments.fetch(reinterpret_cast<const DWORD_PTR*>(given));
    else
        arguments.fetch(given);
    return true;
}

/// Nothing, with errno, when it cannot be made.
std::optional<std::string> format(const MessageText& text, DWORD flags, const MessageArguments& arguments) {
    using enum Piece::Kind;
    MessageLines lines(flags & FORMAT_MESSAGE_MAX_WIDTH_MASK);
    std::string& message = lines.message();
    std::string_view rest = text.text;
    for (;;) {
        const Piece piece = takePiece(rest, text.hasSequences);
        switch (piece.kind) {
            case End:
            case Bad: return std::move(message);
            case LineEnd: lines.endLine(/*isHard=*/false); break;
            case HardLineEnd: lines.endLine(/*isHard=*/true); break;
            case Characters: message += piece.text; break;
            case Insert:
                if ((flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0)
                    message += piece.text;
                else if (!appendInsert(message, piece.insert, arguments))
                    return std::nullopt;
        }
        lines.breakLine();
        if (message.size() > kLongestMessage) {
            errno = ERANGE;
            return std::nullopt;
        }
    }
}

/// False with errno.
bool store(const std::string& message, DWORD flags, char* buffer, DWORD size) {
    if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        auto* memory = static_cast<char*>(LocalAlloc(LMEM_FIXED, std::max<SIZE_T>(size, message.size() + 1)));
        if (memory == nullptr) return false;
        std::memcpy(buffer, &memory, sizeof memory);  // the pointer that it points to
        buffer = memory;
    } else if (size <= message.size()) {
        return failWith(ERANGE);
    }
    std::memcpy(buffer, message.c_str(), message.size() + 1);
    return true;
}

DWORD formatMessage(DWORD flags, LPCVOID source, DWORD messageId, char* buffer, DWORD size, va_list* given) {
    const auto text = textFrom(flags, source, messageId);
    if (!text) return 0;
    MessageArguments arguments;
    if (!fetchArguments(*text, flags, given, arguments)) return 0;
    const auto message = format(*text, flags, arguments);
    if (!message || !store(*message, flags, buffer, size)) return 0;
    if (message->empty()) errno = 0;
    return static_cast<DWORD>(message->size());
}

}  // namespace

DWORD FormatMessage(DWORD flags, LPCVOID source, DWORD messageId, DWORD /*languageId*/, LPTSTR buffer,
                    DWORD size, va_list* arguments) {
    if (buffer == nullptr) return failWith(EINVAL);
    try {
        return formatMessage(flags, source, messageId, buffer, size, arguments);
    } catch (const abi::__forced_unwind&) {
        throw;       // pthread_cancel: swallowing it aborts the process
    } catch (...) {  // a text that cannot be had
        return failWith(ENOMEM);
    }
}

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) {
    if ((flags & ~LPTR) != 0) {
        errno = EINVAL;
        return nullptr;
    }
    bytes = std::max<SIZE_T>(bytes, 1);
    return (flags & LMEM_ZEROINIT) != 0 ? std::calloc(bytes, 1) : std::malloc(bytes);
}

HLOCAL LocalFree(HLOCAL memory) {
    std::free(memory);
    return nullptr;
}
