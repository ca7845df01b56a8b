#pragma once

// demo.h: the demonstration as a whole: a fresh installation in a temporary folder, a machine to itself, the
// account, and nothing left of it afterwards.

#include "conversation.h"

namespace appserver {

/// `arguments` may be "--template FILE". Returns 0 when every check has passed, otherwise 1.
int runDemo(const Words& arguments);

}  // namespace appserver
