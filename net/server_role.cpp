// server_role.cpp: the server's side of the handshake.
// ServerInit waits for a peer for as long as nobody comes; any thread may tear the role down meanwhile, and the next
// ServerInit may start before this one has woken. So it keeps its link's number (role_start.h) and changes globals only
// while that number is current: what a late waker would clear or close may be its successor's.
#include "net/server_role.h"
#include "net/discovery_program.h"
#include "net/listener.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/session_state.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"

using namespace platform;

constexpr char16_t SERVER_EXIT_EVENT[] = u"Global\\VORN Pendrel Server Socket Exit Event";
constexpr char16_t OPERATION[]         = u"ServerInit";

// What one ServerInit knows of its own start.
struct ServerStart {
    uint32_t dwLink;
    SOCKET   hListen;            // also in g_ServerSrvSocket, which owns it
    char     szPort[PORT_BYTES]; // the bound port
};

static int32_t Failed(const char16_t *pszDescription, int32_t nStatus)
{
    ReportWSAError(OPERATION, pszDescription);
    return nStatus;
}

// [role lock] The exit event of this start. 0 or -300.
static int32_t MakeExitEvent()
{
    const HANDLE hEvent = CreateEventW(nullptr, FALSE, FALSE, SERVER_EXIT_EVENT);
    if (hEvent == nullptr) {
        ReportSocketError(OPERATION, u"CreateEvent failed", false, GetLastError());
        return -300;
    }
    const HANDLE hFormer = g_hServerExitEvent.exchange(hEvent);
    if (hFormer != nullptr) CloseHandle(hFormer);
    if (WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0)
        TraceDebugA("[ServerInit] Last g_hServerExitEvent signaled, clear after wait.");
    return 0;
}

// Takes the role from whatever an earlier start has left of it. 0, -201, -300 or -1001.
static int32_t TakeServerRole(uint32_t dwStart, uint32_t *pdwLink)
{
    int32_t nErr = 0;
    EnterRoleChange();
    if (!IsStartWanted(true, dwStart)) { // ended before it began, or a newer one is about to begin
        TraceDebugA("[ServerInit] !bClientConn -> exit...");
        nErr = SERVER_CANCELLED;
    } else if (g_bClient) {
        TraceDebugA("[ServerInit] g_bClient already true. Exit");
        nErr = ROLE_EXCLUDED;
    } else {
        if (g_ServerSendSocket != INVALID_SOCKET) TraceDebugA("[ServerInit] Last g_ServerSendSocket exit, clear.");
        if (g_ServerSrvSocket != INVALID_SOCKET) TraceDebugA("[ServerInit] Last g_ServerSrvSocket exit, clear.");
        *pdwLink      = BeginRole(true, dwStart);
        g_bConnecting = 0;
        nErr          = MakeExitEvent();
    }
    LeaveRoleChange();
    return nErr;
}

// The local address with this port ("0": the system chooses). Null: reported.
static addrinfo *ResolveListeningAddress(const char *pszPort, const char16_t *pszFailure)
{
    addrinfo  hints    = {};
    addrinfo *pAddress = nullptr;
    hints.ai_family    = AF_INET;
    hints.ai_socktype  = SOCK_STREAM;
    hints.ai_protocol  = IPPROTO_TCP;
    hints.ai_flags     = AI_PASSIVE;
    if (getaddrinfo(nullptr, pszPort, &hints, &pAddress) == 0) return pAddress;
    ReportWSAError(OPERATION, pszFailure);
    return nullptr;
}

// Makes, publishes and binds the listening socket; pStart gets it and its port. 0, -2, -3 or -1001.
static int32_t BindTo(ServerStart *pStart, const addrinfo *pAddress)
{
    sockaddr_in name   = {};
    int32_t     cbName = sizeof(name);
    pStart->hListen    = socket(pAddress->ai_family, pAddress->ai_socktype, pAddress->ai_protocol);
    if (pStart->hListen == INVALID_SOCKET) return Failed(u"socket failed", -2);
    if (!PublishLinkSocket(&g_ServerSrvSocket, pStart->hListen, pStart->dwLink)) {
        TraceDebugA("[ServerInit] !bClientConn -> exit...");
        return SERVER_CANCELLED; // torn down before it listened
    }
    if (bind(pStart->hListen, pAddress->ai_addr, static_cast<int32_t>(pAddress->ai_addrlen)) == SOCKET_ERROR ||
        getsockname(pStart->hListen, reinterpret_cast<sockaddr *>(&name), &cbName) == SOCKET_ERROR)
        return Failed(u"bind failed", -3);
    FormatTextA(pStart->szPort, sizeof(pStart->szPort), "%d", ntohs(name.sin_port));
    return 0;
}

