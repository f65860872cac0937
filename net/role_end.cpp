// role_end.cpp: both roles' ends, and the releases that other threads start.
#include "net/role_end.h"
#include "migration/special_folders.h"
#include "net/network_link.h"
#include "net/session_state.h"
#include "net/settings.h"
#include "platform/detached_thread.h"
#include "trace/debug_output.h"
#include "trace/trace_log.h"
#include <new>

using namespace platform;

std::atomic<HANDLE>  g_hServerExitEvent{nullptr};
std::atomic<HANDLE>  g_hClientExitEvent{nullptr};
std::atomic<uint8_t> g_bServerWinsock{0};
std::atomic<uint8_t> g_bClientWinsock{0};
std::atomic<uint8_t> g_bClientEnuming{0};
std::atomic<uint8_t> g_bStopClientEnum{0};

void ServerUninitLink(uint32_t dwGeneration)
{
    TraceDebugA("[ServerUninit] i am called...");
    EnterRoleChange();
    if (dwGeneration == 0 || dwGeneration == g_dwLinkGeneration) {
        // The number grows first: a thread that wakes from its closed socket must find its link gone.
        if (g_bServer || g_ServerSendSocket != INVALID_SOCKET || g_ServerSrvSocket != INVALID_SOCKET)
            CloseNetSocketLock();
        const HANDLE hEvent = g_hServerExitEvent.exchange(nullptr);
        if (hEvent != nullptr) {
            SetEvent(hEvent);
            CloseHandle(hEvent);
        }
        RunDiscoveryHelper("stop");
        g_bServer = 0;
        CloseLinkSocket(&g_ServerSendSocket);
        CloseLinkSocket(&g_ServerSrvSocket);
        EndWinsock(&g_bServerWinsock);
    }
    LeaveRoleChange();
}

void ServerUninit()
{
    ServerUninitLink(0);
}

void ClientUninitLink(uint32_t dwGeneration)
{
    TraceDebugA("[ClientUninit] i am called...");
    EnterRoleChange();
    if (dwGeneration == 0 || dwGeneration == g_dwLinkGeneration) {
        if (g_bClientEnuming) {
            TraceDebugA("[ClientUninit] g_bClientEnuming..");
            g_bStopClientEnum = 1;
        }
        // The number grows first: a thread that wakes from its closed socket must find its link gone.
        if (g_bClient || g_ClientRecvSocket != INVALID_SOCKET) CloseNetSocketLock();
        const HANDLE hEvent = g_hClientExitEvent.exchange(nullptr);
        if (hEvent != nullptr) {
            SetEvent(hEvent);
            CloseHandle(hEvent);
        }
        RunDiscoveryHelper("stop");
        g_bClient = 0;
        CloseLinkSocket(&g_ClientRecvSocket);
        EndWinsock(&g_bClientWinsock);
    }
    LeaveRoleChange();
    TraceDebugA("[ClientUninit] exit...");
}

void ClientUninit()
{
    ClientUninitLink(0);
}

int32_t disconnect()
{
    // The marks go first: a start that has not taken its role yet then sees that it is not wanted any more.
    if (ClearRoleStarted(&g_Session, true, GetRoleStart(true))) ServerUninit();
    if (ClearRoleStarted(&g_Session, false, GetRoleStart(false))) ClientUninit();
    ClearSpecialFolders();
    return 1;
}

uint32_t ReleaseNetworkThread(void *pRelease)
{
    TraceText("ReleaseNetworkThread");
    const auto *pLink = static_cast<const LinkRelease *>(pRelease);
    if (pLink == nullptr) {
        disconnect();
        return 0;
    }
    const bool bOwnRole = ClearRoleStarted(&g_Session, pLink->bServer, pLink->dwRoleStart);
    pLink->bServer ? ServerUninitLink(pLink->dwGeneration) : ClientUninitLink(pLink->dwGeneration);
    if (bOwnRole) ClearSpecialFolders();
    delete pLink;
    return 0;
}

int32_t StartReleaseNetwork()
{
    return StartDetachedThread(ReleaseNetworkThread, nullptr);
}

int32_t StartReleaseOfLink(const LinkRelease *pRelease)
{
    auto *pBlock = new (std::nothrow) LinkRelease(*pRelease);
    if (pBlock == nullptr) return 0;
    if (StartDetachedThread(ReleaseNetworkThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}
