// client_discovery.cpp: the search for servers, and the fallback to the one of the last session.
// The discovery program writes what it finds into Socket.dat while the search runs; each round reads it anew.
#include "net/client_discovery.h"
#include "net/adapter_queries.h"
#include "net/client_role.h"
#include "net/discovery_program.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/settings.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "trace/debug_output.h"

using namespace platform;

constexpr uint32_t FORMER_SLEEP_MS   = 100;
constexpr uint32_t FORMER_SLEEPS     = 101; // about 10 s for a former enumeration
constexpr uint32_t ROUND_SLEEP_MS    = 100;
constexpr uint32_t ROUND_SLEEPS      = 10;
constexpr uint32_t EMPTY_PASSWORD_MS = 2000;  // of search before the last server is tried without a password
constexpr uint32_t SEARCH_MS         = 15000; // of sleeps after which no further round begins
constexpr uint32_t COUNT_BYTES       = 260;
constexpr int32_t  MAX_SERVERS       = 256; // looked at in one round, whatever the count says

static uint32_t g_dwEnumStart; // the start whose search g_bClientEnuming stands for; role lock

static void AwaitFormerEnumeration(uint32_t dwStart)
{
    if (!g_bClientEnuming) return;
    uint32_t nCount = 0;
    TraceDebugA("[ClientInitEnum] Wait last enum begin");
    while (g_bClientEnuming && nCount < FORMER_SLEEPS && IsStartWanted(false, dwStart)) {
        Sleep(FORMER_SLEEP_MS);
        nCount++;
    }
    TraceDebugA("[ClientInitEnum] Wait last enum end[%d]", nCount);
}

// True for one entry of the list as it stands now. Without an address it was the last session's server that was tried:
// once a round is enough.
static bool IsWorthATry(const char *pszAddress, bool *pbLastTried)
{
    const bool bTry = pszAddress[0] != '\0' || !*pbLastTried;
    if (pszAddress[0] == '\0') *pbLastTried = true;
    return bTry;
}

// Tries every server that has been found so far. 0, 1111, 9999 or the last attempt's status.
static int32_t CheckFoundServers(const ClientStart *pStart, const char *pszPassword)
{
    char szCount[COUNT_BYTES];
    ReadSetting(SECTION_SERVER_ENUM, KEY_COUNT, szCount, sizeof(szCount));
    const int32_t nCount = TextToInt32A(szCount);
    TraceDebugA("[ClientEnumCheck] ServerEnum count [%s][%d]", szCount, nCount);
    if (nCount < 1) TraceDebugA("[ClientEnumCheck] discover count 0");
    int32_t nRet       = CLIENT_NO_SERVER_FOUND;
    bool    bLastTried = false;
    for (int32_t i = 1; i <= nCount && i <= MAX_SERVERS; i++) {
        char szKey[32], szAddress[ADDRESS_BYTES], szPort[PORT_BYTES];
        if (IsClientStopped(pStart)) {
            TraceDebugA("[ClientEnumCheck] g_bStopClientEnum");
            return CLIENT_CANCELLED;
        }
        FormatTextA(szKey, sizeof(szKey), "%d", i);
        ReadSetting(SECTION_SERVER_ENUM, szKey, szAddress, sizeof(szAddress));
        FormatTextA(szKey, sizeof(szKey), "%d_port", i);
        ReadSetting(SECTION_SERVER_ENUM, szKey, szPort, sizeof(szPort));
        if (!IsWorthATry(szAddress, &bLastTried)) continue;
        TraceDebugA("[ClientEnumCheck] ServerEnum [%d]-[%s][%s]", nCount, szAddress, szPort);
        nRet = ClientInitStart(pStart, szAddress, pszPassword, szPort);
        if (nRet == 0) {
            TraceDebugA("[ClientEnumCheck] ClientInit succeed");
            return 0;
        }
        TraceDebugA("[ClientEnumCheck] ClientInit failed, nRet[%d]", nRet);
    }
    if (IsClientStopped(pStart)) {
        TraceDebugA("[ClientEnumCheck] g_bStopClientEnum");
        return CLIENT_CANCELLED;
    }
    return nRet;
}

