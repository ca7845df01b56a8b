#pragma once

/// The registry: a tree of keys and values that every process of the installation shares through one text
/// file.
///
/// Each process holds its own copy of the tree. Opening or creating a key first brings the copy up to date
/// when another process has written the file; a change is written at `RegCloseKey` or `RegFlushKey`, at once
/// or, where the application runs `RegLazyWriteThread`, at that thread's next interval. The file is replaced
/// whole, by rename, after it has reached the disk: readers see the old registry or the new one, never half
/// of one. A child of `fork` has the parent's changes that are not written yet, and may write them again, over what
/// others have written since: flush before you fork.
///
/// Every function brings the registry up first if it is not (`InitRegistry(0, true)`); see there for the
/// files, the environment variable TWHOME and what ends the process; so does a semaphore that fails, since nothing is
/// safe without it. Every function may be called by any thread. None throws, except that those with a CKZString for a
/// result may throw std::bad_alloc.
///
/// Results are 0 or one of the codes below. ERROR_FILE_NOT_FOUND is never returned: a missing key or value
/// gives ERROR_INVALID_DATA (13). Every other failure is -1.

#include <traiklofox/diagnostics.h>
#include <traiklofox/handle.h>
#include <traiklofox/strings.h>

#include <sys/types.h>

#include <vector>

class RegKey;

/// An open key: the key's number, with bit 30 set when it was opened for writing.
typedef LONG HKEY;
typedef HKEY* PHKEY;
typedef DWORD REGSAM;

/// The root. Paths below it are formed with the upper-case word "HKEY_LOCAL_MACHINE"; see `RegCreateKeyEx`
/// for what that means for keys created directly below it.
constexpr HKEY HKEY_LOCAL_MACHINE = static_cast<HKEY>(0);

/// Types of values.
constexpr DWORD REG_NONE = 0;      ///< no value has it
constexpr DWORD REG_SZ = 1;        ///< NUL-terminated text
constexpr DWORD REG_DWORD = 4;     ///< a 32-bit number
constexpr DWORD REG_MULTI_SZ = 7;  ///< texts, each NUL-terminated, and one more NUL

/// Access masks. Only the bits 0x60000 matter: they make the handle one for writing. `KEY_READ` has none of
/// them.
constexpr REGSAM KEY_QUERY_VALUE = 0x1;
constexpr REGSAM KEY_SET_VALUE = 0x2;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x4;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x8;
constexpr REGSAM KEY_NOTIFY = 0x10;
constexpr REGSAM KEY_READ = 0x19;
constexpr REGSAM KEY_WRITE = 0x20006;
constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

constexpr DWORD REG_OPTION_NON_VOLATILE = 0;  ///< the one kind of key that there is

/// What `RegCreateKeyEx` did.
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

/// Bits of `InitRegistry`'s first argument.
constexpr DWORD REG_INIT_BACKUP = 1;  ///< copy the registry file to its ".bak" first

/// How the cache lock is taken.
enum RegLockOp_t : int {
    REG_LOCK_SHARED = 0,
    REG_LOCK_EXCLUSIVE = 1,
};

/// One value of `RegBatchSetValueEx`. `data` is in the file's text form, which `RegSetValueNode` makes.
struct RegValueList {
    CKZString name;  ///< the value's name
    DWORD type;      ///< REG_SZ, REG_DWORD or REG_MULTI_SZ
    CKZString data;  ///< in the file's text form
};

/// Opens an existing key. `hKey` is 0 or an open key, `lpSubKey` a path below it, components separated by
/// "\", ASCII letter case ignored; null or empty opens `hKey`'s key again. `ulOptions` is ignored. `samDesired`:
/// with any of the bits 0x60000 (KEY_WRITE, KEY_ALL_ACCESS) the handle may change values. Returns 0 and the
/// handle in `*phkResult` (close it with `RegCloseKey`), or 13: no such key, an unknown or closed `hKey`, or
/// a null `phkResult`.
///
/// When nobody has written since this process last looked, it takes no process-wide lock and makes no system
/// call.
TRAIKLOFOX_C_API LONG RegOpenKeyEx(HKEY hKey, const char* lpSubKey, DWORD ulOptions, REGSAM samDesired,
                                   PHKEY phkResult);

