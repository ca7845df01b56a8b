#pragma once

// One key of the registry tree.
//
// A key's lock guards its values, its subkeys and its marks; a parent's is taken before a child's. References
// are counted: a parent holds its children, a child its parent, the open-key map and every walk what they
// use. A key that is removed from its parent is marked dead under both locks and taken apart: whoever still
// has a reference and locks it finds it dead.

#include <traiklofox/registry.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/mutex.h"
#include "foundation/small_mutex.h"
#include "registry/named_list.h"
#include "registry/reg_value.h"

namespace traiklofox::registry {

/// A counted reference to a key.
class KeyRef {
  public:
    KeyRef() = default;
    explicit KeyRef(RegKey* key);
    KeyRef(const KeyRef& other) : KeyRef(other.key_) {}
    KeyRef(KeyRef&& other) noexcept : key_(std::exchange(other.key_, nullptr)) {}
    KeyRef& operator=(KeyRef other) noexcept {
        std::swap(key_, other.key_);
        return *this;
    }
    ~KeyRef();

    RegKey* get() const { return key_; }
    /// Hands the reference on; `adopt` takes it up again.
    RegKey* release() { return std::exchange(key_, nullptr); }
    static KeyRef adopt(RegKey* key) {
        KeyRef reference;
        reference.key_ = key;
        return reference;
    }
    RegKey* operator->() const { return key_; }
    RegKey& operator*() const { return *key_; }
    explicit operator bool() const { return key_ != nullptr; }

  private:
    /// Ends a key that nobody refers to any more.
    static void destroy(RegKey* key);

    RegKey* key_ = nullptr;
};

struct StoredValue : RegValue {
    explicit StoredValue(const ValueText& text)
        : RegValue(text.type, std::string(text.name), std::string(text.data)) {}

    /// Takes a text of the same name but for its letter case.
    void assign(const ValueText& text) {
        data.assign(text.data);
        name.assign(text.name);
        type = text.type;
        dirty = Mark::Clean;
    }

    Listed<StoredValue> listed;
};

struct ValueTraits {
    using Owner = std::unique_ptr<StoredValue>;
    static Owner adopt(StoredValue* value) { return Owner(value); }
    static std::string_view name(const StoredValue& value) { return value.name; }
    static Listed<StoredValue>& listed(StoredValue& value) { return value.listed; }
};
struct SubkeyTraits {
    using Owner = KeyRef;
    static Owner adopt(RegKey* key) { return KeyRef::adopt(key); }
    static std::string_view name(const RegKey& key);
    static Listed<RegKey>& listed(RegKey& key);
};
using Values = NamedList<StoredValue, ValueTraits>;
using Subkeys = NamedList<RegKey, SubkeyTraits>;

/// Names deleted in this process, until a write without them is in place.
using DeletedNames = std::map<std::string, Mark, std::less<>>;

/// What a write under way carries, to be told how it ended.
class WriteBatch {
  public:
    void carries(KeyRef key) { keys_.push_back(std::move(key)); }
    /// The text is in place: what was carried is clean.
    void commit();
    /// It is not: what was carried is still to be written.
    void abort();

  private:
    std::vector<KeyRef> keys_;
};

}  // namespace traiklofox::registry

class RegKey {
  public:
    using Mark = traiklofox::registry::Mark;
    using KeyRef = traiklofox::registry::KeyRef;
    using Lock = traiklofox::foundation::SmallMutex<traiklofox::foundation::LockRank::RegistryKey>;

    /// A full name, which the keys that one walk makes share. Never null.
    using Name = std::shared_ptr<const CKZString>;

    /// How a key comes into the tree.
    struct Origin {
        Name fullName;
        LONG sequence;
        bool implicit;  // only a step on the way to another key
        bool fromFile;
        bool shadowsFile;  // a key of this name was deleted here: what the file says of it is void
    };

    /// An entry in the open-key map.
    struct Opening {
        int count = 0;
        LONG number = 0;
        KeyRef self;  // while it is open
    };

    RegKey(KeyRef parentKey, std::string_view name, const Origin& origin);
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;

    /// Counts the reads of the file; keys and values are stamped with it.
    static std::atomic<DWORD> Generation;
    static DWORD currentGeneration() { return Generation.load(std::memory_order_relaxed); }

    /// The root of this process's tree, made on first use.
    static RegKey& root();

    RegKey* parent() const { return parent_.get(); }  // null for the root; as long-lived as the key

    /// Counts a change and marks it as one to be written.
    void noteChange();
    bool isDirty() const { return dirty.load(std::memory_order_acquire) != Mark::Clean; }

    /// The path that leads here, from the names on the way. Takes no lock.
    CKZString place() const;

    // May be looked at without a lock: a key dies, and its number changes, at any time.
    bool isDead() const { return dead_.load(std::memory_order_acquire); }
    LONG sequence() const { return sequence_.load(std::memory_order_relaxed); }
    /// Under the open-key map's lock.
    void setSequence(LONG number);

    // All below: under `lock`.

    bool isImplicit() const TRAIKLOFOX_REQUIRES(lock) { return implicit_; }
    const CKZString& fullName() const TRAIKLOFOX_REQUIRES(lock) { return *fullName_; }
    /// The prefix of the paths of its subkeys.
    CKZString pathForSubkeys() const TRAIKLOFOX_REQUIRES(lock) { return implicit_ ? place() : *fullName_; }

