// network_link.cpp: what both roles share: flags, sockets, the password, the locks and the link's number.
// The locks are made on first use and never deleted: threads of a former link may still be about to enter them.
#include "net/network_link.h"
#include "platform/files.h"
#include "platform/made_once.h"
#include "transfer/socket_io.h"

using namespace platform;

std::atomic<uint8_t>  g_bServer{0};
std::atomic<uint8_t>  g_bClient{0};
std::atomic<uint8_t>  g_bConnecting{0};
std::atomic<SOCKET>   g_ServerSrvSocket{INVALID_SOCKET};
std::atomic<SOCKET>   g_ServerSendSocket{INVALID_SOCKET};
std::atomic<SOCKET>   g_ClientRecvSocket{INVALID_SOCKET};
std::atomic<SOCKET>   g_ClientAttemptSocket{INVALID_SOCKET};
std::atomic<uint8_t>  g_bLinkAdmitted{0};
char                  g_szPW[10];
CRITICAL_SECTION      g_csNetSocket;
std::atomic<uint32_t> g_dwLinkGeneration{1};
std::atomic<int32_t>  g_nListeners{0};
std::atomic<int32_t>  g_nAttempts{0};

constexpr uint32_t LISTENER_END_MS  = 2500; // as long as shut-down waits for a thread
constexpr uint32_t LISTENER_POLL_MS = 15;
constexpr uint16_t WINSOCK_2_2      = 0x0202;

static CRITICAL_SECTION      g_csRole;
static CRITICAL_SECTION      g_csPassword; // guards g_szPW
static thread_local uint32_t t_dwLink;     // 0: bound to no link

static CRITICAL_SECTION *PasswordLock()
{
    return MadeOnce<&g_csPassword>();
}

static CRITICAL_SECTION *RoleLock()
{
    return MadeOnce<&g_csRole>();
}

static void SetLinkOption(SOCKET hSocket, int32_t nLevel, int32_t nOption, uint32_t dwValue)
{
    if (setsockopt(hSocket, nLevel, nOption, reinterpret_cast<const char *>(&dwValue), sizeof(dwValue)) == SOCKET_ERROR)
        ReportWSAError(u"PrepareLinkSocket", u"setsockopt failed");
}

static std::atomic<SOCKET> *LinkSocketOf(bool bServer)
{
    return bServer ? &g_ServerSendSocket : &g_ClientRecvSocket;
}

static bool HasLinkSocket()
{
    return g_ServerSendSocket != INVALID_SOCKET || g_ClientRecvSocket != INVALID_SOCKET;
}

void MakeNetSocketLock()
{
    MadeOnce<&g_csNetSocket>();
}

void NextLinkGeneration()
{
    if (++g_dwLinkGeneration == 0) ++g_dwLinkGeneration; // 0 means "no link" to BindThreadToLink
}

void SetPassword(const char *pszPassword)
{
    EnterCriticalSection(PasswordLock());
    platform::strcpy_s(g_szPW, sizeof(g_szPW), pszPassword);
    LeaveCriticalSection(PasswordLock());
}

void GetPassword(char (&szPassword)[10])
{
    EnterCriticalSection(PasswordLock());
    platform::strcpy_s(szPassword, sizeof(szPassword), g_szPW);
    LeaveCriticalSection(PasswordLock());
}

void BindThreadToLink(uint32_t dwGeneration)
{
    t_dwLink = dwGeneration;
}

uint32_t GetThreadLink()
{
    return t_dwLink;
}

bool IsThreadLinkCurrent()
{
    return t_dwLink == 0 || t_dwLink == g_dwLinkGeneration;
}

bool IsOwnLink(uint32_t dwLink)
{
    return dwLink == g_dwLinkGeneration;
}

bool IsLinkUp()
{
    return g_bLinkAdmitted != 0 && HasLinkSocket();
}

