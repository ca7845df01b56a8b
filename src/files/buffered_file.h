#pragma once

// A buffered reader and writer over one descriptor, with the state bits of a classic stream. Not thread-safe.

#include <cstddef>
#include <string_view>
#include <vector>

#include "foundation/sys.h"

namespace traiklofox::files {

class BufferedFile {
  public:
    static constexpr int kEndOfFile = 1;  // a read met the end; it is not tried again
    static constexpr int kFailed = 2;     // an operation had nothing to give, or not all of it
    static constexpr int kBad = 4;        // a system call failed

    BufferedFile() = default;
    ~BufferedFile() { (void)close(); }  // who must know has flushed before
    BufferedFile(const BufferedFile&) = delete;
    BufferedFile& operator=(const BufferedFile&) = delete;

    /// Takes the descriptor over. The stream was closed.
    void attach(sys::UniqueFd fd) { fd_ = std::move(fd); }
    /// Writes what is buffered, closes and clears the state. False when some text could not be written.
    bool close();

    int descriptor() const { return fd_.get(); }
    int state() const { return state_; }
    bool isUsable() const { return fd_ && (state_ & (kFailed | kBad)) == 0; }
    void setFailed() { state_ |= kFailed; }

    /// Reads up to `size` bytes. Less only at the end of the file, which makes the stream fail; 0 after an
    /// error.
    size_t read(char* buffer, size_t size);
    /// The next line, in the buffer, without its line feed; valid until the next operation. False, and the
    /// stream has failed: at the end of the file, after an error, or for a line longer than `longest`, of
    /// which `line` then holds the first `longest` characters, the rest being still to be read.
    bool readLine(std::string_view& line, size_t longest);
    /// Writes all or fails. Reading to the end, or a line that did not fit, does not keep a stream from
    /// writing.
    bool write(const char* data, size_t size);
    /// Writes the buffered text. False: the stream is bad, and the text is dropped, since nobody knows how
    /// much of it is in the file.
    bool flush();
    /// Puts the file's content on the disk. False: the stream is bad, since what is lost may be of any
    /// earlier write.
    bool sync();

  private:
    bool fill();
    void startWriting();
    bool writeThrough(const char* data, size_t size);
    bool becomeBad();

    sys::UniqueFd fd_;
    int state_ = 0;
    int error_ = 0;  // while bad: the errno that each refused operation reports
    // While reading, [begin_, end_) is unread input; while writing, [0, end_) is unwritten output.
    bool writing_ = false;
    std::vector<char> buffer_;
    size_t begin_ = 0;
    size_t end_ = 0;
};

}  // namespace traiklofox::files