    void stamp() TRAIKLOFOX_REQUIRES(lock) { generation_ = currentGeneration(); }
    /// Makes a step on the way a key in its own right, which the file is to show.
    void becomeExplicit(Name name) TRAIKLOFOX_REQUIRES(lock);
    /// Marks the key as created here and not in the file.
    void markUnsaved() TRAIKLOFOX_REQUIRES(lock) { unsaved_ = Mark::Set; }

    RegKey& addSubkey(traiklofox::registry::HashedName name, const Origin& origin) TRAIKLOFOX_REQUIRES(lock);
    /// True when the file's word about a subkey that is not here does not count: it was deleted here, or this
    /// whole key was and has been made anew.
    bool ignoresInFile(std::string_view subkey) const TRAIKLOFOX_REQUIRES(lock);

    /// Stores a value under the rules for changes made here (`fromFile` false) and for the file's lines.
    /// `changed` tells whether anything became different.
    void SetValue(const traiklofox::registry::ValueText& value, bool& changed, bool fromFile)
        TRAIKLOFOX_REQUIRES(lock);
    /// Has the next write carry a value that has not changed here.
    void markForWriting(std::string_view value) TRAIKLOFOX_REQUIRES(lock);
    bool DeleteValue(std::string_view name) TRAIKLOFOX_REQUIRES(lock);
    /// Marks a subkey dead and takes it out. The caller dismantles it after letting the lock go.
    KeyRef takeSubkey(RegKey& subkey) TRAIKLOFOX_REQUIRES(lock);
    /// The same, by its name and remembered, so that a re-read does not bring it back. Null when there is none.
    KeyRef deleteSubkey(std::string_view name) TRAIKLOFOX_REQUIRES(lock);
    /// Marks everything below a removed key dead, so that no reference is left in a circle. Under no lock.
    static void dismantle(KeyRef removed);

    /// Removes what the last read did not find of a subkey: its values, except those changed here, and the
    /// subkey itself unless this process has something in it to write. Returns the subkey when it is to be
    /// dismantled.
    KeyRef purgeSubkey(RegKey& subkey) TRAIKLOFOX_REQUIRES(lock);

    /// Appends the key's and its values' lines, and gives the batch what they carry.
    void print(std::string& text, traiklofox::registry::WriteBatch& batch) TRAIKLOFOX_REQUIRES(lock);
    void endWrite(Mark carriedBecomes) TRAIKLOFOX_REQUIRES(lock);

  private:
    friend class traiklofox::registry::KeyRef;
    friend struct traiklofox::registry::SubkeyTraits;

    struct Deletions {
        traiklofox::registry::DeletedNames values;
        traiklofox::registry::DeletedNames subkeys;
    };

    ~RegKey();

    Deletions& deletions() TRAIKLOFOX_REQUIRES(lock);
    bool wasDeleted(traiklofox::registry::DeletedNames Deletions::*names, std::string_view name) const
        TRAIKLOFOX_REQUIRES(lock);
    bool purge() TRAIKLOFOX_REQUIRES(lock);
    bool carryMarks() TRAIKLOFOX_REQUIRES(lock);

    // In the order in which a look-up meets them: at a hundred thousand keys it is cache lines that cost.
  public:
    const CKZString component;  // the last part of its path
    mutable Lock lock;

  private:
    std::atomic<int> references_{0};
    std::atomic<LONG> sequence_;
    std::atomic<bool> dead_{false};  // set under the locks of the key and its parent
    bool implicit_ TRAIKLOFOX_GUARDED_BY(lock);
    Mark unsaved_ TRAIKLOFOX_GUARDED_BY(lock);
    Mark shadowsFile_ TRAIKLOFOX_GUARDED_BY(lock);

  public:
    Opening open;  // under the open-key map's lock (open_keys.cpp)
    traiklofox::registry::Values values TRAIKLOFOX_GUARDED_BY(lock);
    traiklofox::registry::Subkeys subkeys TRAIKLOFOX_GUARDED_BY(lock);
    // Changed by whoever changes the key or a subkey, without the lock of the key.
    std::atomic<LONG> changeCount{0};
    std::atomic<Mark> dirty{Mark::Clean};

  private:
    KeyRef parent_;
    traiklofox::registry::Listed<RegKey> listed_;  // among its parent's subkeys, under the parent's lock
    DWORD generation_ TRAIKLOFOX_GUARDED_BY(lock);
    Name fullName_ TRAIKLOFOX_GUARDED_BY(lock);
    std::unique_ptr<Deletions> deletions_ TRAIKLOFOX_GUARDED_BY(lock);  // null while nothing is deleted
};

namespace traiklofox::registry {

inline std::string_view SubkeyTraits::name(const RegKey& key) {
    return key.component;
}
inline Listed<RegKey>& SubkeyTraits::listed(RegKey& key) {
    return key.listed_;
}

inline KeyRef::KeyRef(RegKey* key) : key_(key) {
    if (key_ != nullptr) key_->references_.fetch_add(1, std::memory_order_relaxed);
}
inline KeyRef::~KeyRef() {
    if (key_ != nullptr && key_->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(key_);
}

}  // namespace traiklofox::registry
