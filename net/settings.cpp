// settings.cpp: Socket.dat and the discovery program.
// GetConfigPath runs again at every role start, on whichever thread starts it, while others read the paths. Both are
// built aside and stored only when they differ, which after the first call they do not: so readers need no lock.
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include "platform/modules.h"
#include "platform/path.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/shell.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "platform/user_interface.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"
#include <cstring>

using namespace platform;

char g_szConfigPath[260];
char g_szmDNSPath[260];

constexpr char     FIXED_DATA_FOLDER[] = "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa";
constexpr char     DATA_FOLDER_TAIL[]  = "\\VORN\\VORN Qelvane\\VORNTramsa";
constexpr char     CONFIG_FILE_TAIL[]  = "\\Socket.dat";
constexpr char     DISCOVERY_TAIL[]    = "\\VornTramsaNetMDNS.exe";
constexpr char16_t DEBUG_KEY[]         = u"Software\\VORN\\VORN Tramsa";
constexpr char16_t DEBUG_VALUE[]       = u"SocketDebug";
constexpr intptr_t SHELL_EXECUTE_ERROR = 32; // ShellExecuteA's results up to this one are failures
// What the product writes is a few kilobytes. Each value costs the profile functions a walk through the whole file,
// and everybody may write it: tens of megabytes would keep a role from starting for a minute.
constexpr uint64_t SETTINGS_LIMIT_BYTES = 256 * 1024;

static CRITICAL_SECTION g_csPaths; // guards the first store into the two paths

static CRITICAL_SECTION *PathLock()
{
    return MadeOnce<&g_csPaths>();
}

static void StorePath(char (&szGlobal)[260], const char *pszPath)
{
    EnterCriticalSection(PathLock());
    if (std::strcmp(szGlobal, pszPath) != 0) CopyTextA(szGlobal, sizeof(szGlobal), pszPath);
    LeaveCriticalSection(PathLock());
}

// The product's data folder, created with its parents.
static void MakeDataFolder(char (&szFolder)[260])
{
    if (SHGetSpecialFolderPathA(nullptr, szFolder, CSIDL_COMMON_APPDATA, TRUE)) {
        AppendTextA(szFolder, sizeof(szFolder), DATA_FOLDER_TAIL);
    } else {
        ReportSocketError(u"GetConfigPath", u"SHGetSpecialFolderPathA failed!", true, 0);
        CopyTextA(szFolder, sizeof(szFolder), FIXED_DATA_FOLDER);
    }
    char16_t szWide[MAX_PATH] = u"";
    if (MultiByteToWideChar(CP_ACP, 0, szFolder, -1, szWide, MAX_PATH) > 0) CreateDirectoryWithParents(szWide);
}

static bool IsUsable(const char *pszPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    char16_t                  szWide[MAX_PATH] = u"";
    if (platform::_access(pszPath, 0) == -1) return false;
    MultiByteToWideChar(CP_ACP, 0, pszPath, -1, szWide, MAX_PATH);
    return !GetFileAttributesExW(szWide, GetFileExInfoStandard, &data) ||
           (static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow) <= SETTINGS_LIMIT_BYTES;
}

static int32_t RunDiscoveryWithConfig(const char *pszFormat)
{
    char szParameters[260];
    FormatTextA(szParameters, sizeof(szParameters), pszFormat, g_szConfigPath);
    return RunDiscoveryHelper(szParameters);
}

void GetConfigPath()
{
    char szPath[260] = "";
    MakeDataFolder(szPath);
    AppendTextA(szPath, sizeof(szPath), CONFIG_FILE_TAIL);
    StorePath(g_szConfigPath, szPath);
    TraceDebugA("[GetConfigPath] g_szConfigPath path is [%s]", szPath);
    if (!IsUsable(szPath)) {
        // An ANSI path taken as UTF-8, which is the same as long as it is ASCII; where it is not, the write below makes
        // the file at its place, with default security.
        char16_t szWide[MAX_PATH] = u"";
        MultiByteToWideChar(CP_UTF8, 0, szPath, -1, szWide, MAX_PATH);
        CreateSharedFile(szWide);
        WritePrivateProfileStringA("Init", "Init", "", szPath);
    }
    szPath[0] = '\0';
    GetModuleFileNameA(nullptr, szPath, sizeof(szPath));
    PathRemoveFileSpecA(szPath);
    AppendTextA(szPath, sizeof(szPath), DISCOVERY_TAIL);
    StorePath(g_szmDNSPath, szPath);
    TraceDebugA("[GetConfigPath] g_szmDNSPath path is [%s]", szPath);
}

int32_t CreateSharedFile(const char16_t *pszPath)
{
    SECURITY_ATTRIBUTES *pSecurity = CreateEveryoneSecurity(FILE_EVERYONE_ACCESS);
    if (pSecurity == nullptr) return 0;
    const HANDLE hFile =
        CreateFileW(pszPath, GENERIC_WRITE, 0, pSecurity, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    const uint32_t dwError = GetLastError();
    if (hFile != INVALID_HANDLE_VALUE) CloseHandle(hFile);
    FreeSecurity(pSecurity);
    SetLastError(dwError);
    return hFile != INVALID_HANDLE_VALUE ? 1 : 0;
}

int32_t RunDiscoveryHelper(const char *pszParameters)
{
    const HMODULE hShell = LoadSystemLibrary(u"Shell32.dll");
    if (hShell == nullptr) return 0;
    const auto pShellExecute = reinterpret_cast<ShellExecuteAProc>(GetProcAddress(hShell, "ShellExecuteA"));
    int32_t    nRet          = 0;
    if (pShellExecute != nullptr) {
        const HINSTANCE hResult = pShellExecute(nullptr, "open", g_szmDNSPath, pszParameters, nullptr, SW_HIDE);
        nRet                    = reinterpret_cast<intptr_t>(hResult) > SHELL_EXECUTE_ERROR ? 1 : 0;
    }
    FreeLibrary(hShell);
    return nRet;
}

int32_t RunDiscoveryServer()
{
    return RunDiscoveryWithConfig("server \"%s\"");
}

int32_t RunDiscoveryClient()
{
    return RunDiscoveryWithConfig("client \"%s\"");
}

bool SocketDebugInit()
{
    HKEY     hKey   = nullptr;
    uint32_t dwFlag = 0, dwType = 0, cbFlag = sizeof(dwFlag);
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, DEBUG_KEY, 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, &hKey) != 0) return false;
    const int32_t nError =
        RegQueryValueExW(hKey, DEBUG_VALUE, nullptr, &dwType, reinterpret_cast<uint8_t *>(&dwFlag), &cbFlag);
    RegCloseKey(hKey);
    if (nError != 0) return false;
    if (dwFlag == 1) g_bSocketDebug = 1;
    else if (!g_bSocketDebug && GetPrivateProfileIntA("Debug", "SocketDebug", -1, g_szConfigPath) == 1)
        g_bSocketDebug = 1;
    return true;
}

void ReadSetting(const char *pszSection, const char *pszKey, char *pszValue, uint32_t cb)
{
    pszValue[0] = '\0';
    GetPrivateProfileStringA(pszSection, pszKey, "", pszValue, cb, g_szConfigPath);
}

void WriteSetting(const char *pszSection, const char *pszKey, const char *pszValue)
{
    WritePrivateProfileStringA(pszSection, pszKey, pszValue, g_szConfigPath);
}
