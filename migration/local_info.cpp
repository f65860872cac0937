// local_info.cpp: what each machine tells the other about itself at the start of a session.
#include "migration/local_info.h"
#include "migration/machine_info.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "platform/modules.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "transfer/network_send.h"

using namespace platform;

char16_t g_szProductVersion[STATE_PATH_UNITS];

constexpr char16_t MAPPING_SECTION[]  = u"MappingFolder";
constexpr char16_t MAPPING_PATH_KEY[] = u"\"AppPath\"";
constexpr char16_t PACKAGE_SECTION[]  = u"Package";
constexpr char16_t VERSION_KEY[]      = u"\"Version\"";
constexpr char16_t DEFAULT_VERSION[]  = u"1.0.2.0"; // agents from before the key
constexpr char16_t VERSION_1040[]     = u"1.0.4.0";
constexpr char16_t VERSION_1050[]     = u"1.0.5.0";
constexpr char16_t VERSION_RESOURCE[] = u"\\StringFileInfo\\040904b0\\PRODUCTVERSION";
constexpr uint64_t VERSION_PART_MAX   = 0xFFFF;
constexpr size_t   QUOTED_UNITS       = STATE_PATH_UNITS + 2;
constexpr size_t   NUMBER_UNITS       = 12;

static void WriteQuotedText(const char16_t *pszFile, const char16_t *pszSection, const char16_t *pszKey,
                            const char16_t *pszText)
{
    char16_t szQuoted[QUOTED_UNITS];
    FormatTextW(szQuoted, QUOTED_UNITS, u"\"%s\"", pszText);
    WritePrivateProfileStringW(pszSection, pszKey, szQuoted, pszFile);
}

int32_t WriteLocalInfo(SessionRecord *pSession)
{
    char16_t szFile[STATE_PATH_UNITS];
    char16_t szSid[STATE_PATH_UNITS];
    if (!GetProgressFile(LOCAL_INFO_FILE, szFile)) return 0;
    if (!CreateStateFile(szFile))
        return 0; // the profile functions would make one without the access rights and in ANSI
    GetCurrentUserSid(szSid);
    WriteMachineInfo(szFile, szSid);
    WriteQuotedText(szFile, MAPPING_SECTION, MAPPING_PATH_KEY, pSession->szMappingPath);
    // Without a lock: a session that is overtaken may be here too, and finds the same text.
    if (g_szProductVersion[0] == u'\0') GetOwnVersionText(VERSION_RESOURCE, g_szProductVersion, STATE_PATH_UNITS);
    WriteQuotedText(szFile, PACKAGE_SECTION, VERSION_KEY, g_szProductVersion);
    const uint32_t nWindow = ReadOwnWindow();
    if (nWindow > 1) { // without it the file is that of an agent that knows no window
        char16_t szNumber[NUMBER_UNITS];
        FormatTextW(szNumber, NUMBER_UNITS, u"%u", nWindow);
        WriteQuotedText(szFile, LINK_SECTION, SEND_WINDOW_KEY, szNumber);
    }
    return 1;
}

int32_t SendLocalInfo()
{
    char16_t szFile[STATE_PATH_UNITS];
    if (!GetProgressFile(LOCAL_INFO_FILE, szFile)) return 0;
    // The receiver keeps the file under its own name for it; the path only has to be one.
    return SendNetworkFile(szFile, szFile, FILE_TYPE_MACHINE_INFO, 0, 1, nullptr);
}

// Four 16-bit parts, the first one highest. A part beyond 16 bits counts as the largest, so that order holds.
static uint64_t ParseVersion(const char16_t *pszText)
{
    uint64_t ullVersion = 0;
    bool     bMore      = true;
    for (int nPart = 0; nPart < 4; ++nPart) {
        uint64_t ullPart = 0;
        bool     bDigits = false;
        if (bMore) {
            for (; *pszText == u' ' || *pszText == u'\t'; ++pszText) {
            }
            for (; *pszText >= u'0' && *pszText <= u'9'; ++pszText) {
                ullPart = ullPart * 10 + static_cast<uint64_t>(*pszText - u'0');
                if (ullPart > VERSION_PART_MAX) ullPart = VERSION_PART_MAX;
                bDigits = true;
            }
            bMore = bDigits && *pszText == u'.';
            if (bMore) ++pszText;
        }
        ullVersion = (ullVersion << 16) | ullPart;
    }
    return ullVersion;
}

int32_t CompareVersion(const char16_t *pszA, const char16_t *pszB)
{
    return ParseVersion(pszA) >= ParseVersion(pszB) ? 1 : 0;
}

void ReadTargetInfo(SessionRecord *pSession, char16_t *pszPeerName, uint32_t cchPeerName)
{
    char16_t szFile[STATE_PATH_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szFile); // an empty path reads as a file that says nothing
    if (pszPeerName != nullptr && cchPeerName > 0)
        GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, u"", pszPeerName, cchPeerName, szFile);
    GetPrivateProfileStringW(MAPPING_SECTION, MAPPING_PATH_KEY, u"", pSession->szPeerMappingPath, STATE_PATH_UNITS,
                             szFile);
    GetPrivateProfileStringW(PACKAGE_SECTION, VERSION_KEY, DEFAULT_VERSION, pSession->szPeerVersion, STATE_PATH_UNITS,
                             szFile);
    const uint32_t bAtLeast1050      = static_cast<uint32_t>(CompareVersion(pSession->szPeerVersion, VERSION_1050));
    pSession->bPeerAtLeast1040       = static_cast<uint32_t>(CompareVersion(pSession->szPeerVersion, VERSION_1040));
    pSession->bPeerAtLeast1050       = bAtLeast1050;
    pSession->bPeerAtLeast1050Second = bAtLeast1050;
}

void ResetLocalInfo()
{
    g_szProductVersion[0] = u'\0';
}
