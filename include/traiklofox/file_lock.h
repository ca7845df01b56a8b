#pragma once

/// A file that is opened and locked in one step.

#include <traiklofox/strings.h>
#include <traiklofox/types.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>

struct stat;

namespace traiklofox::files {
class BufferedFile;
}

/// A buffered file stream over one descriptor, locked against other processes with `lockf`.
///
/// The lock is a POSIX record lock on the whole file: it is the process's. Two `FileLock`s of one process do
/// not exclude each other, and closing any descriptor of the file in the process gives the lock up.
///
/// Thread safety: one object's counted opens and closes may come from several threads; reading and writing
/// through it is for one thread at a time.
class TRAIKLOFOX_API FileLock {
  public:
    /// How to open; combine by "|". `in` alone reads; `out`, also with `trunc`, truncates and writes; `app`
    /// appends; `in | out` reads and writes; `in | out | trunc` truncates before; `in | app` reads and
    /// appends. A missing file is made unless `nocreate` is given; an existing one is refused with
    /// `noreplace`. `ate` goes to the end.
    enum Mode : int { in = 1, out = 2, ate = 4, app = 8, trunc = 16, nocreate = 32, noreplace = 64 };

    /// Bits of `GetState`: the end of the file was met, an operation failed, the descriptor failed.
    enum State : int { eofbit = 1, failbit = 2, badbit = 4 };

    /// Opens and locks `name` as `OpenAndLockFile(name, mode, nullptr, 0)` does; a null name leaves it
    /// closed.
    FileLock(const char* name, int mode);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    /// Writes what is buffered, as far as it can, and closes, which gives the lock up.
    ~FileLock();

    /// Opens `name` with `mode` and `out` (so that it can be locked), permissions 0664, and waits for the
    /// lock without limit. While the process has no descriptor left it tries again every 10 ms. True: opened
    /// and locked.
    ///
    /// Only these modes are locked: in, out|trunc, in|out|trunc, in|nocreate, out|trunc|nocreate,
    /// in|out|trunc|nocreate and out|trunc|noreplace. With any other the file is open, unlocked, and the
    /// result FALSE. The `out` that is added truncates nothing.
    ///
    /// count    non-zero: the open is counted. Another counted or uncounted open of this object then only
    /// adds to the
    ///          count and sets `*already` to 1, and the file closes with as many `CloseAndUnLockFile`.
    /// already  may be null; set to 1 also when a file refused by `noreplace` exists (which is not reported).
    /// FALSE for any other failure, reported on standard error; errno says why.
    BOOL OpenAndLockFile(const char* name, int mode, int* already, int count);
    /// Opens `name` with exactly `mode`, permissions 0644, unlocked, after closing what was open. FALSE:
    /// errno says why.
    BOOL OpenFileUnLocked(const char* name, int mode);
    /// Writes what is buffered and closes. Always TRUE; call `Flush` first to know.
    BOOL CloseFileUnLocked();
    /// Takes one from the count; the last, or an uncounted open's only one, writes what is buffered, unlocks
    /// and closes. FALSE when the unlocking failed (the file stays open) or when the buffered text could not
    /// be written.
    BOOL CloseAndUnLockFile();
    /// Closes the stream if it is open; the name and the count stay.
    void CloseFile();

    /// Waits for the lock / gives it up, after writing what is buffered. FALSE: errno says why.
    BOOL LockFile();
    BOOL UnLockFile();

    /// The descriptor, which stays the object's own; -1 when closed.
    int GetFileDescriptor() const;
    /// The name it was opened with; empty when closed.
    const CKZString& GetName() const { return name; }
    /// `fstat` after writing what is buffered: 0, or -1 with errno.
    int FileStat(struct stat* status);

    /// Reads up to `count` bytes. Returns how many were read, less only at the end of the file; 0 after an
    /// error.
    int ReadBlk(char* buffer, int count);
    /// Writes `count` bytes. Returns `count`, or 0 when the stream is bad afterwards.
    int WriteBlk(const char* buffer, int count);
    /// Reads a line, without its line feed, NUL-terminated. FALSE at the end of the file, after an error, and
    /// for a line longer than `size` - 1, of which the buffer then holds the beginning.
    BOOL ReadLine(char* buffer, int size);
    /// As `ReadLine`, without a copy: `line` is valid until the next operation. At most `longest` characters.
    bool ReadLineView(std::string_view& line, size_t longest);
    /// Writes exactly `count` bytes, and no line feed. FALSE when the stream had failed or fails now.
    BOOL WriteLine(const char* buffer, int count);
    /// The next character, as a signed value, or -1 at the end of the file or after an error.
    int ReadCharacter();

    /// Writes what is buffered. FALSE: errno says why; the stream is bad from then on.
    BOOL Flush();
    /// `Flush`, and puts the file's data on the disk.
    BOOL Sync();

    /// The `State` bits. A read error is bad, the end of the file is not.
    int GetState() const;
    bool IsBad() const { return (GetState() & badbit) != 0; }
    bool IsEndOfFile() const { return (GetState() & eofbit) != 0; }

  private:
    void clearInformation();

    const std::unique_ptr<traiklofox::files::BufferedFile> stream;
    CKZString name;
    std::atomic<LONG> openCount;
};