// Rounds of a second each. 0, or the last round's status.
static int32_t SearchServers(const ClientStart *pStart, const char *pszPassword)
{
    uint32_t dwElapsed = 0;
    for (;;) {
        for (uint32_t i = 0; i < ROUND_SLEEPS && !IsClientStopped(pStart); i++) {
            Sleep(ROUND_SLEEP_MS);
            dwElapsed += ROUND_SLEEP_MS;
        }
        if (IsClientStopped(pStart)) return CLIENT_CANCELLED;
        const int32_t nRet = CheckFoundServers(pStart, pszPassword);
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
static bool IsLastServerReachable(const char *pszAddress)
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
static int32_t TryLastServer(const ClientStart *pStart, const char *pszPassword, int32_t nSearched)
{
    char szAddress[ADDRESS_BYTES];
    TraceDebugA("[ClientInitEnum] try default.");
    ReadSetting(SECTION_LAST_CLIENT, KEY_SERVER_IP, szAddress, sizeof(szAddress));
    if (szAddress[0] == '\0') {
        TraceDebugA("[ClientInitEnum] try default, but not get ini ip.");
        return nSearched;
    }
    TraceDebugA("[ClientInitEnum] try default, get ini ip [%s].", szAddress);
    if (!IsLastServerReachable(szAddress) || IsClientStopped(pStart)) return nSearched;
    const int32_t nRet = ClientInitStart(pStart, "", pszPassword, "");
    if (nRet != 0) TraceDebugA("[ClientInitEnum] ClientInit (default) failed, nRet[%d]", nRet);
    else TraceDebugA("[ClientInitEnum] ClientInit (default) succeed.");
    return nRet;
}

// Steps from the role's taking on. 0, 9999, or the status that the search ended with.
static int32_t EnumerateServers(const ClientStart *pStart, const char *pszPassword)
{
    WritePrivateProfileStringA(SECTION_SERVER_ENUM, nullptr, nullptr, g_szConfigPath); // only fresh results are read
    StartDiscovery(false, pStart->dwLink);
    const int32_t nSearched = SearchServers(pStart, pszPassword);
    int32_t       nRet      = nSearched;
    if (nSearched != 0 && nSearched != CLIENT_CANCELLED) nRet = TryLastServer(pStart, pszPassword, nSearched);
    StopDiscovery(pStart->dwLink);

    const bool bStopped = IsClientStopped(pStart);
    if (bStopped) TraceDebugA("[ClientInitEnum] g_bStopClientEnum.");
    else if (nRet != 0) TraceDebugA("[ClientInitEnum] create failed, call uninit, nErr[%d]", nRet);
    if (nRet != 0) ClientUninitLink(pStart->dwLink); // also for a newer start that waits for this one
    if (bStopped) return CLIENT_CANCELLED;
    // Session control tells the service "wrong PIN" by this status: a server of long ago that did not answer must not
    // hide what the servers found here said.
    return nRet == 0 ? 0 : nSearched;
}

int32_t ClientInitEnumStart(const char *pszPassword, uint32_t dwStart, uint32_t *pdwLink)
{
    ClientStart start = {};
    AwaitFormerEnumeration(dwStart);
    EnterRoleChange();
    g_bClientEnuming = 1;
    g_dwEnumStart    = dwStart;
    LeaveRoleChange();
    GetConfigPath();
    SocketDebugInit();
    TraceDebugA("[ClientInitEnum] PW[%s]", pszPassword);
    int32_t nRet = TakeClientRole(dwStart, &start);
    if (nRet == ROLE_EXCLUDED) TraceDebugA("[ClientInitEnum] g_bServer already true. Exit");
    if (nRet == CLIENT_CANCELLED) TraceDebugA("[ClientInitEnum] g_bStopClientEnum.");
    if (nRet == 0) nRet = EnumerateServers(&start, pszPassword);
    *pdwLink = start.dwLink;
    EnterRoleChange();
    if (g_dwEnumStart == dwStart) g_bClientEnuming = 0; // a newer search may have given up waiting for this one
    LeaveRoleChange();
    return nRet;
}

int32_t ClientInitEnum(const char *pszPassword)
{
    uint32_t dwLink = 0;
    return ClientInitEnumStart(pszPassword, NewRoleStartOf(false), &dwLink);
}
