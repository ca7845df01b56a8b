#include "registry/reg_key.h"

#include <algorithm>

#include "registry/key_numbers.h"
#include "registry/registry_line.h"

namespace traiklofox::registry {

namespace {

std::string lowered(std::string_view name) {
    std::string text(name);
    for (char& character : text) character = static_cast<char>(CKZStringPc::fold(character));
    return text;
}

/// Set becomes Carried. True when it is Carried now.
bool carry(Mark& mark) {
    if (mark == Mark::Set) mark = Mark::Carried;
    return mark == Mark::Carried;
}

void endCarried(Mark& mark, Mark becomes) {
    if (mark == Mark::Carried) mark = becomes;
}

bool carryAll(DeletedNames& names) {
    bool any = false;
    for (auto& [name, mark] : names) any |= carry(mark);
    return any;
}

void endCarried(DeletedNames& names, Mark becomes) {
    for (auto& [name, mark] : names) endCarried(mark, becomes);
    std::erase_if(names, [](const auto& entry) { return entry.second == Mark::Clean; });
}

}  // namespace

void KeyRef::destroy(RegKey* key) {
    // A key that dies last lets its parent go, which may die in turn: a loop, since a path may be deep.
    do {
        RegKey* up = key->parent_.release();
        delete key;
        key = up;
    } while (key != nullptr && key->references_.fetch_sub(1, std::memory_order_acq_rel) == 1);
}

void WriteBatch::commit() {
    for (const KeyRef& key : keys_) {
        const foundation::LockGuard guard(key->lock);
        key->endWrite(Mark::Clean);
    }
    keys_.clear();
}

void WriteBatch::abort() {
    for (const KeyRef& key : keys_) {
        const foundation::LockGuard guard(key->lock);
        key->endWrite(Mark::Set);
    }
    keys_.clear();
}

}  // namespace traiklofox::registry

using namespace traiklofox::registry;
using traiklofox::foundation::LockGuard;

constinit std::atomic<DWORD> RegKey::Generation{1};

RegKey::RegKey(KeyRef parentKey, std::string_view name, const Origin& origin)
    : component(name),
      sequence_(origin.sequence),
      implicit_(origin.implicit),
      unsaved_(origin.fromFile || origin.implicit ? Mark::Clean : Mark::Set),
      shadowsFile_(origin.shadowsFile ? Mark::Set : Mark::Clean),
      parent_(std::move(parentKey)),
      generation_(currentGeneration()),
      fullName_(origin.fullName) {
    useKeyNumber(sequence_);
}

RegKey::~RegKey() {
    freeKeyNumber(sequence_);
}

RegKey& RegKey::root() {
    static const KeyRef& tree = *new KeyRef(new RegKey(KeyRef(), "",
                                                       {.fullName = std::make_shared<const CKZString>(),
                                                        .sequence = -1,
                                                        .implicit = false,
                                                        .fromFile = true,
                                                        .shadowsFile = false}));
    return *tree;
}

void RegKey::noteChange() {
    dirty.store(Mark::Set, std::memory_order_release);
    changeCount.fetch_add(1, std::memory_order_acq_rel);
}

CKZString RegKey::place() const {
    std::vector<const CKZString*> names;
    for (const RegKey* key = this; key->parent() != nullptr; key = key->parent())
        names.push_back(&key->component);
    CKZString path;
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        if (!path.empty()) path.push_back('\\');
        path.append(**name);
    }
    return path;
}

void RegKey::setSequence(LONG number) {
    useKeyNumber(number);
    freeKeyNumber(sequence_.exchange(number, std::memory_order_relaxed));
}

void RegKey::becomeExplicit(Name name) {
    implicit_ = false;
    fullName_ = std::move(name);
}

RegKey& RegKey::addSubkey(HashedName name, const Origin& origin) {
    return subkeys.append(KeyRef(new RegKey(KeyRef(this), name.name.text(), origin)), name.hash);
}

bool RegKey::wasDeleted(DeletedNames Deletions::*names, std::string_view name) const {
    return deletions_ != nullptr && (*deletions_.*names).contains(lowered(name));
}

bool RegKey::ignoresInFile(std::string_view subkey) const {
    return shadowsFile_ != Mark::Clean || wasDeleted(&Deletions::subkeys, subkey);
}

RegKey::Deletions& RegKey::deletions() {
    if (deletions_ == nullptr) deletions_ = std::make_unique<Deletions>();
    return *deletions_;
}

