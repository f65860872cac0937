// shortcuts.cpp: where a received shell link points, in terms of this machine.
// A link is saved only when something of it changed: one that already fits keeps its file times and everything in it
// that this module does not know.
#include "migration/shortcuts.h"
#include "migration/state_files.h"
#include "platform/files.h"
#include "platform/shell.h"

using namespace platform;

constexpr int32_t LINK_TEXT_UNITS = 260;

static int32_t RewriteLink(const PathMap *pMap, const char16_t *pszLink, int32_t bRequireSourceVolume)
{
    char16_t   szTarget[LINK_TEXT_UNITS]  = {};
    char16_t   szWorking[LINK_TEXT_UNITS] = {};
    bool       bTargetChanged             = false;
    bool       bWorkingChanged            = false;
    int32_t    nRet                       = 0;
    ShellLink *pLink                      = LoadShellLink(pszLink);
    if (pLink == nullptr) return 0;
    if (!GetShellLinkPath(pLink, szTarget, LINK_TEXT_UNITS) || szTarget[0] == u'\0') goto Exit;

    if (TranslatePath(pMap, szTarget, LINK_TEXT_UNITS, bRequireSourceVolume)) {
        bTargetChanged = SetShellLinkPath(pLink, szTarget);
        if (!bTargetChanged && !bRequireSourceVolume) goto Exit;
    } else if (!bRequireSourceVolume) {
        goto Exit;
    }
    if (GetShellLinkWorkingDirectory(pLink, szWorking, LINK_TEXT_UNITS) && szWorking[0] != u'\0' &&
        TranslateFolderPath(pMap, szWorking, LINK_TEXT_UNITS, bRequireSourceVolume))
        bWorkingChanged = SetShellLinkWorkingDirectory(pLink, szWorking);
    if (!bTargetChanged && !bWorkingChanged) goto Exit;
    nRet = SaveShellLink(pLink, nullptr) ? 1 : 0;
Exit:
    ReleaseShellLink(pLink);
    return nRet;
}

int32_t FixShortcut(const PathMap *pMap, const char16_t *pszLink, int32_t bRequireSourceVolume)
{
    // A link that came read-only opens for nothing else; it is rewritten all the same, and is read-only again.
    const uint32_t dwAttributes = GetFileAttributesW(pszLink);
    const bool     bReadOnly = dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (bReadOnly) SetFileAttributesW(pszLink, dwAttributes & ~FILE_ATTRIBUTE_READONLY);
    const int32_t nRet = RewriteLink(pMap, pszLink, bRequireSourceVolume);
    if (bReadOnly) SetFileAttributesW(pszLink, dwAttributes);
    return nRet;
}

int32_t FixShortcuts(const ShortcutRequest *pRequest)
{
    char16_t szTargetInfo[260];
    PathMap  Map  = {};
    int32_t  nRet = 0;
    if (!InitializeShellLinks()) return 0;
    if (!GetProgressFile(TARGET_INFO_FILE, szTargetInfo)) szTargetInfo[0] = u'\0';
    InitPathMap(&Map, szTargetInfo, 1);
    if (pRequest->pLinks != nullptr) {
        for (const StringEntry *pEntry = pRequest->pLinks->pFirst; pEntry != nullptr; pEntry = pEntry->pNext)
            nRet += FixShortcut(&Map, StringText(pEntry), 0);
    } else if (pRequest->pszLink != nullptr) {
        nRet = FixShortcut(&Map, pRequest->pszLink, 1);
    }
    ReleasePathMap(&Map);
    UninitializeShellLinks();
    return nRet;
}
