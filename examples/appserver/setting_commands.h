#pragma once

// setting_commands.h: the commands on settings that every role understands: get, set, list, count, fill.

#include "conversation.h"

namespace appserver {

void addSettingCommands(Conversation& conversation);

}  // namespace appserver
