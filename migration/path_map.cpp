// path_map.cpp: pairs of folders, and drives that the target lacks.
// The user's folders are paired before the system's: Desktop, Documents and Pictures commonly lie below Profile but may
// have been moved elsewhere, so their pairs must be met first.
#include "migration/path_map.h"
#include "migration/machine_info.h"
#include "platform/profile.h"
#include "platform/text.h"
#include <new>

using namespace platform;

constexpr char16_t URL_PREFIX[]          = u"file:///";
constexpr size_t   URL_PREFIX_UNITS      = 8;
constexpr char16_t UNKNOWN_COMPUTER[]    = u"OldDrive";
constexpr char16_t DEFAULT_WINDOWS_DRIVE = u'C';
constexpr size_t   DRIVE_ROOT_UNITS      = 3; // "D:\"

static bool BeginsWith(const char16_t *pszText, const char16_t *pszPrefix)
{
    return CompareTextNoCaseN_W(pszText, pszPrefix, TextLengthW(pszPrefix)) == 0;
}

static bool BeginsWithAny(const char16_t *pszText, const StringList *pPrefixes)
{
    for (const StringEntry *pEntry = pPrefixes->pFirst; pEntry != nullptr; pEntry = pEntry->pNext)
        if (BeginsWith(pszText, StringText(pEntry))) return true;
    return false;
}

static bool IsLetter(char16_t ch)
{
    return (ch >= u'A' && ch <= u'Z') || (ch >= u'a' && ch <= u'z');
}

static void AppendPair(PathMap *pMap, const char16_t *pszSource, const char16_t *pszTarget)
{
    PathPair *pPair = new (std::nothrow) PathPair;
    if (pPair == nullptr) return;
    if (!CopyTextW(pPair->szSource, MAP_PATH_UNITS, pszSource) ||
        !CopyTextW(pPair->szTarget, MAP_PATH_UNITS, pszTarget)) {
        delete pPair; // half a prefix would match other folders
        return;
    }
    pPair->pNext     = nullptr;
    pPair->pPrevious = pMap->pLastPair;
    if (pMap->pLastPair != nullptr) pMap->pLastPair->pNext = pPair;
    else pMap->pFirstPair = pPair;
    pMap->pLastPair = pPair;
}

// "X:\...". A place without a drive (a folder that was moved to a share) takes no files: they come by the next wider
// pair, and links are rewritten to where the files are.
static bool HasDrive(const char16_t *pszPath)
{
    return IsLetter(pszPath[0]) && pszPath[1] == u':' && pszPath[2] == u'\\';
}

// No pair at all unless both lists are whole: position says which folder is meant.
static void PairFolders(PathMap *pMap, const StringList *pSource, const StringList *pTarget, uint32_t nExpected)
{
    if (pSource->nCount != nExpected || pTarget->nCount != nExpected) return;
    const StringEntry *pFrom = pSource->pFirst;
    const StringEntry *pTo   = pTarget->pFirst;
    for (; pFrom != nullptr && pTo != nullptr; pFrom = pFrom->pNext, pTo = pTo->pNext) {
        const char16_t *pszFrom = StringText(pFrom);
        const char16_t *pszTo   = StringText(pTo);
        if (pszFrom[0] == u'\0' || !HasDrive(pszTo) || CompareTextNoCaseW(pszFrom, pszTo) == 0) continue;
        AppendPair(pMap, pszFrom, pszTo);
    }
}

static void SetUnmappedPrefix(PathMap *pMap, const char16_t *pszIniPath, int32_t bIsTarget,
                              const StringList *pTargetSystem)
{
    char16_t szComputer[MACHINE_TEXT_UNITS];
    if (bIsTarget)
        GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, UNKNOWN_COMPUTER, szComputer,
                                 MACHINE_TEXT_UNITS, pszIniPath);
    else GetOwnComputerName(szComputer);
    if (szComputer[0] == u'\0') CopyTextW(szComputer, MACHINE_TEXT_UNITS, UNKNOWN_COMPUTER);

    const char16_t *pszWindows = pTargetSystem->pFirst != nullptr ? StringText(pTargetSystem->pFirst) : u"";
    const char16_t  chDrive    = IsLetter(pszWindows[0]) ? pszWindows[0] : DEFAULT_WINDOWS_DRIVE;
    CopyTextW(pMap->szWindowsFolder, 260, pszWindows);
    FormatTextW(pMap->szUnmappedPrefix, 260, u"%c:\\%s_", chDrive, szComputer);
}