// The port that a client reached last is tried first, so that it stays the same over sessions; the system may have
// taken it for itself meanwhile (excluded ranges change with every start of Windows), and then any free one will do. 0,
// -1, or a status of BindTo.
static int32_t BindListeningSocket(ServerStart *pStart)
{
    char szPort[PORT_BYTES];
    ReadSetting(SECTION_LAST_SERVER, KEY_PORT, szPort, sizeof(szPort));
    TraceDebugA("[ServerInit] server port is %s", szPort);
    bool      bStored  = szPort[0] != '\0';
    addrinfo *pAddress = nullptr;
    if (bStored) pAddress = ResolveListeningAddress(szPort, u"getaddrinfo (last port) failed");
    if (pAddress == nullptr) {
        pAddress = ResolveListeningAddress("0", bStored ? u"getaddrinfo (retry dynamic) failed"
                                                        : u"getaddrinfo (dynamic) failed");
        bStored  = false;
    }
    if (pAddress == nullptr) return -1;
    int32_t nErr = BindTo(pStart, pAddress);
    freeaddrinfo(pAddress);
    if (nErr != -3 || !bStored) return nErr;
    pAddress = ResolveListeningAddress("0", u"getaddrinfo (retry dynamic) failed");
    if (pAddress == nullptr) return -1;
    nErr = BindTo(pStart, pAddress);
    freeaddrinfo(pAddress);
    return nErr;
}

static void AnnounceServer(const ServerStart *pStart)
{
    TraceDebugA("[ServerInit] Server Port [%s]", pStart->szPort);
    WriteSetting(SECTION_SERVER_MDNS, KEY_PORT, pStart->szPort);
    StartDiscovery(true, pStart->dwLink);
}

static void ChoosePassword(const char *pszPassword)
{
    char szPassword[PASSWORD_BYTES];
    if (CompareTextNoCaseA(pszPassword, "") != 0) {
        SetServerPassword(pszPassword);
    } else {
        ReadSetting(SECTION_LAST_SERVER, KEY_PASSWORD, szPassword, sizeof(szPassword));
        SetPassword(szPassword);
    }
    GetPassword(szPassword);
    TraceDebugA("[ServerInit] final PW [%s]", szPassword);
}

// Closes a peer that was too slow, unless the socket is no longer this start's.
static void DropPeer(SOCKET hPeer, uint32_t dwLink)
{
    EnterRoleChange();
    if (IsOwnLink(dwLink) && g_ServerSendSocket == hPeer) {
        EndLinkSocket(true);
        g_bConnecting = 0;
    }
    LeaveRoleChange();
}

// The password was right. The listener runs before the peer learns of it, so that no word of the peer's waits unread.
// 0; -300 no listener, -1000 the role has ended.
static int32_t AdmitPeer(const ServerStart *pStart, SOCKET hPeer, const char *pszPassword)
{
    int32_t nErr = 0;
    StopDiscovery(pStart->dwLink);
    EnterRoleChange();
    if (!IsOwnLink(pStart->dwLink)) {
        TraceDebugA("[ServerInit] bExit -> exit...");
        nErr = -1000;
    } else {
        MakeNetSocketLock();
        if (!StartServerListener(hPeer, g_hServerExitEvent)) nErr = -300;
    }
    LeaveRoleChange();
    if (nErr != 0) return nErr;
    WriteSetting(SECTION_LAST_SERVER, KEY_PORT, pStart->szPort);
    WriteSetting(SECTION_LAST_SERVER, KEY_PASSWORD, pszPassword);
    return 0;
}

// True when the exit event asks the handshake to end.
static bool IsExitSignalled()
{
    EnterRoleChange();
    const HANDLE hEvent     = g_hServerExitEvent;
    const bool   bSignalled = hEvent != nullptr && WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0;
    LeaveRoleChange();
    if (hEvent == nullptr) TraceDebugA("[ServerInit] g_hServerExitEvent NULL!!");
    if (bSignalled) {
        TraceDebugA("[ServerInit] Connected, but g_hServerExitEvent signaled ...");
        TraceDebugA("[ServerInit] bExit -> exit...");
    }
    return bSignalled;
}

// What a send gives whose socket is no longer this start's.
static int32_t LinkHasEnded()
{
    WSASetLastError(WSAENOTSOCK);
    return SOCKET_ERROR;
}

constexpr int32_t NEXT_PEER = 1; // of ShakeHands: listen on

