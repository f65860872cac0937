// client_discovery.cpp: the search for servers, and the fallback to the one of the last session.
// The discovery program writes what it finds into Socket.dat while the search runs; each round reads it anew.
#include "net/client_discovery.h"
#include "net/adapter_queries.h"
#include "net/client_role.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/settings.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "trace/debug_output.h"

using namespace platform;

namespace {

constexpr uint32_t FORMER_SLEEP_MS    = 100;
constexpr uint32_t FORMER_SLEEPS      = 101; // about 10 s for a former enumeration
constexpr uint32_t ROUND_SLEEP_MS     = 100;
constexpr uint32_t ROUND_SLEEPS       = 10;
constexpr uint32_t EMPTY_PASSWORD_MS  = 2000;  // of search before the last server is tried without a password
constexpr uint32_t SEARCH_MS          = 15000; // of sleeps after which no further round begins
constexpr uint32_t COUNT_BYTES        = 260;

void AwaitFormerEnumeration()
{
    if (!g_bClientEnuming) return;
    uint32_t nCount = 0;
    TraceDebugA("[ClientInitEnum] Wait last enum begin");
    while (g_bClientEnuming && nCount < FORMER_SLEEPS) {
        Sleep(FORMER_SLEEP_MS);
        nCount++;
    }
    TraceDebugA("[ClientInitEnum] Wait last enum end[%d]", nCount);
}

// Sets g_bClient, unless the role's end has come already: nobody would clear it. 0, -201 or 9999.
int32_t TakeClientRole(const std::atomic<uint32_t> *pbWanted)
{
    EnterRoleChange();
    const bool bRefused = g_bServer != 0;
    const bool bEnded   = g_bStopClientEnum || (pbWanted != nullptr && !*pbWanted);
    if (!bRefused && !bEnded) g_bClient = 1;
    LeaveRoleChange();
    if (bRefused) {
        TraceDebugA("[ClientInitEnum] g_bServer already true. Exit");
        return -201;
    }
    if (!bEnded) return 0;
    TraceDebugA("[ClientInitEnum] g_bStopClientEnum.");
    return CLIENT_CANCELLED;
}

// Tries every server that has been found so far. 0, 1111, 9999 or the last attempt's status.
int32_t CheckFoundServers(const char *pszPassword, uint32_t *pdwGeneration)
{
    char szCount[COUNT_BYTES];
    ReadSetting(SECTION_SERVER_ENUM, KEY_COUNT, szCount, sizeof szCount);
    const int32_t nCount = TextToInt32A(szCount);
    TraceDebugA("[ClientEnumCheck] ServerEnum count [%s][%d]", szCount, nCount);
    if (nCount < 1) TraceDebugA("[ClientEnumCheck] discover count 0");
    int32_t nRet = CLIENT_NO_SERVER_FOUND;
    for (int32_t i = 1; i <= nCount; i++) {
        char szKey[32], szAddress[ADDRESS_BYTES], szPort[PORT_BYTES];
        if (g_bStopClientEnum) {
            TraceDebugA("[ClientEnumCheck] g_bStopClientEnum");
            return CLIENT_CANCELLED;
        }
        FormatTextA(szKey, sizeof szKey, "%d", i);
        ReadSetting(SECTION_SERVER_ENUM, szKey, szAddress, sizeof szAddress);
        FormatTextA(szKey, sizeof szKey, "%d_port", i);
        ReadSetting(SECTION_SERVER_ENUM, szKey, szPort, sizeof szPort);
        TraceDebugA("[ClientEnumCheck] ServerEnum [%d]-[%s][%s]", nCount, szAddress, szPort);
        nRet = ClientInitLink(szAddress, pszPassword, szPort, pdwGeneration);
        if (nRet == 0) {
            TraceDebugA("[ClientEnumCheck] ClientInit succeed");
            return 0;
        }
        TraceDebugA("[ClientEnumCheck] ClientInit failed, nRet[%d]", nRet);
        // Without an address it was the last session's server that was tried. Once is enough: the list is still being
        // written, or its count is wrong and the rest would be the same attempt, as often as any number says.
        if (szAddress[0] == '\0') break;
    }
    if (g_bStopClientEnum) {
        TraceDebugA("[ClientEnumCheck] g_bStopClientEnum");
        return CLIENT_CANCELLED;
    }
    return nRet;
}

// Rounds of a second each. 0, or the last round's status.
int32_t SearchServers(const char *pszPassword, uint32_t *pdwGeneration)
{
    uint32_t dwElapsed = 0;
    for (;;) {
        for (uint32_t i = 0; i < ROUND_SLEEPS && !g_bStopClientEnum; i++) {
            Sleep(ROUND_SLEEP_MS);
            dwElapsed += ROUND_SLEEP_MS;
        }
        if (g_bStopClientEnum) return CLIENT_CANCELLED;
        const int32_t nRet = CheckFoundServers(pszPassword, pdwGeneration);
        if (nRet == 0) TraceDebugA("[ClientInitEnum] ClientEnumCheck succeed.");
        if (nRet == 0 || nRet == CLIENT_CANCELLED) return nRet;
        if (dwElapsed >= EMPTY_PASSWORD_MS && pszPassword[0] == '\0') {
            TraceDebugA("[ClientInitEnum] lpszPW empty case, break to try default.");
            return nRet;
        }
        if (dwElapsed > SEARCH_MS) {
            TraceDebugA("[ClientInitEnum] Retry discover to max count.");
            return nRet;
        }
    }
}

// True when the stored address may be reached from here. Only the first numbers are compared; a wired adapter that is
// up may lead anywhere.
bool IsLastServerReachable(const char *pszAddress)
{
    GetDhcpServerIPAddr();
    if (TextToInt32A(pszAddress) == TextToInt32A(g_szLocalIPPrefix)) return true;
    TraceDebugA("[ClientInitEnum] try default, but ini ip and wlan ip not in the same range.");
    const bool bWired = GetCurrentIPFromEthernetAdapter();
    TraceDebugA("[ClientInitEnum][GetCurrentIPFromEthernetAdapter] Ethernet is %s.",
                bWired ? "connected" : "disconnected");
    return bWired;
}

// The fallback. 0, the attempt's status, or nSearched when no attempt was made.
int32_t TryLastServer(const char *pszPassword, int32_t nSearched, uint32_t *pdwGeneration)
{
    char szAddress[ADDRESS_BYTES];
    TraceDebugA("[ClientInitEnum] try default.");
    ReadSetting(SECTION_LAST_CLIENT, KEY_SERVER_IP, szAddress, sizeof szAddress);
    if (szAddress[0] == '\0') {
        TraceDebugA("[ClientInitEnum] try default, but not get ini ip.");
        return nSearched;
    }
    TraceDebugA("[ClientInitEnum] try default, get ini ip [%s].", szAddress);
    if (!IsLastServerReachable(szAddress) || g_bStopClientEnum) return nSearched;
    const int32_t nRet = ClientInitLink("", pszPassword, "", pdwGeneration);
    if (nRet != 0)
        TraceDebugA("[ClientInitEnum] ClientInit (default) failed, nRet[%d]", nRet);
    else
        TraceDebugA("[ClientInitEnum] ClientInit (default) succeed.");
    return nRet;
}

// Steps from the role's taking on. 0, 9999, or the status that the search ended with.
int32_t EnumerateServers(const char *pszPassword, uint32_t *pdwGeneration)
{
    WritePrivateProfileStringA(SECTION_SERVER_ENUM, nullptr, nullptr, g_szConfigPath); // only fresh results are read
    RunDiscoveryClient();
    const int32_t nSearched = SearchServers(pszPassword, pdwGeneration);
    int32_t       nRet      = nSearched;
    if (nSearched != 0 && nSearched != CLIENT_CANCELLED) nRet = TryLastServer(pszPassword, nSearched, pdwGeneration);
    RunDiscoveryHelper("stop");

    EnterRoleChange(); // a stop from here on has ended the role itself, and the next role may have begun
    const bool bStopped = g_bStopClientEnum != 0;
    if (bStopped) {
        TraceDebugA("[ClientInitEnum] g_bStopClientEnum.");
    } else if (nRet != 0) {
        TraceDebugA("[ClientInitEnum] create failed, call uninit, nErr[%d]", nRet);
        ClientUninit();
    }
    LeaveRoleChange();
    if (bStopped) return CLIENT_CANCELLED;
    // Session control tells the service "wrong PIN" by this status: a server of long ago that did not answer must not
    // hide what the servers found here said.
    return nRet == 0 ? 0 : nSearched;
}

} // namespace

int32_t ClientInitEnumLink(const char *pszPassword, const std::atomic<uint32_t> *pbWanted, uint32_t *pdwGeneration)
{
    AwaitFormerEnumeration();
    EnterRoleChange(); // a stop that finds the first flag set must not be cleared with the second
    g_bClientEnuming  = 1;
    g_bStopClientEnum = 0;
    LeaveRoleChange();
    GetConfigPath();
    SocketDebugInit();
    TraceDebugA("[ClientInitEnum] PW[%s]", pszPassword);
    int32_t nRet = TakeClientRole(pbWanted);
    if (nRet == 0) nRet = EnumerateServers(pszPassword, pdwGeneration);
    g_bClientEnuming = 0;
    return nRet;
}

int32_t ClientInitEnum(const char *pszPassword)
{
    uint32_t dwGeneration = 0;
    return ClientInitEnumLink(pszPassword, nullptr, &dwGeneration);
}