static void SetUsers(PathMap *pMap, const char16_t *pszIniPath, int32_t bIsTarget)
{
    char16_t *pszOwn  = bIsTarget ? pMap->szTargetSid : pMap->szSourceSid;
    char16_t *pszPeer = bIsTarget ? pMap->szSourceSid : pMap->szTargetSid;
    GetCurrentUserSid(pszOwn);
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, CURRENT_USER_KEY, u"", pszPeer, 260, pszIniPath);
    if (pszOwn[0] != u'\0' && pszPeer[0] != u'\0' && CompareTextW(pszOwn, pszPeer) != 0) pMap->bUserDiffers = 1;
}

void InitPathMap(PathMap *pMap, const char16_t *pszIniPath, int32_t bIsTarget)
{
    StringList OwnSystem  = {};
    StringList OwnUser    = {};
    StringList PeerSystem = {};
    StringList PeerUser   = {};
    if (pMap == nullptr || pMap->bInitialised) return;

    GetSystemFolderList(&OwnSystem);
    GetUserFolderList(&OwnUser);
    ReadMachineInfo(pszIniPath, &PeerSystem, &PeerUser, bIsTarget ? &pMap->PeerVolumes : &pMap->DestinationVolumes);
    if (bIsTarget) GetFixedVolumes(&pMap->DestinationVolumes);

    PairFolders(pMap, bIsTarget ? &PeerUser : &OwnUser, bIsTarget ? &OwnUser : &PeerUser, USER_FOLDER_COUNT);
    PairFolders(pMap, bIsTarget ? &PeerSystem : &OwnSystem, bIsTarget ? &OwnSystem : &PeerSystem, SYSTEM_FOLDER_COUNT);
    SetUnmappedPrefix(pMap, pszIniPath, bIsTarget, bIsTarget ? &OwnSystem : &PeerSystem);

    FreeStringList(&OwnSystem);
    FreeStringList(&OwnUser);
    FreeStringList(&PeerSystem);
    FreeStringList(&PeerUser);

    SetUsers(pMap, pszIniPath, bIsTarget);
    pMap->bInitialised = 1;
}

void ReleasePathMap(PathMap *pMap)
{
    if (pMap == nullptr || !pMap->bInitialised) return;
    for (PathPair *pPair = pMap->pFirstPair; pPair != nullptr;) {
        PathPair *pNext = pPair->pNext;
        delete pPair;
        pPair = pNext;
    }
    pMap->pFirstPair = nullptr;
    pMap->pLastPair  = nullptr;
    FreeStringList(&pMap->PeerVolumes);
    FreeStringList(&pMap->DestinationVolumes);
    pMap->bInitialised        = 0;
    pMap->bUserDiffers        = 0;
    pMap->szUnmappedPrefix[0] = u'\0';
    pMap->szWindowsFolder[0]  = u'\0';
    pMap->szSourceSid[0]      = u'\0';
    pMap->szTargetSid[0]      = u'\0';
}

// What stands before a path.
struct PathForm {
    const char16_t *pszLead;  // kept in front of the rewritten path
    size_t          cchLead;  // where the path itself begins
    size_t          cchDrive; // units that give way to the new root when a drive moves
};

static PathForm ClassifyPath(const char16_t *pszPath)
{
    if (pszPath[0] == u'"') return {u"\"", 1, 1 + DRIVE_ROOT_UNITS};
    if (pszPath[0] == u'@') return {u"@", 1, 1 + DRIVE_ROOT_UNITS};
    // Three units here too, although the drive stands behind the prefix: programs that read such texts know the outcome
    // ("file:///C:\OLDPC_D\e:///D:/x") and depend on it.
    if (BeginsWith(pszPath, URL_PREFIX)) return {URL_PREFIX, URL_PREFIX_UNITS, DRIVE_ROOT_UNITS};
    return {u"", 0, DRIVE_ROOT_UNITS};
}

