// admin.cpp: the administration tool. It never calls `InitRegistry`: whichever registry function comes first
// does.

#include "roles.h"
#include "setting_commands.h"

#include <traiklofox/registry.h>

#include <stdexcept>

namespace appserver {
namespace {

/// Until it is released no other process can change the registry, or look anything up once it has changed.
void holdLock(const Words&) {
    RegLockCache(REG_LOCK_EXCLUSIVE);
}

void releaseLock(const Words&) {
    if (RegUnlockCache(REG_LOCK_EXCLUSIVE) == 0) throw std::runtime_error("the lock is not held here");
}

void printVersion(const Words&) {
    RegDumpVersion();
}

}  // namespace

int runAdmin(const Words& words) {
    Conversation conversation;
    addSettingCommands(conversation);
    conversation.add("version", printVersion);
    conversation.add("hold-lock", holdLock);
    conversation.add("release-lock", releaseLock);
    if (!words.empty()) return conversation.answer(words) ? 0 : 1;
    conversation.hold();
    return 0;
}

}  // namespace appserver
