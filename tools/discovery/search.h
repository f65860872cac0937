// search.h: client mode: looks for servers on every interface.
#pragma once
#include "platform/types.h"

// Keeps [ServerEnum] of the settings file at what is found, until it is stopped, for ten minutes at most (the agent may
// have been killed), or until a newer search runs; the program's exit code.
int RunSearch(const char *pszConfig, platform::HANDLE hStop);
