// known_folders.cpp: the folders of this machine that both machines have under different paths.
// A folder that cannot be resolved gives an empty entry and not a missing one: position is meaning here.
#include "migration/known_folders.h"
#include "platform/path.h"
#include "platform/shell.h"
#include "platform/text.h"

using namespace platform;

static const GUID *const g_SystemFolderIds[SYSTEM_FOLDER_COUNT] = {
    &FOLDERID_Windows,     &FOLDERID_ProgramFilesX86, &FOLDERID_ProgramFilesX64,
    &FOLDERID_ProgramData, &FOLDERID_Public,          &FOLDERID_Profile,
};
static const GUID *const g_UserFolderIds[USER_FOLDER_COUNT] = {
    &FOLDERID_Desktop,
    &FOLDERID_Documents,
    &FOLDERID_Pictures,
};
constexpr uint32_t UPGRADE_SYSTEM_FOLDERS = 4; // the first of the system folders: those that no user's files live in

// False, with an empty text, when the folder is not there or its path does not fit: a cut path would be another folder.
static bool ResolveFolder(const GUID *pId, char16_t (&szPath)[MACHINE_TEXT_UNITS])
{
    char16_t *pszFound = nullptr;
    bool      bDone    = SHGetKnownFolderPath(*pId, 0, nullptr, &pszFound) >= 0 && pszFound != nullptr;
    bDone              = bDone && CopyTextW(szPath, MACHINE_TEXT_UNITS, pszFound) &&
            PathCchAddBackslash(szPath, MACHINE_TEXT_UNITS) >= 0;
    CoTaskMemFree(pszFound);
    if (!bDone) szPath[0] = u'\0';
    return bDone;
}

// False as soon as a folder cannot be resolved, when that is to end it.
static bool GetKnownFolderList(const GUID *const *ppIds, uint32_t nIds, StringList *pList, bool bStopAtFailure)
{
    for (uint32_t i = 0; i < nIds; ++i) {
        char16_t szPath[MACHINE_TEXT_UNITS];
        if (!ResolveFolder(ppIds[i], szPath) && bStopAtFailure) return false;
        AppendString(pList, szPath, MACHINE_TEXT_UNITS);
    }
    return true;
}

static void StripTrailingBackslashes(StringList *pList)
{
    for (StringEntry *pEntry = pList->pFirst; pEntry != nullptr; pEntry = pEntry->pNext) {
        size_t       cch     = 0;
        char16_t    *pszText = StringBuffer(pEntry, &cch);
        const size_t nLength = TextLengthW(pszText);
        if (nLength > 0 && pszText[nLength - 1] == u'\\') pszText[nLength - 1] = u'\0';
    }
}

void GetSystemFolderList(StringList *pList)
{
    GetKnownFolderList(g_SystemFolderIds, SYSTEM_FOLDER_COUNT, pList, false);
}

void GetUserFolderList(StringList *pList)
{
    GetKnownFolderList(g_UserFolderIds, USER_FOLDER_COUNT, pList, false);
}

void GetUpgradeFolders(StringList *pSystem, StringList *pUserProfiles, StringList *pProfile)
{
    if (pSystem != nullptr) {
        GetKnownFolderList(g_SystemFolderIds, UPGRADE_SYSTEM_FOLDERS, pSystem, false);
        StripTrailingBackslashes(pSystem);
        const char16_t *pszWindows = pSystem->pFirst != nullptr ? StringText(pSystem->pFirst) : u"";
        char16_t        szOld[MACHINE_TEXT_UNITS];
        if (pszWindows[0] != u'\0' && FormatTextW(szOld, MACHINE_TEXT_UNITS, u"%s.old", pszWindows) >= 0)
            AppendString(pSystem, szOld, MACHINE_TEXT_UNITS);
    }
    if (pUserProfiles != nullptr && pProfile != nullptr) {
        static const GUID *const aRoots[]    = {&FOLDERID_UserProfiles};
        static const GUID *const aProfiles[] = {&FOLDERID_Profile, &FOLDERID_Public};
        if (GetKnownFolderList(aRoots, 1, pUserProfiles, true)) GetKnownFolderList(aProfiles, 2, pProfile, true);
        StripTrailingBackslashes(pUserProfiles);
        StripTrailingBackslashes(pProfile);
    }
}
