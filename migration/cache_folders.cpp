// cache_folders.cpp: both rules by final paths.
#include "migration/cache_folders.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/shell.h"
#include "platform/text.h"

using namespace platform;

constexpr size_t ROOT_UNITS  = 7; // "\\?\C:\"
constexpr size_t DRIVE_COLON = 5;

static bool ResolveFolder(const char16_t *pszFolder, char16_t (&szFinal)[LONG_PATH_UNITS])
{
    return pszFolder[0] != u'\0' && GetFinalPath(pszFolder, szFinal, LONG_PATH_UNITS) &&
           (GetFileAttributesW(szFinal) & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool IsRemovableCache(const char16_t *pszFolder)
{
    char16_t  szFolder[LONG_PATH_UNITS];
    char16_t  szProgramData[LONG_PATH_UNITS];
    char16_t *pszKnown = nullptr;
    bool      bBelow   = false;
    if (SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &pszKnown) >= 0 && pszKnown != nullptr &&
        GetFinalPath(pszKnown, szProgramData, LONG_PATH_UNITS) && ResolveFolder(pszFolder, szFolder)) {
        const size_t cch = TextLengthW(szProgramData);
        bBelow           = CompareTextNoCaseN_W(szFolder, szProgramData, cch) == 0 && szFolder[cch] == u'\\' &&
                 szFolder[cch + 1] != u'\0';
    }
    CoTaskMemFree(pszKnown);
    return bBelow;
}

bool IsListableFolder(const char16_t *pszFolder)
{
    char16_t szFolder[LONG_PATH_UNITS];
    // On a drive: what lies on a share could not be sent, and "\\HOST\C$" is a whole drive too.
    return ResolveFolder(pszFolder, szFolder) && szFolder[DRIVE_COLON] == u':' && TextLengthW(szFolder) > ROOT_UNITS;
}