// 1, or -1 with the path untouched when the text did not fit: a cut path would name another file.
static int32_t ReplacePath(char16_t *pszPath, uint32_t cch, const char16_t *pszText, int32_t nFormatted)
{
    if (nFormatted < 0 || static_cast<uint32_t>(nFormatted) >= cch) return -1;
    CopyTextW(pszPath, cch, pszText);
    return 1;
}

// A drive that the target does not have becomes a folder on its Windows drive, named for the old machine and the
// letter.
static int32_t MoveDrive(const PathMap *pMap, const PathForm &Form, char16_t *pszPath, uint32_t cch)
{
    char16_t        szNew[MAP_PATH_UNITS];
    const char16_t *pszBare = pszPath + Form.cchLead;
    if (TextLengthW(pszPath) < Form.cchDrive) return 0;
    // A path without a drive (a share, a shell name) has none that could move.
    if (!IsLetter(pszBare[0]) || pszBare[1] != u':') return 0;
    const int32_t nFormatted = FormatTextW(szNew, MAP_PATH_UNITS, u"%s%s%c\\%s", Form.pszLead, pMap->szUnmappedPrefix,
                                           pszBare[0], pszPath + Form.cchDrive);
    return ReplacePath(pszPath, cch, szNew, nFormatted);
}

// 1, 0 or -1, as TranslateForTarget.
static int32_t Translate(const PathMap *pMap, char16_t *pszPath, uint32_t cch, int32_t bRequireSourceVolume)
{
    char16_t szNew[MAP_PATH_UNITS];
    if (pMap == nullptr || !pMap->bInitialised) return 0;
    const PathForm  Form    = ClassifyPath(pszPath);
    const char16_t *pszBare = pszPath + Form.cchLead;

    for (const PathPair *pPair = pMap->pFirstPair; pPair != nullptr; pPair = pPair->pNext) {
        if (!BeginsWith(pszBare, pPair->szSource)) continue;
        const char16_t *pszRest = pszBare + TextLengthW(pPair->szSource);
        return ReplacePath(pszPath, cch, szNew,
                           FormatTextW(szNew, MAP_PATH_UNITS, u"%s%s%s", Form.pszLead, pPair->szTarget, pszRest));
    }
    if (bRequireSourceVolume && pMap->PeerVolumes.nCount != 0 && !BeginsWithAny(pszBare, &pMap->PeerVolumes)) return 0;
    if (BeginsWithAny(pszBare, &pMap->DestinationVolumes)) return 0;
    return MoveDrive(pMap, Form, pszPath, cch);
}

int32_t TranslatePath(const PathMap *pMap, char16_t *pszPath, uint32_t cch, int32_t bRequireSourceVolume)
{
    return Translate(pMap, pszPath, cch, bRequireSourceVolume) > 0 ? 1 : 0;
}

int32_t TranslateForTarget(const PathMap *pMap, char16_t *pszPath, uint32_t cch)
{
    return Translate(pMap, pszPath, cch, 0);
}

int32_t TranslateFolderPath(const PathMap *pMap, char16_t *pszPath, uint32_t cch, int32_t bRequireSourceVolume)
{
    char16_t szFolder[MAP_PATH_UNITS];
    if (FormatTextW(szFolder, MAP_PATH_UNITS, u"%s\\", pszPath) < 0) return 0;
    if (!TranslatePath(pMap, szFolder, MAP_PATH_UNITS, bRequireSourceVolume)) return 0;
    const size_t cchNew = TextLengthW(szFolder);
    if (cchNew == 0 || cchNew > cch) return 0;
    szFolder[cchNew - 1] = u'\0';
    CopyTextW(pszPath, cch, szFolder);
    return 1;
}