void RegKey::SetValue(const ValueText& value, bool& changed, bool fromFile) {
    changed = false;
    const HashedName name(value.name);
    StoredValue* stored = values.find(name);
    if (stored != nullptr && (*stored == value || (fromFile && stored->dirty != Mark::Clean))) {
        stored->generation = currentGeneration();
        return;
    }
    if (fromFile && stored == nullptr &&
        (shadowsFile_ != Mark::Clean || wasDeleted(&Deletions::values, value.name)))
        return;
    if (stored == nullptr)
        stored = &values.append(std::make_unique<StoredValue>(value), name.hash);
    else
        stored->assign(value);
    stored->generation = currentGeneration();
    changed = true;
    if (fromFile) return;
    stored->dirty = Mark::Set;
    if (implicit_) {
        becomeExplicit(std::make_shared<const CKZString>(place()));
        unsaved_ = Mark::Set;
    }
}

void RegKey::markForWriting(std::string_view value) {
    StoredValue* stored = values.find(value);
    if (stored->dirty != Mark::Clean) return;  // it is to be written anyway
    stored->dirty = Mark::Set;
    dirty.store(Mark::Set, std::memory_order_release);
}

bool RegKey::DeleteValue(std::string_view name) {
    StoredValue* stored = values.find(name);
    if (stored == nullptr) return false;
    deletions().values[lowered(name)] = Mark::Set;
    (void)values.take(*stored);
    return true;
}

KeyRef RegKey::takeSubkey(RegKey& subkey) {
    {
        const LockGuard guard(subkey.lock);
        subkey.dead_ = true;
    }
    return subkeys.take(subkey);
}

KeyRef RegKey::deleteSubkey(std::string_view name) {
    RegKey* subkey = subkeys.find(name);
    if (subkey == nullptr) return KeyRef();
    deletions().subkeys[lowered(name)] = Mark::Set;
    return takeSubkey(*subkey);
}

void RegKey::dismantle(KeyRef removed) {
    std::vector<KeyRef> left;
    left.push_back(std::move(removed));
    while (!left.empty()) {
        const KeyRef key = std::move(left.back());
        left.pop_back();
        const LockGuard guard(key->lock);
        key->dead_ = true;
        key->subkeys.takeAll([&](KeyRef subkey) { left.push_back(std::move(subkey)); });
    }
}

KeyRef RegKey::purgeSubkey(RegKey& subkey) {
    {
        const LockGuard guard(subkey.lock);
        if (subkey.dead_ || !subkey.purge()) return KeyRef();
        if (subkeys.find(subkey.component) != &subkey)
            return KeyRef();  // this key is being dismantled itself
        subkey.dead_ = true;
    }
    changeCount.fetch_add(1, std::memory_order_acq_rel);
    return subkeys.take(subkey);
}

/// Removes stale values. Returns true when nothing keeps the key.
bool RegKey::purge() {
    if (unsaved_ != Mark::Clean) return false;
    const bool inFile = generation_ == currentGeneration();
    const size_t erased = values.eraseIf([=](const RegValue& value) {
        // One that the file cannot hold stays as long as its key, or until the file has another of its name.
        return value.dirty == Mark::Clean && value.generation != currentGeneration() &&
               !(inFile && !value.writable());
    });
    if (erased > 0) changeCount.fetch_add(1, std::memory_order_acq_rel);
    // Values still here and keys below were found in the file or are to be written to it.
    return !inFile && !isDirty() && values.empty() && subkeys.empty() && parent() != nullptr;
}

bool RegKey::carryMarks() {
    Mark expected = Mark::Set;
    dirty.compare_exchange_strong(expected, Mark::Carried, std::memory_order_acq_rel);
    bool any = expected != Mark::Clean;
    any |= carry(unsaved_);
    any |= carry(shadowsFile_);
    if (deletions_ != nullptr) {
        any |= carryAll(deletions_->values);
        any |= carryAll(deletions_->subkeys);
    }
    return any;
}

void RegKey::print(std::string& text, WriteBatch& batch) {
    bool carries = carryMarks();
    if (!implicit_ && !fullName_->empty()) {
        appendKeyLine(text, *fullName_, sequence());
        values.inOrderOfNames([&](RegValue& value) {
            if (value.writable()) value.appendLine(text);
            carries |=
                carry(value.dirty);  // also of one that has no line: the write ends its hold on the name
        });
    }
    if (carries) batch.carries(KeyRef(this));
}

void RegKey::endWrite(Mark carriedBecomes) {
    Mark expected = Mark::Carried;
    dirty.compare_exchange_strong(expected, carriedBecomes, std::memory_order_acq_rel);
    endCarried(unsaved_, carriedBecomes);
    endCarried(shadowsFile_, carriedBecomes);
    values.inOrderOfCreation([&](RegValue& value) { endCarried(value.dirty, carriedBecomes); });
    if (deletions_ == nullptr) return;
    endCarried(deletions_->values, carriedBecomes);
    endCarried(deletions_->subkeys, carriedBecomes);
    if (deletions_->values.empty() && deletions_->subkeys.empty()) deletions_.reset();
}
