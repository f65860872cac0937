// modules.h: libraries bound at run time, and the program's own file.
// A hosted machine has user32.dll, shell32.dll, Wtsapi32.dll and the functions that user_interface.h declares types
// for; any other function of those libraries that this system binds resolves to a procedure that fails with
// ERROR_NOT_SUPPORTED. Tests can take a library or a function away.
#pragma once
#include "platform/types.h"

namespace platform {

// Length in UTF-16 units without the terminator, the capacity wanted when cch is too small, 0 on failure.
uint32_t GetSystemDirectoryW(char16_t *pszBuffer, uint32_t cch);
HMODULE  LoadLibraryW(const char16_t *pszFileName);
FARPROC  GetProcAddress(HMODULE hModule, const char *pszName);
BOOL     FreeLibrary(HMODULE hModule);
// hModule null: the program's own file, as an ANSI path.
uint32_t GetModuleFileNameA(HMODULE hModule, char *pszBuffer, uint32_t cch);

// The text that the program's own version resource (id 1, type RT_VERSION) holds under a path such as
// u"\\StringFileInfo\\040904b0\\PRODUCTVERSION". False when there is none or it does not fit; the buffer is then empty.
bool GetOwnVersionText(const char16_t *pszSubBlock, char16_t *pszBuffer, uint32_t cch);

} // namespace platform
