// client_role.cpp: one attempt to reach a server.
// An attempt may block in its connect or wait for the server's answer; whoever ends its start closes the socket, which
// wakes it. It looks after each step whether its start is still wanted and the role its own, and publishes its socket
// only then.
#include "net/client_role.h"
#include "net/listener.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"

using namespace platform;

char g_szServerIP[20];

constexpr char16_t CLIENT_EXIT_EVENT[] = u"Global\\VORN Pendrel Client Socket Exit Event";
constexpr char16_t OPERATION[]         = u"ClientInit";
constexpr char     DEFAULT_ADDRESS[]   = "127.0.0.1";
constexpr char     DEFAULT_PORT[]      = "9001";
constexpr char     ADMITTED_ANSWER[]   = "pwack=1";

static bool IsStopped(const ClientStart *pStart)
{
    if (!IsClientStopped(pStart)) return false;
    TraceDebugA("[ClientInit] g_bStopClientEnum.");
    return true;
}

static int32_t Failed(const char16_t *pszDescription, int32_t nStatus)
{
    ReportWSAError(OPERATION, pszDescription);
    return nStatus;
}

// [role lock] 0 or -300.
static int32_t MakeExitEvent()
{
    const HANDLE hEvent = CreateEventW(nullptr, FALSE, FALSE, CLIENT_EXIT_EVENT);
    if (hEvent == nullptr) {
        ReportSocketError(OPERATION, u"CreateEvent failed", false, GetLastError());
        return -300;
    }
    const HANDLE hFormer = g_hClientExitEvent.exchange(hEvent);
    if (hFormer != nullptr) CloseHandle(hFormer);
    if (WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0)
        TraceDebugA("[Client] Last g_hClientExitEvent signaled, clear after wait.");
    return 0;
}

// 0, -201, -300 or 9999.
static int32_t BeginAttempt(const ClientStart *pStart)
{
    int32_t nErr = 0;
    EnterRoleChange();
    if (g_bServer) {
        TraceDebugA("[ClientInit] g_bServer already true. Exit");
        nErr = ROLE_EXCLUDED;
    } else if (IsStopped(pStart)) { // the role's end came between two attempts: it must not be taken again
        nErr = CLIENT_CANCELLED;
    } else {
        GetConfigPath();
        nErr = MakeExitEvent();
    }
    LeaveRoleChange();
    return nErr;
}

// The argument, else the last session's value, else the default.
static void ChooseValue(const char *pszArgument, const char *pszKey, const char *pszDefault, char *pszValue,
                        uint32_t cb)
{
    if (pszArgument[0] != '\0') CopyTextA(pszValue, cb, pszArgument);
    else ReadSetting(SECTION_LAST_CLIENT, pszKey, pszValue, cb);
    if (pszValue[0] == '\0') CopyTextA(pszValue, cb, pszDefault);
}

// A socket that whoever ends this start can close. False: it has been ended, and the socket is closed.
static bool PublishAttempt(const ClientStart *pStart, SOCKET hSocket)
{
    EnterRoleChange();
    const bool bWanted = !IsStopped(pStart);
    if (bWanted) {
        CloseLinkSocket(&g_ClientAttemptSocket);
        g_ClientAttemptSocket = hSocket;
    }
    LeaveRoleChange();
    if (!bWanted) closesocket(hSocket);
    return bWanted;
}

// Takes the socket back. False: whoever ended the attempt has closed it.
static bool TakeAttempt(SOCKET hSocket)
{
    SOCKET hOwn = hSocket;
    return g_ClientAttemptSocket.compare_exchange_strong(hOwn, INVALID_SOCKET);
}

