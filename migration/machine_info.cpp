// machine_info.cpp: the machine-info INI, and what of it this machine has to be asked for.
// The file comes from the peer, so nothing in it is taken for granted: every text is bounded, a number says at most how
// often to look, and what is not a drive root is not used as one.
#include "migration/machine_info.h"
#include "platform/errors.h"
#include "platform/made_once.h"
#include "platform/profile.h"
#include "platform/security.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "platform/volumes.h"

using namespace platform;

constexpr char16_t KNOWN_FOLDER_SECTION[] = u"KnownFolder";
constexpr char16_t VOLUME_SECTION[]       = u"Volume";
constexpr char16_t VOLUME_NUMBER_KEY[]    = u"Number";
constexpr char16_t VOLUME_PATH_KEY[]      = u"Path";

static const char16_t *const g_pszSystemFolderKeys[SYSTEM_FOLDER_COUNT] = {
    u"\"Windows\"", u"\"ProgramFilesX86\"", u"\"ProgramFilesX64\"", u"\"ProgramData\"", u"\"Public\"", u"\"Profile\"",
};
static const char16_t *const g_pszUserFolderKeys[USER_FOLDER_COUNT] = {u"\"Desktop\"", u"\"Documents\"",
                                                                       u"\"Pictures\""};

constexpr uint32_t SID_BYTES            = 68;  // the largest SID
constexpr int32_t  MACHINE_VOLUMES_MAX  = 256; // looked at, whatever "Number" says: each costs a pass over the file
constexpr size_t   QUOTED_TEXT_UNITS    = MACHINE_TEXT_UNITS + 2;
constexpr size_t   VOLUME_SECTION_UNITS = 32;

// The user's SID, asked for once: a laptop away from its domain waits long for the answer. Under the lock, over the
// call.
static CRITICAL_SECTION g_csOwnSid;
static bool             g_bOwnSidAsked;
static char16_t         g_szOwnSid[MACHINE_TEXT_UNITS]; // empty: there is none

static bool WriteQuoted(const char16_t *pszIniPath, const char16_t *pszSection, const char16_t *pszKey,
                        const char16_t *pszValue)
{
    char16_t szQuoted[QUOTED_TEXT_UNITS];
    if (FormatTextW(szQuoted, QUOTED_TEXT_UNITS, u"\"%s\"", pszValue) < 0) return false;
    return WritePrivateProfileStringW(pszSection, pszKey, szQuoted, pszIniPath) != FALSE;
}

// Whole lists only: the reader pairs them by position.
static bool WriteFolderKeys(const char16_t *pszIniPath, const char16_t *const *ppszKeys, uint32_t nKeys,
                            const StringList *pFolders)
{
    if (pFolders->nCount != nKeys) return false;
    bool               bWritten = true;
    const StringEntry *pEntry   = pFolders->pFirst;
    for (uint32_t i = 0; i < nKeys && pEntry != nullptr; ++i, pEntry = pEntry->pNext)
        bWritten = WriteQuoted(pszIniPath, KNOWN_FOLDER_SECTION, ppszKeys[i], StringText(pEntry)) && bWritten;
    return bWritten;
}

static void ReadFolderKeys(const char16_t *pszIniPath, const char16_t *const *ppszKeys, uint32_t nKeys,
                           StringList *pFolders)
{
    for (uint32_t i = 0; i < nKeys; ++i) {
        char16_t szPath[MACHINE_TEXT_UNITS];
        GetPrivateProfileStringW(KNOWN_FOLDER_SECTION, ppszKeys[i], u"", szPath, MACHINE_TEXT_UNITS, pszIniPath);
        AppendString(pFolders, szPath, MACHINE_TEXT_UNITS);
    }
}

static bool IsDriveRoot(const char16_t *pszPath)
{
    const char16_t chDrive = pszPath[0];
    if (!((chDrive >= u'A' && chDrive <= u'Z') || (chDrive >= u'a' && chDrive <= u'z'))) return false;
    return pszPath[1] == u':' && pszPath[2] == u'\\' && pszPath[3] == u'\0';
}

