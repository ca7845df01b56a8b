#pragma once

// setting_commands.h: the commands about settings, which all processes of the application server understand.

#include "conversation.h"

#include <traiklofox/types.h>

#include <functional>
#include <string>

namespace appserver {

/// get, set, list, count and fill, each by way of this process's registry.
void addSettingCommands(Conversation& conversation);

/// Whether a setting of this text is to be a REG_DWORD.
bool isNumber(const std::string& text);

/// `fill KEY PREFIX COUNT`: sets PREFIX-001 = 1, PREFIX-002 = 2 and so on, each on disk when `set` returns. Prints when
/// it began and ended, on the clock that all processes of a machine share.
void fillNumbers(const Words& arguments,
                 const std::function<void(const std::string& name, DWORD number)>& set);

}  // namespace appserver
