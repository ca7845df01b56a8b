#pragma once

// story.h: the account of several processes that share one registry.

#include "installation.h"

namespace appserver {

/// Starts the processes of a small application server on `installation`, lets them work, and prints what
/// happens. The environment variable TWHOME must name the installation. Throws at the first thing that is not
/// as it should be.
void tellStory(const Installation& installation);

}  // namespace appserver