static void ReadVolumes(const char16_t *pszIniPath, StringList *pVolumes)
{
    int32_t nVolumes = static_cast<int32_t>(GetPrivateProfileIntW(VOLUME_SECTION, VOLUME_NUMBER_KEY, 0, pszIniPath));
    if (nVolumes > MACHINE_VOLUMES_MAX) nVolumes = MACHINE_VOLUMES_MAX;
    for (int32_t i = 0; i < nVolumes; ++i) {
        char16_t szSection[VOLUME_SECTION_UNITS];
        char16_t szPath[MACHINE_TEXT_UNITS];
        FormatTextW(szSection, VOLUME_SECTION_UNITS, u"Volume%d", i);
        GetPrivateProfileStringW(szSection, VOLUME_PATH_KEY, u"", szPath, MACHINE_TEXT_UNITS, pszIniPath);
        if (IsDriveRoot(szPath)) AppendString(pVolumes, szPath, MACHINE_TEXT_UNITS);
    }
}

static void WriteVolumes(const char16_t *pszIniPath)
{
    StringList Volumes = {};
    char16_t   szText[VOLUME_SECTION_UNITS];
    GetFixedVolumes(&Volumes);
    FormatTextW(szText, VOLUME_SECTION_UNITS, u"%d", Volumes.nCount);
    WritePrivateProfileStringW(VOLUME_SECTION, VOLUME_NUMBER_KEY, szText, pszIniPath);
    uint32_t i = 0;
    for (const StringEntry *pEntry = Volumes.pFirst; pEntry != nullptr; pEntry = pEntry->pNext, ++i) {
        FormatTextW(szText, VOLUME_SECTION_UNITS, u"Volume%d", i);
        WriteQuoted(pszIniPath, szText, VOLUME_PATH_KEY, StringText(pEntry));
    }
    FreeStringList(&Volumes);
}

// False for a name that stands for a folder (SUBST), and for what a user's program offers as a drive: they come and go
// with a session, and files that were sent there would lie in that folder, or nowhere. A name that cannot be asked
// counts as a volume.
static bool IsDiskVolume(char16_t chDrive)
{
    constexpr char16_t VOLUME_DEVICE[] = u"\\Device\\HarddiskVolume";
    const char16_t     szName[]        = {chDrive, u':', u'\0'};
    char16_t           szDevice[MACHINE_TEXT_UNITS];
    if (QueryDosDeviceW(szName, szDevice, MACHINE_TEXT_UNITS) == 0) return GetLastError() != ERROR_INSUFFICIENT_BUFFER;
    return CompareTextNoCaseN_W(szDevice, VOLUME_DEVICE, TextLengthW(VOLUME_DEVICE)) == 0;
}

void GetFixedVolumes(StringList *pList)
{
    const uint32_t dwDrives = GetLogicalDrives();
    for (uint32_t i = 0; i < 26; ++i) {
        if ((dwDrives & (1u << i)) == 0) continue;
        const char16_t szRoot[] = {static_cast<char16_t>(u'A' + i), u':', u'\\', u'\0'};
        if (GetDriveTypeW(szRoot) != DRIVE_FIXED || !IsDiskVolume(szRoot[0])) continue;
        HotPlugInfo Info = {};
        if (GetHotPlugInfo(szRoot, &Info) && (Info.bMediaRemovable || Info.bDeviceHotplug)) continue;
        AppendString(pList, szRoot, MACHINE_TEXT_UNITS);
    }
}

int32_t GetOwnComputerName(char16_t *pszName)
{
    uint32_t cch = MACHINE_TEXT_UNITS;
    if (GetComputerNameW(pszName, &cch)) return 1;
    pszName[0] = u'\0';
    return 0;
}

