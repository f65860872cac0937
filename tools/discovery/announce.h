// announce.h: server mode: announces the agent's port on every interface.
#pragma once
#include "platform/types.h"

// Until it is stopped, the agent's port is free (it was killed) or a newer announcement runs; the program's exit code.
int RunAnnouncement(const char *pszConfig, platform::HANDLE hStop);
