#pragma once

/// A file that is opened and locked in one step.

#include <traiklofox/file_status.h>
#include <traiklofox/strings.h>
#include <traiklofox/thread_safety.h>
#include <traiklofox/types.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace traiklofox::files {
class BufferedFile;
}

/// A buffered stream that reads and writes one file at one position, and locks it against other processes.
///
/// The lock is a POSIX record lock (`lockf`) on the whole file, however long it is or becomes, and belongs to
/// the process: two `FileLock`s in one process do not exclude each other, closing *any* descriptor of the
/// file in the process gives the lock up, and a forked child does not inherit it. It excludes only those who
/// ask for it.
///
/// What is written is buffered. `Flush` and `Sync` say whether it is in the file; so do `CloseAndUnLockFile`,
/// `CloseFileUnLocked`, `UnLockFile` and `FileStat`, which flush first. Once writing has failed, the stream
/// is bad until it is closed: text that was buffered is dropped, some of it may be in the file, and nothing
/// more is written.
///
/// Thread safety: opening and closing may come from several threads, so that nested counted opens open the
/// file once; who opens while another thread still waits for the file's lock waits with it. Reading, writing,
/// locking and flushing are for one thread at a time. Members that return BOOL return TRUE or FALSE, with
/// `errno` as the failed system call left it. May throw `std::bad_alloc`.
class TRAIKLOFOX_API TRAIKLOFOX_CAPABILITY("file lock's opening") FileLock {
  public:
    /// How to open a file, combined by "|":
    ///
    ///     in                             reads
    ///     out, out|trunc                 empties, then writes
    ///     app, out|app                   writes at the end
    ///     in|out                         reads and writes
    ///     in|out|trunc                   empties, then reads and writes
    ///     in|app, in|out|app             reads, and writes at the end
    ///
    /// A missing file is made unless `nocreate` is given; an existing one is refused with `noreplace`
    /// (EEXIST); `ate` goes to the end at first. Any other combination is refused with EINVAL.
    enum Mode : int { in = 1, out = 2, ate = 4, app = 8, trunc = 16, nocreate = 32, noreplace = 64 };

    /// The bits of `GetState`.
    enum State : int {
        eofbit = 1,   ///< reading met the end of the file
        failbit = 2,  ///< opening failed, there was no line or character left to read, or a line did not fit
        badbit = 4,   ///< a system call that reads or writes failed
    };

    /// With a name: `OpenAndLockFile(name, mode, nullptr, 0)`, and `GetState` and `GetFileDescriptor` tell
    /// what came of it. With a null one: closed.
    explicit FileLock(const char* name = nullptr, int mode = in);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    /// Writes what is buffered, as far as it can, and closes, which gives the lock up.
    ~FileLock();

    /// Opens `name` with `mode` and `out` (so that it may be locked), permissions 0664, and waits for the
    /// lock without limit. While the process has no descriptor left (EMFILE) it tries again every 10 ms,
    /// without limit.
    ///
    /// Only these modes are locked: in, out|trunc, in|out|trunc, in|nocreate, out|trunc|nocreate,
    /// in|out|trunc|nocreate, out|trunc|noreplace. With any other that can be opened, the file is open and
    /// unlocked, and the result is FALSE. A file that is locked is emptied only once it is locked, so that
    /// its holder loses nothing.
    ///
    /// already  may be null. Set to 1 when the object was open already, or when `noreplace` met an existing
    ///          file.
    /// count    non-zero counts the opens: while the file is open, a further call, whatever its arguments,
    ///          adds one to the count and returns TRUE, and it takes as many `CloseAndUnLockFile` to close.
    ///          Opening an object that is open uncounted closes it first.
    /// Returns TRUE when the file is open and locked. FALSE when it cannot be opened or locked: it is then
    /// closed, and a message stands on standard error, unless `noreplace` met an existing file.
    BOOL OpenAndLockFile(const char* name, int mode, int* already, int count);
    /// Opens `name` with exactly `mode`, permissions 0644, unlocked, after closing what was open.
    BOOL OpenFileUnLocked(const char* name, int mode);
    /// Closes, whatever the count. FALSE when buffered text could not be written.
    BOOL CloseFileUnLocked();
    /// Takes one from the count; returns TRUE at once if more are left. The last one, or the only one of an
    /// uncounted open, unlocks and closes. FALSE when the file is not open, when unlocking failed (it then
    /// stays open), or when buffered text could not be written (it is closed all the same).
    BOOL CloseAndUnLockFile();
    /// Closes, whatever the count. Call `Flush` before to know that all text is in the file.
    void CloseFile();

