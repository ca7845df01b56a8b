#pragma once

/// What the application tells the library about itself.

#include <traiklofox/types.h>

/// True in the server process itself, false (as at first) in its tools. The library only reads it: set it
/// before the library is used, or define it before the library is loaded. When it is false, `CopyFile` gives
/// a copy its source's owner and mode, and the loading thread's SIGCHLD is blocked.
extern TRAIKLOFOX_API bool bRunningInServer;
