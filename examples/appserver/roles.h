#pragma once

// roles.h: what the processes of the application server do. Each function is one process from its start to
// its end and returns the exit status.

#include "conversation.h"

#include <string>

namespace appserver {

/// The server itself: makes the registry if need be, backs it up, watches a setting, counts requests.
int runServer();

/// The process beside a web server that hands requests on to the application server. `name` names its
/// settings below "connectors".
int runConnector(const std::string& name);

/// The server's helper process: lives until its standard input ends.
int runHelper();

/// An administrator, who works with kzreg. With words it carries them out as one command; without, it reads commands.
int runAdmin(const Words& words);

}  // namespace appserver