// One address. 0 with the socket published; -2, -3 or 9999 without one.
static int32_t ConnectTo(const ClientStart *pStart, const addrinfo *pAddress, SOCKET *phSocket)
{
    const SOCKET hSocket = socket(pAddress->ai_family, pAddress->ai_socktype, pAddress->ai_protocol);
    if (hSocket == INVALID_SOCKET) return Failed(u"socket failed", -2);
    if (!PublishAttempt(pStart, hSocket)) return CLIENT_CANCELLED;
    if (connect(hSocket, pAddress->ai_addr, static_cast<int32_t>(pAddress->ai_addrlen)) == SOCKET_ERROR) {
        ReportWSAError(OPERATION, u"connect failed");
        if (!TakeAttempt(hSocket)) return IsStopped(pStart) ? CLIENT_CANCELLED : -3;
        closesocket(hSocket);
        return -3;
    }
    PrepareLinkSocket(hSocket);
    TraceDebugA("[ClientInit] connect socket succeed");
    *phSocket = hSocket;
    return 0;
}

// Connects to the first address that answers. 0 with the socket; -1, -2, -3 or 9999 without one.
static int32_t ConnectToServer(const ClientStart *pStart, const char *pszPort, SOCKET *phSocket)
{
    addrinfo  hints    = {};
    addrinfo *pResults = nullptr;
    hints.ai_family    = AF_INET;
    hints.ai_socktype  = SOCK_STREAM;
    hints.ai_protocol  = IPPROTO_TCP;
    if (getaddrinfo(g_szServerIP, pszPort, &hints, &pResults) != 0) return Failed(u"getaddrinfo failed", -1);
    int32_t nErr = -3;
    for (const addrinfo *pAddress = pResults; pAddress != nullptr && nErr == -3; pAddress = pAddress->ai_next)
        nErr = IsStopped(pStart) ? CLIENT_CANCELLED : ConnectTo(pStart, pAddress, phSocket);
    freeaddrinfo(pResults);
    if (nErr == -3) TraceDebugA("[ClientInit] Couldn't create client socket ");
    return nErr;
}

// Sends the password and reads the answer. 0, -4, -5, -6 or 9999.
static int32_t ProvePassword(const ClientStart *pStart, SOCKET hSocket)
{
    char szField[HANDSHAKE_FIELD_BYTES]      = "";
    char szAnswer[HANDSHAKE_FIELD_BYTES + 1] = ""; // the peer promises no terminator
    GetPassword(szField);
    TraceDebugA("[ClientInit] Be4 send PW");
    if (SendBuffer(hSocket, szField, HANDSHAKE_FIELD_BYTES) != HANDSHAKE_FIELD_BYTES)
        return Failed(u"send PW failed", -4);
    if (IsStopped(pStart)) return CLIENT_CANCELLED;
    TraceDebugA("[ClientInit] Send PW done, wait ack.");
    if (RecvBuffer(hSocket, szAnswer, HANDSHAKE_FIELD_BYTES) != HANDSHAKE_FIELD_BYTES)
        return Failed(u"recv PW ack failed", -5);
    TraceDebugA("[ClientInit] Server ack (%s)", szAnswer);
    if (IsStopped(pStart)) return CLIENT_CANCELLED;
    if (CompareTextNoCaseA(szAnswer, ADMITTED_ANSWER) == 0) return 0;
    TraceDebugA("[ClientInit] Server PWACK wrong.");
    return CLIENT_WRONG_PASSWORD;
}

// The server has admitted this machine. 0 with the socket published; -300 or 9999 with the socket left to the caller.
static int32_t BeginLink(const ClientStart *pStart, SOCKET hSocket, const char *pszPort)
{
    int32_t nErr = CLIENT_CANCELLED;
    char    szPassword[PASSWORD_BYTES];
    EnterRoleChange();
    if (!IsStopped(pStart) && g_ClientAttemptSocket == hSocket) {
        GetPassword(szPassword);
        WriteSetting(SECTION_LAST_CLIENT, KEY_PORT, pszPort);
        WriteSetting(SECTION_LAST_CLIENT, KEY_SERVER_IP, g_szServerIP);
        WriteSetting(SECTION_LAST_CLIENT, KEY_PASSWORD, szPassword);
        g_ClientRecvSocket = hSocket;
        nErr               = StartClientListener(hSocket, g_hClientExitEvent) ? 0 : -300;
        if (nErr == 0) g_ClientAttemptSocket = INVALID_SOCKET;
        else g_ClientRecvSocket = INVALID_SOCKET;
    }
    LeaveRoleChange();
    return nErr;
}

