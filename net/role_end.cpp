// role_end.cpp: both roles' ends, and the releases that other threads start.
// Sockets go first, under the role lock; the discovery program is told afterwards, outside of it: the shell may take
// its time, and no teardown waits for it.
#include "net/role_end.h"
#include "migration/special_folders.h"
#include "net/discovery_program.h"
#include "net/network_link.h"
#include "net/role_start.h"
#include "net/session_state.h"
#include "platform/detached_thread.h"
#include "trace/debug_output.h"
#include "trace/trace_log.h"
#include <new>

using namespace platform;

std::atomic<HANDLE>  g_hServerExitEvent{nullptr};
std::atomic<HANDLE>  g_hClientExitEvent{nullptr};
std::atomic<uint8_t> g_bClientEnuming{0};

static bool IsRoleHeld(bool bServer)
{
    if (!bServer) return g_bClient || g_ClientRecvSocket != INVALID_SOCKET || g_ClientAttemptSocket != INVALID_SOCKET;
    return g_bServer || g_ServerSendSocket != INVALID_SOCKET || g_ServerSrvSocket != INVALID_SOCKET;
}

// [role lock] The result is the number of the link that has ended.
static uint32_t TakeDownRole(bool bServer, bool bKeepFolders)
{
    const uint32_t dwLink = g_dwLinkGeneration;
    if (IsRoleHeld(bServer)) {
        if (g_bLinkAdmitted && !bKeepFolders) ClearSpecialFolders();
        NextLinkGeneration(); // before the sockets: a thread that wakes from its socket must find its link gone
    }
    const HANDLE hEvent = (bServer ? g_hServerExitEvent : g_hClientExitEvent).exchange(nullptr);
    if (hEvent != nullptr) {
        SetEvent(hEvent);
        CloseHandle(hEvent);
    }
    (bServer ? g_bServer : g_bClient)                               = 0;
    (bServer ? g_Session.bServerStarted : g_Session.bClientStarted) = 0;
    EndLinkSockets(bServer);
    return dwLink;
}

static void LogTeardown(bool bServer)
{
    TraceDebugA(bServer ? "[ServerUninit] i am called..." : "[ClientUninit] i am called...");
    if (!bServer && g_bClientEnuming) TraceDebugA("[ClientUninit] g_bClientEnuming..");
}

static void EndRole(bool bServer, uint32_t dwLink)
{
    uint32_t dwEnded = 0;
    LogTeardown(bServer);
    EnterRoleChange();
    if (dwLink == 0) EndNewestStart(bServer);
    if (dwLink == 0 || IsOwnLink(dwLink)) dwEnded = TakeDownRole(bServer, false);
    LeaveRoleChange();
    if (dwEnded != 0) StopDiscovery(dwEnded);
    if (!bServer) TraceDebugA("[ClientUninit] exit...");
}

void ServerUninitLink(uint32_t dwLink)
{
    EndRole(true, dwLink);
}

void ServerUninit()
{
    EndRole(true, 0);
}

void ClientUninitLink(uint32_t dwLink)
{
    EndRole(false, dwLink);
}

void ClientUninit()
{
    EndRole(false, 0);
}

void EndRolesUpTo(uint32_t dwLast, bool bKeepFolders)
{
    uint32_t aEnded[2] = {};
    EnterRoleChange();
    EndStartsUpTo(dwLast);
    for (const bool bServer : {true, false}) {
        if (!IsRoleOfStartsUpTo(bServer, dwLast)) continue;
        LogTeardown(bServer);
        aEnded[bServer] = TakeDownRole(bServer, bKeepFolders);
    }
    LeaveRoleChange();
    for (const uint32_t dwEnded : aEnded)
        if (dwEnded != 0) StopDiscovery(dwEnded);
    if (aEnded[0] != 0) TraceDebugA("[ClientUninit] exit...");
}

int32_t disconnect()
{
    EndRolesUpTo(NewRoleStart());
    return 1;
}

uint32_t ReleaseNetworkThread(void *pRelease)
{
    TraceText("ReleaseNetworkThread");
    const auto *pLink = static_cast<const LinkRelease *>(pRelease);
    if (pLink == nullptr) disconnect();
    else if (pLink->dwLink == 0) EndRolesUpTo(pLink->dwUpTo);
    else EndRole(pLink->bServer, pLink->dwLink);
    delete pLink;
    return 0;
}

int32_t StartReleaseNetwork()
{
    const LinkRelease all = {false, 0, NewRoleStart()};
    return StartReleaseOfLink(&all);
}

int32_t StartReleaseOfLink(const LinkRelease *pRelease)
{
    auto *pBlock = new (std::nothrow) LinkRelease(*pRelease);
    if (pBlock == nullptr) return 0;
    if (StartDetachedThread(ReleaseNetworkThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}