// 1 when the account is a user's own and its SID became text.
static int32_t LookUpUserSid(const char16_t *pszAccount, char16_t *pszSid, char16_t (&szDomain)[MACHINE_TEXT_UNITS])
{
    alignas(8) unsigned char aSid[SID_BYTES];
    uint32_t                 cbSid     = SID_BYTES;
    uint32_t                 cchDomain = MACHINE_TEXT_UNITS;
    SID_NAME_USE             eUse      = SidTypeUnknown;
    char16_t                *pszText   = nullptr;
    int32_t                  nRet      = 0;
    szDomain[0]                        = u'\0';
    if (!LookupAccountNameW(nullptr, pszAccount, aSid, &cbSid, szDomain, &cchDomain, &eUse)) return 0;
    if (eUse != SidTypeUser) return 0;
    if (ConvertSidToStringSidW(aSid, &pszText)) {
        nRet = CopyTextW(pszSid, MACHINE_TEXT_UNITS, pszText) ? 1 : 0;
        if (!nRet) pszSid[0] = u'\0';
        LocalFree(pszText);
    }
    return nRet;
}

static int32_t AskForUserSid(char16_t *pszSid)
{
    char16_t szUser[MACHINE_TEXT_UNITS];
    char16_t szDomain[MACHINE_TEXT_UNITS];
    char16_t szAccount[2 * MACHINE_TEXT_UNITS];
    uint32_t cchUser = MACHINE_TEXT_UNITS;
    pszSid[0]        = u'\0';
    if (!GetUserNameW(szUser, &cchUser)) return 0;
    if (LookUpUserSid(szUser, pszSid, szDomain)) return 1;
    // A machine of the user's own name answers for the plain name; with its domain the name can only be the user's.
    FormatTextW(szAccount, 2 * MACHINE_TEXT_UNITS, u"%s\\%s", szDomain, szUser);
    return LookUpUserSid(szAccount, pszSid, szDomain);
}

int32_t GetCurrentUserSid(char16_t *pszSid)
{
    EnterCriticalSection(MadeOnce<&g_csOwnSid>());
    if (!g_bOwnSidAsked) {
        AskForUserSid(g_szOwnSid);
        g_bOwnSidAsked = true;
    }
    CopyTextW(pszSid, MACHINE_TEXT_UNITS, g_szOwnSid);
    LeaveCriticalSection(&g_csOwnSid);
    return pszSid[0] != u'\0' ? 1 : 0;
}

void ForgetCurrentUserSid()
{
    EnterCriticalSection(MadeOnce<&g_csOwnSid>());
    g_bOwnSidAsked = false;
    LeaveCriticalSection(&g_csOwnSid);
}

int32_t WriteMachineInfo(const char16_t *pszIniPath, const char16_t *pszCurrentUserSid)
{
    StringList Folders = {};
    char16_t   szName[MACHINE_TEXT_UNITS];

    GetSystemFolderList(&Folders);
    const int32_t nRet = WriteFolderKeys(pszIniPath, g_pszSystemFolderKeys, SYSTEM_FOLDER_COUNT, &Folders) ? 1 : 0;
    FreeStringList(&Folders);

    GetUserFolderList(&Folders);
    WriteFolderKeys(pszIniPath, g_pszUserFolderKeys, USER_FOLDER_COUNT, &Folders);
    FreeStringList(&Folders);

    if (GetOwnComputerName(szName)) WriteQuoted(pszIniPath, SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, szName);
    WriteQuoted(pszIniPath, SOURCE_MACHINE_SECTION, CURRENT_USER_KEY, pszCurrentUserSid);
    WriteVolumes(pszIniPath);
    return nRet;
}

int32_t ReadMachineInfo(const char16_t *pszIniPath, StringList *pSystem, StringList *pUser, StringList *pVolumes)
{
    int32_t nRet = 0;
    if (pSystem != nullptr && pSystem->nCount == 0) {
        ReadFolderKeys(pszIniPath, g_pszSystemFolderKeys, SYSTEM_FOLDER_COUNT, pSystem);
        nRet = 1;
    }
    if (pUser != nullptr && pUser->nCount == 0)
        ReadFolderKeys(pszIniPath, g_pszUserFolderKeys, USER_FOLDER_COUNT, pUser);
    if (pVolumes != nullptr && pVolumes->nCount == 0) ReadVolumes(pszIniPath, pVolumes);
    return nRet;
}