// Addresses and password chosen, connected, admitted. A status of ClientInit.
static int32_t RunAttempt(const ClientStart *pStart, const char *pszAddress, const char *pszPassword,
                          const char *pszPort)
{
    char   szPort[PORT_BYTES];
    char   szPassword[PASSWORD_BYTES];
    SOCKET hSocket = INVALID_SOCKET;
    AwaitFormerLink(1);
    ChooseValue(pszAddress, KEY_SERVER_IP, DEFAULT_ADDRESS, g_szServerIP, sizeof(g_szServerIP));
    TraceDebugA("[ClientInit] server ip [%s]", g_szServerIP);
    ChooseValue(pszPort, KEY_PORT, DEFAULT_PORT, szPort, sizeof(szPort));
    TraceDebugA("[ClientInit] server port [%s]", szPort);
    if (IsStopped(pStart)) return CLIENT_CANCELLED;
    int32_t nErr = ConnectToServer(pStart, szPort, &hSocket);
    if (nErr != 0) return nErr;

    if (pszPassword[0] != '\0') {
        SetPassword(pszPassword);
    } else {
        ReadSetting(SECTION_LAST_CLIENT, KEY_PASSWORD, szPassword, sizeof(szPassword));
        SetPassword(szPassword);
    }
    GetPassword(szPassword);
    TraceDebugA("[ClientInit] final PW [%s]", szPassword);
    nErr = IsStopped(pStart) ? CLIENT_CANCELLED : ProvePassword(pStart, hSocket);
    if (nErr == 0) nErr = BeginLink(pStart, hSocket, szPort);
    if (nErr != 0 && TakeAttempt(hSocket)) closesocket(hSocket);
    return nErr != 0 && IsClientStopped(pStart) ? CLIENT_CANCELLED : nErr;
}

bool IsClientStopped(const ClientStart *pStart)
{
    return !IsOwnLink(pStart->dwLink) || !IsStartWanted(false, pStart->dwStart);
}

int32_t TakeClientRole(uint32_t dwStart, ClientStart *pStart)
{
    int32_t nErr = 0;
    EnterRoleChange();
    if (g_bServer) {
        nErr = ROLE_EXCLUDED;
    } else if (!IsStartWanted(false, dwStart)) { // its end has come already: nobody would end the role
        nErr = CLIENT_CANCELLED;
    } else {
        if (g_ClientRecvSocket != INVALID_SOCKET) TraceDebugA("[ClientInit] Last g_ClientRecvSocket exit. Clear");
        *pStart = {dwStart, BeginRole(false, dwStart)};
    }
    LeaveRoleChange();
    return nErr;
}

int32_t ClientInitStart(const ClientStart *pStart, const char *pszAddress, const char *pszPassword, const char *pszPort)
{
    TraceDebugA("[ClientInit] IP[%s], PW[%s], Port[%s]", pszAddress, pszPassword, pszPort);
    MakeNetSocketLock();
    StartWinsock();
    int32_t nErr = BeginAttempt(pStart);
    if (nErr != 0) return nErr;
    ++g_nAttempts;
    nErr = RunAttempt(pStart, pszAddress, pszPassword, pszPort);
    --g_nAttempts;
    return nErr;
}

int32_t ClientInit(const char *pszAddress, const char *pszPassword, const char *pszPort)
{
    ClientStart   start = {};
    const int32_t nErr  = TakeClientRole(NewRoleStartOf(false), &start);
    if (nErr == ROLE_EXCLUDED) TraceDebugA("[ClientInit] g_bServer already true. Exit");
    return nErr != 0 ? nErr : ClientInitStart(&start, pszAddress, pszPassword, pszPort);
}
