#include <traiklofox/settings.h>

constinit bool bRunningInServer = false;