/// Opens a key, creating it and the keys on the way to it when missing.
///
/// A key created directly under handle 0 carries the upper-case root word in its name, which the registry
/// file's readers do not take for a key: it does not survive being written and read back, and its values go
/// to the key before it in the file. So open the nearest existing key first and create below that; such a key
/// keeps the case of its parent, and lasts.
///
/// Arguments as for `RegOpenKeyEx`; `Reserved`, `lpClass`, `dwOptions` and the security attributes are
/// ignored.
/// `*lpdwDisposition` receives REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY. With a null `lpdwDisposition`
/// a new key is not marked as changed: it reaches the file with the next write that happens for another
/// reason. Returns 0, or -1: a null `lpSubKey` or `phkResult`, an unknown or closed `hKey`, or a name that
/// the file cannot hold (a line feed or a colon in it, a name too long for a line); the last is reported on
/// standard error.
TRAIKLOFOX_C_API LONG RegCreateKeyEx(HKEY hKey, const char* lpSubKey, DWORD Reserved, char* lpClass,
                                     DWORD dwOptions, REGSAM samDesired,
                                     _SECURITY_ATTRIBUTES* lpSecurityAttributes, PHKEY phkResult,
                                     LPDWORD lpdwDisposition);

/// Reads a value. A null `lpValueName` means the value with the empty name. `*lpType` receives the type when
/// `lpType` is not null. With both `lpData` and `lpcbData` null returns 0 at once. By type:
/// - REG_SZ: the text with its NUL. `*lpcbData` below the need: it receives the need, result 234. It is left
///   as it is on success, and when `lpData` is null.
/// - REG_DWORD: 4 bytes. `*lpcbData` becomes 4; when it was less and `lpData` is not null, result 234.
/// - REG_MULTI_SZ: the texts, each with its NUL, and one NUL more. `*lpcbData` below the need: result 234, and
///   it is left as it is; otherwise it receives the need.
/// - any other type: 0, nothing copied.
/// A null `lpcbData` with a non-null `lpData` promises that the buffer is large enough.
/// Returns 0, 13 (no such value), 234, or -1 (unknown handle, or the key has been deleted).
///
/// Unlike Win32: asking for the size of a REG_SZ by a null `lpData` tells nothing; blanks inside a
/// REG_MULTI_SZ separate texts.
TRAIKLOFOX_C_API LONG RegQueryValueEx(HKEY hKey, const char* lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                                      LPBYTE lpData, LPDWORD lpcbData);

/// Sets a value. `hKey` must have been opened for writing. The value is changed in this process; it reaches
/// the file, and other processes, with the next `RegCloseKey` or `RegFlushKey` of the key. A null name is the
/// empty one. `dwType` REG_SZ takes the NUL-terminated text at `lpData` (null: empty; `cbData` is not looked
/// at), REG_DWORD the 4 bytes there, REG_MULTI_SZ the first `cbData` - 1 bytes (none when `cbData` is 0).
/// Other types stay in memory with no data, until the key goes or the file has another value of the name, and are never
/// read back from the file. Returns 0, or -1: a handle
/// not opened for writing, unknown, or whose key is deleted; null data for a REG_DWORD; or, reported on
/// standard error, what the file could not hold: a line feed in the name or the data, a colon in the name, a
/// name that begins with "#", the lower-case root word in either, a line that would be too long.
///
/// A text with a ";" in it is cut at the first one when it is read back from the file, and loses leading
/// blanks.
TRAIKLOFOX_C_API LONG RegSetValueEx(HKEY hKey, const char* lpValueName, DWORD Reserved, DWORD dwType,
                                    const BYTE* lpData, DWORD cbData);

/// Fills one entry for `RegBatchSetValueEx` from raw bytes: REG_SZ a NUL-terminated text, REG_DWORD 4 bytes,
/// REG_MULTI_SZ texts ended by an empty one. Null `data` makes an empty text. Returns 0, or -1 for a null
/// `entry`, or null data for a REG_DWORD.
TRAIKLOFOX_API LONG RegSetValueNode(CKZString name, DWORD type, BYTE* data, RegValueList* entry);

