// change.cpp: sets and deletes single entries, each on the disk before the command ends.

#include "commands.h"
#include "failure.h"
#include "key.h"
#include "use_registry.h"

namespace kzreg {
namespace {

void setValue(const KeyToChange& key, const Value& value) {
    const std::vector<RegValueList> one = {{value.name, value.type, value.text}};
    if (RegBatchSetValueEx(key.handle(), one) != ERROR_SUCCESS)
        throw Failure(kFailed, shownName(value.name) + " is not set");
}

int deleteValue(const KeyPath& path, const std::string& name) {
    KeyToChange key = KeyToChange::open(path);
    if (RegDeleteValue(key.handle(), name.c_str()) != ERROR_SUCCESS)
        throw Failure(kFailed, "there is no value " + shownName(name) + " in " + path.whole() +
                                   "; kzreg query '" + path.whole() + "' lists its values");
    key.save();
    return kDone;
}

int deleteKey(const KeyPath& path) {
    if (path.isRoot()) throw Failure(kUnusable, "the root cannot be deleted; delete the keys below it");
    (void)Key::open(path);  // to say what is missing
    const Key parent = Key::open(path.parent());
    if (RegDeleteKey(parent.handle(), path.name().c_str()) != ERROR_SUCCESS) failToFind(path);
    // Deleting has tried to write, and does not tell how that went.
    if (RegFlushKey(parent.handle()) != ERROR_SUCCESS) failToWrite();
    return kDone;
}

}  // namespace

int add(const CommandLine& line) {
    const KeyPath path = KeyPath::typed(line.operands.front());
    if (!line.valueName && (line.type || line.data))
        throw Failure(kUnusable, "which value? Say -v NAME, or -v \"\" for the one without a name");
    std::optional<Value> value;
    if (line.valueName) value = valueTyped(*line.valueName, line.type, line.data);
    useRegistry();
    KeyToChange key = KeyToChange::make(path);
    if (value) setValue(key, *value);
    key.save();
    return kDone;
}

int deleteEntry(const CommandLine& line) {
    const KeyPath path = KeyPath::typed(line.operands.front());
    useRegistry();
    return line.valueName ? deleteValue(path, *line.valueName) : deleteKey(path);
}

}  // namespace kzreg