bool CloseLinkSocket(std::atomic<SOCKET> *pSocket)
{
    const SOCKET hSocket = pSocket->exchange(INVALID_SOCKET);
    if (hSocket == INVALID_SOCKET) return false;
    closesocket(hSocket);
    return true;
}

void EndLinkSocket(bool bServer)
{
    std::atomic<SOCKET> *pSocket = LinkSocketOf(bServer);
    if (g_bLinkAdmitted && *pSocket != INVALID_SOCKET) {
        shutdown(pSocket->exchange(INVALID_SOCKET), SD_BOTH); // who reads or writes wakes and finds its link gone
        g_bLinkAdmitted = 0;
    }
    CloseLinkSocket(pSocket);
}

void EndLinkSockets(bool bServer)
{
    EndLinkSocket(bServer);
    CloseLinkSocket(bServer ? &g_ServerSrvSocket : &g_ClientAttemptSocket);
}

void CloseListenedSocket(bool bServer, SOCKET hSocket)
{
    SOCKET hOwn = hSocket;
    EnterRoleChange();
    if (LinkSocketOf(bServer)->compare_exchange_strong(hOwn, INVALID_SOCKET)) shutdown(hSocket, SD_BOTH);
    LeaveRoleChange();
    MakeNetSocketLock();
    EnterCriticalSection(&g_csNetSocket); // a writer's next send has failed by now; it leaves the lock
    LeaveCriticalSection(&g_csNetSocket);
    closesocket(hSocket);
}

void PrepareLinkSocket(SOCKET hSocket)
{
    SetLinkOption(hSocket, SOL_SOCKET, SO_SNDTIMEO, SOCKET_TIMEOUT_MS);
    SetLinkOption(hSocket, SOL_SOCKET, SO_RCVTIMEO, SOCKET_TIMEOUT_MS);
    // Answers of ten bytes go out at once: waiting for the peer's acknowledgement would cost 40 ms a file.
    SetLinkOption(hSocket, IPPROTO_TCP, TCP_NODELAY, 1);
}

void EnterRoleChange()
{
    EnterCriticalSection(RoleLock());
}

void LeaveRoleChange()
{
    LeaveCriticalSection(RoleLock());
}

bool PublishLinkSocket(std::atomic<SOCKET> *pSocket, SOCKET hSocket, uint32_t dwGeneration)
{
    EnterRoleChange();
    const bool bCurrent = dwGeneration == g_dwLinkGeneration;
    if (bCurrent) {
        CloseLinkSocket(pSocket);
        pSocket->store(hSocket);
    }
    LeaveRoleChange();
    if (!bCurrent) closesocket(hSocket);
    return bCurrent;
}

uint32_t ClaimBrokenLink(uint32_t dwGeneration)
{
    uint32_t dwCurrent = 0;
    EnterRoleChange();
    if (dwGeneration == g_dwLinkGeneration) {
        NextLinkGeneration();
        dwCurrent = g_dwLinkGeneration;
    }
    LeaveRoleChange();
    return dwCurrent;
}

void AwaitFormerLink(int32_t nOwnAttempts)
{
    const uint64_t ullStart = GetTickCount64();
    while ((g_nListeners > 0 || g_nAttempts > nOwnAttempts) && GetTickCount64() - ullStart < LISTENER_END_MS)
        Sleep(LISTENER_POLL_MS);
}

void StartWinsock()
{
    static const int32_t s_nError = [] {
        WSADATA data;
        return WSAStartup(WINSOCK_2_2, &data); // failed, every socket call from here on fails and says why
    }();
    static_cast<void>(s_nError);
}

void ResetNetworkLink()
{
    CloseLinkSocket(&g_ServerSrvSocket);
    CloseLinkSocket(&g_ServerSendSocket);
    CloseLinkSocket(&g_ClientRecvSocket);
    CloseLinkSocket(&g_ClientAttemptSocket);
    g_bServer = g_bClient = g_bConnecting = g_bLinkAdmitted = 0;
    NextLinkGeneration();
    SetPassword("");
    t_dwLink = 0;
}
