#pragma once

// A buffered reader and writer over one descriptor. Its state bits are FileLock's: end of file, failed, bad.

#include <cstddef>
#include <string_view>
#include <vector>

#include "foundation/sys.h"

namespace traiklofox::files {

class BufferedFile {
  public:
    /// Takes the descriptor over; the state is good.
    void attach(sys::UniqueFd fd);
    /// Writes what is buffered and closes; false when some of it could not be written.
    bool close();
    bool isOpen() const { return static_cast<bool>(fd_); }
    int descriptor() const { return fd_.get(); }

    int state() const { return state_; }
    bool good() const { return state_ == 0; }
    bool usable() const;  // neither failed nor bad
    void setFailed();

    /// Reads up to `size` bytes; less only at the end of the file or after an error.
    size_t read(char* buffer, size_t size);
    bool write(const char* data, size_t size);
    /// The next line, in the buffer, without its line feed. False: the end, an error, or a line longer than
    /// `longest`, of which `line` then holds the first `longest` characters (the rest is still to be read).
    bool readLine(std::string_view& line, size_t longest);
    /// Writes the buffered text. False: bad now, errno says why; the text is dropped, since nobody knows how
    /// much of it is in the file.
    bool flush();

  private:
    bool fill();
    void dropUnread();

    sys::UniqueFd fd_;
    int state_ = 0;
    // Unread input is [begin_, end_); while writing, [0, end_) is unwritten output.
    std::vector<char> buffer_;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool writing_ = false;
};

}  // namespace traiklofox::files
