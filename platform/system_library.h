// system_library.h: libraries of the system, by their full path: nothing that lies beside the program is taken for one.
#pragma once
#include "platform/modules.h"

namespace platform {

// pszName: the file in the system folder ("user32.dll"). Null when it cannot be loaded; FreeLibrary once.
HMODULE LoadSystemLibrary(const char16_t *pszName);

} // namespace platform