// One connected peer: password in, acknowledgement out. 0 admitted, NEXT_PEER, or a status of ServerInit.
static int32_t ShakeHands(const ServerStart *pStart, SOCKET hPeer)
{
    char szReceived[HANDSHAKE_FIELD_BYTES + 1] = ""; // the peer promises no terminator
    char szAnswer[HANDSHAKE_FIELD_BYTES]       = "";
    char szPassword[PASSWORD_BYTES];
    TraceDebugA("[ServerInit] Connected, recv PW...");
    if (RecvBuffer(hPeer, szReceived, HANDSHAKE_FIELD_BYTES) != HANDSHAKE_FIELD_BYTES) {
        const int32_t nError = WSAGetLastError();
        if (nError != WSAETIMEDOUT && nError != WSAEDISCON) return Failed(u"recv PW failed", -5);
        ReportWSAError(OPERATION, u"recv PW Timeout"); // or it hung up: that says nothing of the next peer
        DropPeer(hPeer, pStart->dwLink);
        return NEXT_PEER;
    }
    TraceDebugA("[ServerInit] Connected, send PW [%s] ...", szReceived);
    GetPassword(szPassword);
    // Without a password nobody is admitted: ten zero bytes would be the right answer to it.
    const bool bAdmitted = szPassword[0] != '\0' && CompareTextNoCaseA(szReceived, szPassword) == 0;
    if (bAdmitted) {
        const int32_t nErr = AdmitPeer(pStart, hPeer, szReceived);
        if (nErr != 0) return nErr;
    }
    FormatTextA(szAnswer, sizeof(szAnswer), "PWACK=%d", bAdmitted ? 1 : 0);
    TraceDebugA("[ServerInit] Connected, send PWACK [%s] ...", szAnswer);
    EnterCriticalSection(&g_csNetSocket); // nobody's command may come before the acknowledgement
    // While this thread waited for the lock the role may have ended, and the socket's value may be a later one's.
    const int32_t nSent =
        IsOwnLink(pStart->dwLink) ? SendBuffer(hPeer, szAnswer, HANDSHAKE_FIELD_BYTES) : LinkHasEnded();
    const int32_t nError = WSAGetLastError();
    LeaveCriticalSection(&g_csNetSocket);
    if (nSent == HANDSHAKE_FIELD_BYTES) {
        if (IsExitSignalled()) return -1000;
    } else if (nError == WSAETIMEDOUT) {
        ReportWSAError(OPERATION, u"send PWACK Timeout");
        DropPeer(hPeer, pStart->dwLink);
    } else {
        return Failed(u"send PWACK failed", -6);
    }
    // A peer with a wrong password stays connected, and counts as connecting, until the next one comes: it relies on
    // reading the answer, which a close from here could take away from it, and closes its end.
    return bAdmitted ? 0 : NEXT_PEER;
}

// Rounds of accept until one peer is admitted. 0 or a status of ServerInit.
static int32_t AcceptPeers(const ServerStart *pStart)
{
    for (;;) {
        TraceDebugA("[ServerInit] Wait client connect...");
        const SOCKET hPeer = accept(pStart->hListen, nullptr, nullptr);
        if (hPeer == INVALID_SOCKET) {
            ReportWSAError(OPERATION, u"accept failed.");
            TraceDebugA("[ServerInit] !bClientConn -> exit...");
            return SERVER_CANCELLED;
        }
        PrepareLinkSocket(hPeer);
        EnterRoleChange();
        const bool bMine = PublishLinkSocket(&g_ServerSendSocket, hPeer, pStart->dwLink);
        if (bMine) g_bConnecting = 1;
        LeaveRoleChange();
        if (!bMine) {
            TraceDebugA("[ServerInit] !bClientConn -> exit...");
            return SERVER_CANCELLED;
        }
        const int32_t nErr = ShakeHands(pStart, hPeer);
        if (nErr != NEXT_PEER) return nErr;
    }
}

// The role is taken. 0 admitted, else a status of ServerInit.
static int32_t RunServer(ServerStart *pStart, const char *pszPassword)
{
    StopDiscovery(pStart->dwLink); // what an earlier start may have left
    AwaitFormerLink(1);
    const int32_t nErr = BindListeningSocket(pStart);
    if (nErr != 0) return nErr;
    AnnounceServer(pStart);
    if (listen(pStart->hListen, SOMAXCONN) == SOCKET_ERROR) return Failed(u"listen failed", -4);
    ChoosePassword(pszPassword);
    return AcceptPeers(pStart);
}

int32_t ServerInitStart(const char *pszPassword, uint32_t dwStart, uint32_t *pdwLink)
{
    ServerStart start = {};
    MakeNetSocketLock();
    StartWinsock();
    GetConfigPath();
    SocketDebugInit();
    TraceDebugA("[ServerInit] PW[%s]", pszPassword);
    int32_t nErr = TakeServerRole(dwStart, &start.dwLink);
    if (nErr != 0) return nErr;
    *pdwLink = start.dwLink;
    ++g_nAttempts;
    nErr = RunServer(&start, pszPassword);
    --g_nAttempts;
    if (nErr == 0) return 0;

    TraceDebugA("[ServerInit] create failed, call uninit, nErr[%d]", nErr);
    EnterRoleChange();
    // Also when the role was ended from outside, unless a later start owns the flag by now.
    if (IsOwnLink(start.dwLink) || !g_bServer) g_bConnecting = 0;
    LeaveRoleChange();
    ServerUninitLink(start.dwLink);
    return nErr;
}

int32_t ServerInit(const char *pszPassword)
{
    uint32_t dwLink = 0;
    return ServerInitStart(pszPassword, NewRoleStartOf(true), &dwLink);
}