/// Sets all values, or none, as one step that no other thread sees half done. Results as for `RegSetValueEx`.
TRAIKLOFOX_API LONG RegBatchSetValueEx(HKEY hKey, std::vector<RegValueList> values);

/// Reads the `dwIndex`-th value, in the order of creation. `*lpcchValueName` is the size of `lpValueName`; it
/// receives the name's length without NUL. Data as for `RegQueryValueEx`, except that `*lpcbData` is never
/// changed for texts. Returns 0, 259 (no more values), 234 (the name's or the data's buffer is too small; for
/// the name its length is stored), or -1: a null name or size, an unknown handle, a value of another type
/// than the three.
///
/// Unlike Win32: a name buffer that is exactly the name's length is accepted, and one NUL is written behind
/// it. Pass the size of the buffer less one.
TRAIKLOFOX_C_API LONG RegEnumValue(HKEY hKey, DWORD dwIndex, char* lpValueName, LPDWORD lpcchValueName,
                                   LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData);

/// Reads the name of the `dwIndex`-th subkey, in the order of creation. `cchName` is the buffer's size with
/// the NUL. Returns 0, 259 (no more subkeys), or -1: a null buffer, an unknown handle, a buffer too small.
TRAIKLOFOX_C_API LONG RegEnumKey(HKEY hKey, DWORD dwIndex, char* lpName, DWORD cchName);

/// Deletes a value; written like a change. Returns 0, or -1: a null name, no such value, an unknown handle or
/// one not opened for writing.
TRAIKLOFOX_C_API LONG RegDeleteValue(HKEY hKey, const char* lpValueName);

/// Deletes the key `lpSubKey` below `hKey`, with everything below it, and requests a write as `RegCloseKey`
/// does. Handles to the deleted keys answer -1 from then on; they should still be closed. Returns 0, or -1:
/// no such key, an empty or null path, an unknown handle.
///
/// Unlike Win32: subkeys are no obstacle.
TRAIKLOFOX_C_API LONG RegDeleteKey(HKEY hKey, const char* lpSubKey);

/// Closes one opening of a key. On a handle for writing whose key has changed it requests a write: with the
/// lazy writer running that only notes the need; otherwise the file is written before this returns. Returns
/// 0, or -1 for an unknown handle. When the write fails the result is still 0, the reason is on standard
/// error, and the changes stay marked, so that the next write carries them.
TRAIKLOFOX_C_API LONG RegCloseKey(HKEY hKey);

/// Requests a write of a key's changes as `RegCloseKey` does, and keeps it open. Returns 0, or -1: an unknown
/// handle, a deleted key, or an immediate write that failed (the changes stay marked). After a 0 without a lazy
/// writer the change is on disk.
TRAIKLOFOX_C_API LONG RegFlushKey(HKEY hKey);

/// Fills the counts asked for (null pointers are skipped): subkeys, longest subkey name, values, longest
/// value name, longest data text, each length without NUL; the class is empty, the security descriptor's size
/// 0. The last-write time is not kept and is 0. Returns 0, or -1 for an unknown handle.
TRAIKLOFOX_C_API LONG RegQueryInfoKey(HKEY hKey, char* lpClass, LPDWORD lpcClass, LPDWORD lpReserved,
                                      LPDWORD lpcSubKeys, LPDWORD lpcMaxSubKeyLen, LPDWORD lpcMaxClassLen,
                                      LPDWORD lpcValues, LPDWORD lpcMaxValueNameLen, LPDWORD lpcMaxValueLen,
                                      LPDWORD lpcbSecurityDescriptor, LPFILETIME lpftLastWriteTime);

/// The full name of an open key; empty for an unknown handle. A key that exists only as a step on the way to
/// another one, never opened for creation, named by the file or given a value, has the name of the path that
/// made it.
TRAIKLOFOX_API CKZString RegHKEYtoString(HKEY hKey);

/// The path that the functions above look up: `hKey`'s place in the tree (or "HKEY_LOCAL_MACHINE" for 0), a
/// "\", and `lpSubKey` (null: nothing) less one trailing "\". Empty for an unknown handle or one whose key is
/// gone.
TRAIKLOFOX_API CKZString RegFormatKey(const char* lpSubKey, HKEY hKey);

