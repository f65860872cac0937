// entry.h: the program's entry point, which the backend's start-up code calls.
// Windows' own start-up code calls WinMain; platform/hosted/machine/entry.cpp calls it from main, after it has read the
// environment and the command line.
#pragma once
#include "platform/types.h"

extern "C" int WinMain(platform::HINSTANCE hInstance, platform::HINSTANCE hPrevious, char *pszCommandLine, int nShow);
