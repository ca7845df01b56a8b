#include "registry/find_key.h"

#include "registry/key_numbers.h"

namespace traiklofox::registry {

namespace {

/// Takes the first component off `path`; empty when there is none left.
std::string_view takeComponent(std::string_view& path) {
    const size_t start = path.find_first_not_of('\\');
    if (start == path.npos) {
        path = {};
        return {};
    }
    const size_t end = path.find('\\', start);
    const std::string_view component = path.substr(start, end == path.npos ? end : end - start);
    path = end == path.npos ? std::string_view() : path.substr(end);
    return component;
}

bool isLast(std::string_view rest) {
    return rest.find_first_not_of('\\') == rest.npos;
}

/// One walk. `key_` is locked throughout; clang cannot follow a lock that is handed on, so the steps are
/// excepted.
class Walker {
  public:
    /// `start` is locked.
    Walker(RegKey& start, std::string_view path, size_t passed, Walk walk, LONG sequence)
        : path_(path), rest_(path.substr(passed)), walk_(walk), sequence_(sequence), key_(&start) {}
    ~Walker() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS { key_->lock.unlock(); }
    Walker(const Walker&) = delete;
    Walker& operator=(const Walker&) = delete;

    FoundKey run() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        std::string_view component = takeComponent(rest_);
        if (component.empty() || key_->isDead()) return {};
        if (walk_ == Walk::Create && sequence_ == -1) sequence_ = GetUniqueKey();
        for (; !component.empty(); component = takeComponent(rest_)) {
            const HashedName name(component);
            RegKey* next = key_->subkeys.find(name);
            const bool made = next == nullptr;
            if (made) next = make(name);
            if (next == nullptr) return {};
            next->lock.lock();
            key_->lock.unlock();
            key_ = next;
            if (walk_ == Walk::FromFile) key_->stamp();
            if (isLast(rest_)) {
                if (!made) arriveAtExisting();
                key_->values.prefetch();  // most who open a key then ask for a value
                return {KeyRef(key_), made};
            }
        }
        return {};
    }

  private:
    const RegKey::Name& fullName() {
        if (fullName_ == nullptr) fullName_ = std::make_shared<const CKZString>(normalizedPath(path_));
        return fullName_;
    }

    /// Null when nothing is to be made.
    RegKey* make(HashedName name) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        if (walk_ == Walk::LookUp) return nullptr;
        const bool ignored = key_->ignoresInFile(name.name.text());
        const bool fromFile = walk_ == Walk::FromFile;
        if (fromFile && ignored) return nullptr;
        if (fromFile) key_->changeCount.fetch_add(1, std::memory_order_acq_rel);
        return &key_->addSubkey(name, {.fullName = fullName(),
                                       .sequence = sequence_,
                                       .implicit = !isLast(rest_),
                                       .fromFile = fromFile,
                                       .shadowsFile = ignored});
    }

    void arriveAtExisting() TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
        if (walk_ == Walk::LookUp || !key_->isImplicit()) return;
        if (walk_ == Walk::FromFile) {
            key_->becomeExplicit(fullName());
            return;
        }
        key_->becomeExplicit(std::make_shared<const CKZString>(key_->place()));
        key_->markUnsaved();
        key_->noteChange();
    }

    const std::string_view path_;
    std::string_view rest_;
    const Walk walk_;
    LONG sequence_;
    RegKey* key_;
    RegKey::Name fullName_;  // of what the walk makes; null until then
};

}  // namespace

FoundKey FindKey(RegKey& start, std::string_view path, Walk walk, LONG sequence) {
    return FindKeyBehind(start, path, 0, walk, sequence);
}

KeyRef lookUpFromLocked(RegKey& start, std::string_view path) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    return Walker(start, path, 0, Walk::LookUp, -1).run().key;
}

FoundKey FindKeyBehind(RegKey& start, std::string_view path, size_t passed, Walk walk,
                       LONG sequence) TRAIKLOFOX_NO_THREAD_SAFETY_ANALYSIS {
    start.lock.lock();
    Walker walker(start, path, passed, walk, sequence);
    return walker.run();
}

size_t depthOf(std::string_view path) {
    size_t depth = 0;
    while (!takeComponent(path).empty()) ++depth;
    return depth;
}

CKZString normalizedPath(std::string_view path) {
    CKZString normal;
    normal.reserve(path.size());
    for (std::string_view component = takeComponent(path); !component.empty();
         component = takeComponent(path)) {
        if (!normal.empty()) normal.push_back('\\');
        normal.append(component);
    }
    return normal;
}

std::pair<std::string_view, std::string_view> splitLast(std::string_view path) {
    const size_t last = path.find_last_of('\\');
    if (last == path.npos) return {{}, path};
    return {path.substr(0, last), path.substr(last + 1)};
}

}  // namespace traiklofox::registry