/// Tells whether a key has changed. The first call ties the event to the key and records the key's change
/// count; each later call by the same thread signals the event and returns 0 when the key has changed since
/// the event last reported it. A change by another process is seen too: the call looks first.
///
/// hEvent         an event, or null for the calling thread's own
/// fAsynchronous  non-zero: return at once. With a null `hEvent` and 0 the call waits until that event is
/// signalled. `bWatchSubtree` and `dwNotifyFilter` are ignored. Returns 0, or -1: an unknown handle, an
/// `hEvent` that is no event, or an event that cannot be tied. A synchronous call returns the wait's result.
///
/// Unlike Win32: a change does not signal the event by itself; the next call does. Poll.
/// While tied, an event holds a reference to itself, which `SetEventData(-1)` by the tying thread drops, or its wait on
/// several handles if that sleeps until the signal: let one of them be, before you close it, or it is never freed.
TRAIKLOFOX_C_API LONG RegNotifyChangeKeyValue(HKEY hKey, BOOL bWatchSubtree, DWORD dwNotifyFilter,
                                              Handle* hEvent, BOOL fAsynchronous);
/// Looks the handle up and changes nothing. Returns 0, or -1 for an unknown handle or a deleted key.
TRAIKLOFOX_API LONG RegUnnotifyChangeKeyValue(HKEY hKey, Event* event);

/// Brings the registry up; once in a process, the first call of any registry function does it. Later calls
/// wait until the first has finished.
///
/// The registry file is "registry/tw.registry" below the directory that the environment variable TWHOME
/// names. When it is missing it is made from "tw.registry.template" beside it, whose owner, group and mode
/// every file of the registry gets. With bit 0 of `flags` (REG_INIT_BACKUP) it is copied to "tw.registry.bak"
/// first. `create` makes the shared semaphore and memory when they are missing, and reads the file; without
/// it they must exist, and the tree is read at the first look-up.
///
/// Ends the process with a message on standard error when the directory or the file is not writable, the
/// template is missing, the registry file is empty (the operator is to restore it from the backup), or the
/// shared objects cannot be had.
TRAIKLOFOX_API void InitRegistry(DWORD flags, bool create);

/// Sets the registry path to `installPath` + "registry/tw.registry". Returns 1 if that file exists, else 0.
/// The next look-up reads it, and what is here and not written yet goes into it; one that does not exist is
/// written whole. Start-up sets the path from TWHOME again.
TRAIKLOFOX_API int SetRegistryPath(CKZString installPath);
/// The path of the registry file; brings the registry up first when it is not known yet.
TRAIKLOFOX_API CKZString GetRegistryPath();
/// Kept for its callers; does nothing.
TRAIKLOFOX_API void SetDynamicRegistryValues(CKZString installPath, int reserved);

/// Owner, group and mode of the registry's files and of the shared objects, from the template at start-up.
extern TRAIKLOFOX_API uid_t KzUserId;
extern TRAIKLOFOX_API gid_t KzGroupId;
extern TRAIKLOFOX_API mode_t KzFileMode;

/// 1 once a thread has begun to bring the registry up; test `bRegInitialized` to know that it is up.
extern TRAIKLOFOX_API LONG lRegReady;
/// 1 once the registry is up.
extern TRAIKLOFOX_API int bRegInitialized;
/// 1 while the lazy writer runs.
extern TRAIKLOFOX_API int bLazyFlush;
/// 1 when a change waits for the lazy writer.
extern TRAIKLOFOX_API int bRegistryFlushNeeded;

/// Reads the registry file into the tree; with `purge`, keys and values that are no longer in the file go, except those
/// that this process has changed and not yet written. Returns 1, or 0 when the file cannot be opened (nothing is
/// changed) or memory runs out (nothing is purged). A file that cannot be read to its end is reported with the line
/// number; it purges nothing, and until a whole read has succeeded nothing is written.
TRAIKLOFOX_API int ReadRegistry(int purge);
/// Writes the tree to the registry file, after merging what another process has written. Returns 1, or 0 with a message
/// on standard error and the changes still marked. The old file is then in place; or, when only its directory could not
/// be synced, the new one, which a power cut may yet undo.
TRAIKLOFOX_API int WriteRegistry();

