#include "files/buffered_file.h"

#include <algorithm>
#include <cstring>

namespace traiklofox::files {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

}  // namespace

bool BufferedFile::close() {
    const bool written = flush();
    const int error = errno;
    begin_ = end_ = 0;
    writing_ = false;
    state_ = 0;
    // EINTR is no loss: the descriptor is gone and the text was handed over.
    const bool closed = !fd_ || sys::close(fd_.release()) == 0 || errno == EINTR;
    if (!written) errno = error;
    return written && closed;
}

// Reads more behind what is unread, making room. False at the end of the file and after an error.
bool BufferedFile::fill() {
    if ((state_ & kEndOfFile) != 0) return false;
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= begin_;
    begin_ = 0;
    if (end_ == buffer_.size()) buffer_.resize(std::max(kBufferSize, buffer_.size() * 2));  // for a long line
    const ssize_t got = sys::read(fd_.get(), buffer_.data() + end_, buffer_.size() - end_);
    if (got < 0) return becomeBad();
    if (got == 0) {
        state_ |= kEndOfFile;
        return false;
    }
    end_ += static_cast<size_t>(got);
    return true;
}

size_t BufferedFile::read(char* buffer, size_t size) {
    if (!isUsable() || !flush()) return 0;
    size_t done = 0;
    while (done < size && (begin_ < end_ || fill())) {
        const size_t part = std::min(size - done, end_ - begin_);
        std::memcpy(buffer + done, buffer_.data() + begin_, part);
        begin_ += part;
        done += part;
    }
    if (done < size) setFailed();
    return (state_ & kBad) == 0 ? done : 0;
}

bool BufferedFile::readLine(std::string_view& line, size_t longest) {
    if (!flush()) return false;
    size_t searched = 0;
    for (;;) {
        std::string_view unread(buffer_.data() + begin_, end_ - begin_);
        const size_t feed = unread.find('\n', searched);
        if (std::min(feed, unread.size()) > longest) {
            line = unread.substr(0, longest);
            begin_ += longest;
            setFailed();
            return false;
        }
        if (feed != std::string_view::npos) {
            line = unread.substr(0, feed);
            begin_ += feed + 1;
            return true;
        }
        searched = unread.size();
        if (fill()) continue;
        const bool isLastLine = (state_ & kBad) == 0 && begin_ < end_;
        if (isLastLine) {
            line = {buffer_.data() + begin_, end_ - begin_};
            begin_ = end_;
        } else {
            setFailed();
        }
        return isLastLine;
    }
}

// The descriptor's position is where the buffer's input ends; the caller's is where he has read to.
void BufferedFile::startWriting() {
    if (begin_ < end_) (void)sys::lseek(fd_.get(), -static_cast<off_t>(end_ - begin_), SEEK_CUR);
    begin_ = end_ = 0;
    writing_ = true;
}

bool BufferedFile::write(const char* data, size_t size) {
    if (!fd_) {
        errno = EBADF;
        return false;
    }
    if ((!writing_ || end_ + size > kBufferSize) && !flush()) return false;
    if (!writing_) startWriting();
    if (size >= kBufferSize) return writeThrough(data, size);
    if (buffer_.size() < kBufferSize) buffer_.resize(kBufferSize);
    std::copy_n(data, size, buffer_.data() + end_);
    end_ += size;
    return true;
}

bool BufferedFile::flush() {
    if (writing_) {
        const size_t size = std::exchange(end_, 0);
        writing_ = false;
        if (size > 0 && !writeThrough(buffer_.data(), size)) return false;
    }
    if ((state_ & kBad) == 0) return true;
    errno = error_;
    return false;
}

bool BufferedFile::writeThrough(const char* data, size_t size) {
    return sys::writeAll(fd_.get(), data, size) || becomeBad();
}

bool BufferedFile::sync() {
    return sys::fdatasync(fd_.get()) == 0 || becomeBad();
}

// What is buffered is of no use any more.
bool BufferedFile::becomeBad() {
    state_ |= kBad;
    error_ = errno;
    begin_ = end_ = 0;
    writing_ = false;
    return false;
}

}  // namespace traiklofox::files
