#include "files/buffered_file.h"

#include <traiklofox/file_lock.h>

#include <algorithm>
#include <cstring>

namespace traiklofox::files {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

}  // namespace

void BufferedFile::attach(sys::UniqueFd fd) {
    fd_ = std::move(fd);
    state_ = 0;
    begin_ = end_ = 0;
    writing_ = false;
}

bool BufferedFile::close() {
    const bool written = flush();
    fd_.reset();
    begin_ = end_ = 0;
    writing_ = false;
    return written;
}

bool BufferedFile::usable() const {
    return fd_ && (state_ & (FileLock::failbit | FileLock::badbit)) == 0;
}

void BufferedFile::setFailed() {
    state_ |= FileLock::failbit;
}

/// Makes room and reads more behind what is unread. False at the end of the file and after an error.
bool BufferedFile::fill() {
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size()) buffer_.resize(std::max(kBufferSize, buffer_.size() * 2));
    const ssize_t got = sys::read(fd_.get(), buffer_.data() + end_, buffer_.size() - end_);
    if (got > 0) {
        end_ += static_cast<size_t>(got);
        return true;
    }
    state_ |= got == 0 ? FileLock::eofbit : FileLock::badbit;
    return false;
}

/// Puts the descriptor's position where the caller believes it is.
void BufferedFile::dropUnread() {
    if (begin_ < end_) (void)sys::lseek(fd_.get(), -static_cast<off_t>(end_ - begin_), SEEK_CUR);
    begin_ = end_ = 0;
}

size_t BufferedFile::read(char* buffer, size_t size) {
    if (writing_ && !flush()) return 0;
    size_t done = 0;
    while (done < size) {
        if (begin_ == end_ && !fill()) break;
        const size_t part = std::min(size - done, end_ - begin_);
        std::memcpy(buffer + done, buffer_.data() + begin_, part);
        begin_ += part;
        done += part;
    }
    return done;
}

bool BufferedFile::write(const char* data, size_t size) {
    if (!fd_ || (state_ & FileLock::badbit) != 0) return false;
    if (!writing_) {
        dropUnread();
        writing_ = true;
    }
    if (end_ + size > kBufferSize && !flush()) return false;
    writing_ = true;
    if (size >= kBufferSize) {
        if (sys::writeAll(fd_.get(), data, size)) return true;
        state_ |= FileLock::badbit;
        return false;
    }
    if (buffer_.size() < kBufferSize) buffer_.resize(kBufferSize);
    std::memcpy(buffer_.data() + end_, data, size);
    end_ += size;
    return true;
}

bool BufferedFile::readLine(std::string_view& line, size_t longest) {
    if (writing_ && !flush()) return false;
    size_t searched = 0;
    for (;;) {
        const char* start = buffer_.data() + begin_;
        const size_t unread = end_ - begin_;
        const void* feed =
            unread > searched ? std::memchr(start + searched, '\n', unread - searched) : nullptr;
        const size_t length =
            feed != nullptr ? static_cast<size_t>(static_cast<const char*>(feed) - start) : unread;
        if (length > longest) {
            line = {start, longest};
            begin_ += longest;
            setFailed();
            return false;
        }
        if (feed != nullptr) {
            line = {start, length};
            begin_ += length + 1;
            return true;
        }
        searched = unread;
        if (fill()) continue;
        if ((state_ & FileLock::badbit) != 0) return false;
        line = {buffer_.data() + begin_, end_ - begin_};  // the last line may lack its line feed
        begin_ = end_;
        if (line.empty()) setFailed();
        return !line.empty();
    }
}

bool BufferedFile::flush() {
    if (!writing_) return (state_ & FileLock::badbit) == 0;
    const size_t size = end_;
    end_ = 0;
    writing_ = false;
    if (size == 0 || sys::writeAll(fd_.get(), buffer_.data(), size)) return (state_ & FileLock::badbit) == 0;
    state_ |= FileLock::badbit;
    return false;
}

}  // namespace traiklofox::files
