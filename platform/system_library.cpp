// system_library.cpp: the same on both backends.
#include "platform/system_library.h"
#include "platform/files.h"
#include "platform/text.h"

namespace platform {

HMODULE LoadSystemLibrary(const char16_t *pszName)
{
    char16_t       szFolder[MAX_PATH];
    char16_t       szPath[MAX_PATH];
    const uint32_t cchFolder = GetSystemDirectoryW(szFolder, MAX_PATH);
    if (cchFolder == 0 || cchFolder >= MAX_PATH) return nullptr;
    if (FormatTextW(szPath, MAX_PATH, u"%s\\%s", szFolder, pszName) < 0) return nullptr;
    return LoadLibraryW(szPath);
}

} // namespace platform