/// Is told what a file in the registry's format says, line by line, in its order. Lines count from 1. Exceptions pass
/// through `RegVisitFile`.
class TRAIKLOFOX_API RegFileVisitor {
  public:
    virtual ~RegFileVisitor() = default;
    /// A key's line. `number` is the one that it bears.
    virtual void onKey(DWORD line, const CKZString& name, LONG number) = 0;
    /// A value's line, of the last key.
    virtual void onValue(DWORD line, const RegValueList& value) = 0;
    /// A line that the registry's reader would ignore, cut, or take otherwise than it looks: `what` says it. When the
    /// line is used all the same, `onKey` or `onValue` follows.
    virtual void onDefect(DWORD line, const char* what) = 0;
};

/// Reads the file at `path` by the rules of the registry's reader and tells `visitor`; nothing is taken into the tree.
/// Needs no registry to be up. Returns 1, 0 when the file cannot be opened (errno says why), or -1 when it cannot be
/// read to its end (told as the last defect). Any thread may call.
TRAIKLOFOX_API int RegVisitFile(const char* path, RegFileVisitor& visitor);

/// Attaches the semaphore and the page of shared memory; called by start-up. Ends the process when it cannot.
TRAIKLOFOX_API void RegInitSharedState(bool create);

/// Takes the cache lock: shared against exclusive ones within this process, or exclusive within this process
/// and among all processes of the installation. The exclusive lock nests; who holds it may take the shared
/// one. Returns 1, or 0 for another `operation` (nothing is taken).
TRAIKLOFOX_API int RegLockCache(RegLockOp_t operation);
/// Releases what `RegLockCache` took. Returns 1, or 0 for another `operation` or an exclusive lock that the
/// calling thread does not hold (nothing is released).
TRAIKLOFOX_API int RegUnlockCache(RegLockOp_t operation);
/// Renames the cache lock, whose name is "RegistryCacheLock" at first. The name serves diagnosis only.
TRAIKLOFOX_API void RegSetCacheLockName(const char* name);
/// Takes and releases only the lock among processes; nests with the exclusive cache lock, and its holder may look up
/// and write. 1, or 0 when the calling thread does not hold it.
TRAIKLOFOX_API int RegLockRegistryFile();
TRAIKLOFOX_API int RegUnlockRegistryFile();

/// Brings the tree up to date. Returns 1 if it read the file, else 0.
TRAIKLOFOX_API int RegUpdateCache();
/// Makes every other process read the file again at its next look-up.
TRAIKLOFOX_API void RegBumpVersion();
/// Prints the lock owner's process id, the version stamp and the last writer's process id to standard output.
TRAIKLOFOX_API void RegDumpVersion();

/// The same three, for programs; null pointers are skipped. `*lockOwner` is 0 when nobody holds the lock, and may
/// name a process that died holding it until somebody takes it again.
TRAIKLOFOX_API void RegGetVersion(LPDWORD lockOwner, LPDWORD stamp, LPDWORD lastWriter);

/// The body of the lazy writer: run it on a thread of your own (`CreateThread`, `unixthread_create`).
/// `interval` points to an unsigned 32-bit number of milliseconds, read once (null: 60000). While it runs,
/// changes are written at most once an interval. Cancel it (`pthread_cancel`) to stop it: it then writes once
/// more. Never returns.
TRAIKLOFOX_API DWORD RegLazyWriteThread(void* interval);
/// Writes the registry; the lazy writer's last act.
TRAIKLOFOX_API void RegCleanup();
/// Copies the registry file to its ".bak", through a temporary file. Returns 1, or 0 with a message.
TRAIKLOFOX_API int RegBackupRegistry();

/// Kept for their callers; they do nothing, and the wake-ups return 0. A waiter learns of a change from its
/// next `RegNotifyChangeKeyValue`.
TRAIKLOFOX_API int RegKeyWakeup(RegKey* key);
TRAIKLOFOX_API int RegKeyWakeup(std::vector<RegKey*>* keys);
TRAIKLOFOX_API void RegWatchFile(DWORD milliseconds, int (*callback)(void*), void* argument);
TRAIKLOFOX_API void DumpRegistryCache();