    /// Waits for the lock, without limit.
    BOOL LockFile();
    /// Gives the lock up. FALSE also when buffered text could not be written; the lock is given up all the
    /// same.
    BOOL UnLockFile();

    /// The descriptor, which stays the object's own; -1 when closed.
    int GetFileDescriptor() const;
    /// `fstat`, with all text in the file: 0, or -1 with `errno`. A number that does not fit the caller's record
    /// is cut to its low bits, as `KZFileStatus` says, and never makes it fail. (Inline, since `struct stat`
    /// depends on how the caller is compiled.)
    __attribute__((always_inline)) int FileStat(struct stat* status) {
        KZFileStatus known;
        if (!FileStat(&known)) return -1;
        known.GetStat(status);
        return 0;
    }
    /// The same, uncut: TRUE, or FALSE with `errno` and `*status` as it was.
    BOOL FileStat(KZFileStatus* status);

    /// Reads up to `count` bytes. Returns how many, less than `count` only at the end of the file; 0 at the
    /// end, for a closed or bad stream, and after an error (`IsBad`).
    int ReadBlk(void* buffer, int count);
    /// Writes `count` bytes. Returns `count`, or 0 when the stream is closed or bad.
    int WriteBlk(const void* buffer, int count);
    /// Reads a line of at most `size` - 1 characters, without its line feed, NULs included, and ends it with
    /// a NUL. A last line without a line feed is a line. FALSE when the stream had failed, at the end of the
    /// file (`IsEndOfFile`), after an error (`IsBad`), and for a longer line, of which the buffer holds the
    /// beginning; each of these makes the stream fail.
    BOOL ReadLine(char* buffer, int size);
    /// `ReadLine` without a copy: `line`, of at most `longest` characters, is valid until the next operation.
    bool ReadLineView(std::string_view& line, size_t longest);
    /// Writes exactly `count` characters, and no line feed. FALSE when the stream had failed or fails now.
    BOOL WriteLine(const char* text, int count);
    /// The next character, as a signed value; -1 at the end of the file, after an error and when the stream
    /// had failed (`GetState` tells that from a character of this value).
    int ReadCharacter();

    /// Writes what is buffered.
    BOOL Flush();
    /// Writes what is buffered and waits until the file's content is on the disk.
    BOOL Sync();

    /// The `State` bits; opening and closing clear them.
    int GetState() const;
    bool IsBad() const { return (GetState() & badbit) != 0; }
    bool IsEndOfFile() const { return (GetState() & eofbit) != 0; }

  private:
    class Section;

    bool open(const char* fileName, int flags, unsigned int permissions, bool atEnd)
        TRAIKLOFOX_REQUIRES(this);
    bool clearInformation() TRAIKLOFOX_REQUIRES(this);
    void failToOpen(int error) TRAIKLOFOX_REQUIRES(this);
    bool lockWholeFile(int command);

    const std::unique_ptr<traiklofox::files::BufferedFile> stream;
    CKZString name TRAIKLOFOX_GUARDED_BY(this);      // empty when closed
    LONG openCount TRAIKLOFOX_GUARDED_BY(this) = 0;  // counted opens outstanding
    pthread_mutex_t opening = PTHREAD_MUTEX_INITIALIZER;
};
