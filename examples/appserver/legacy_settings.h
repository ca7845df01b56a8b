#pragma once

// legacy_settings.h: the commands about settings that an older edition left in an INI file.

#include "conversation.h"

namespace appserver {

/// ini-get and ini-set, in a file of the installation directory.
void addLegacyCommands(Conversation& conversation);

}  // namespace appserver
