// client_role.cpp: one attempt to reach a server.
// ClientUninit cannot wake a connect that blocks; an attempt therefore looks at g_bStopClientEnum after each step, and
// publishes its socket under the role lock only while neither that flag nor a new link number says that the role has
// ended.
#include "net/client_role.h"
#include "net/listener.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"

using namespace platform;

char                 g_szServerIP[20];

namespace {

constexpr char16_t CLIENT_EXIT_EVENT[] = u"Global\\VORN Pendrel Client Socket Exit Event";
constexpr char16_t OPERATION[]         = u"ClientInit";
constexpr char     DEFAULT_ADDRESS[]   = "127.0.0.1";
constexpr char     DEFAULT_PORT[]      = "9001";
constexpr char     ADMITTED_ANSWER[]   = "pwack=1";

bool IsStopped()
{
    if (!g_bStopClientEnum) return false;
    TraceDebugA("[ClientInit] g_bStopClientEnum.");
    return true;
}

int32_t Failed(const char16_t *pszDescription, int32_t nStatus)
{
    ReportWSAError(OPERATION, pszDescription);
    return nStatus;
}

// [role lock] 0 or -300.
int32_t MakeExitEvent()
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
int32_t BeginAttempt(uint32_t *pdwGeneration)
{
    int32_t nErr = 0;
    EnterRoleChange();
    if (g_bServer) {
        TraceDebugA("[ClientInit] g_bServer already true. Exit");
        nErr = -201;
    } else if (IsStopped()) { // the role's end came between two attempts: it must not be taken again
        nErr = CLIENT_CANCELLED;
    } else {
        if (g_ClientRecvSocket != INVALID_SOCKET) CloseNetSocketLock();
        if (CloseLinkSocket(&g_ClientRecvSocket)) TraceDebugA("[ClientInit] Last g_ClientRecvSocket exit. Clear");
        g_bClient      = 1;
        *pdwGeneration = g_dwLinkGeneration;
        GetConfigPath();
        nErr = MakeExitEvent();
        if (nErr == 0) BeginWinsock(&g_bClientWinsock);
    }
    LeaveRoleChange();
    return nErr;
}

// The argument, else the last session's value, else the default.
void ChooseValue(const char *pszArgument, const char *pszKey, const char *pszDefault, char *pszValue, uint32_t cb)
{
    if (pszArgument[0] != '\0')
        CopyTextA(pszValue, cb, pszArgument);
    else
        ReadSetting(SECTION_LAST_CLIENT, pszKey, pszValue, cb);
    if (pszValue[0] == '\0') CopyTextA(pszValue, cb, pszDefault);
}

// Connects to the first address that answers. 0 with the socket; -1, -2, -3 or 9999 without one.
int32_t ConnectToServer(const char *pszPort, SOCKET *phSocket)
{
    addrinfo  hints    = {};
    addrinfo *pResults = nullptr;
    hints.ai_family    = AF_INET;
    hints.ai_socktype  = SOCK_STREAM;
    hints.ai_protocol  = IPPROTO_TCP;
    if (getaddrinfo(g_szServerIP, pszPort, &hints, &pResults) != 0) return Failed(u"getaddrinfo failed", -1);
    int32_t nErr = -3;
    for (const addrinfo *pAddress = pResults; pAddress != nullptr && nErr == -3; pAddress = pAddress->ai_next) {
        if (IsStopped()) {
            nErr = CLIENT_CANCELLED;
            break;
        }
        const SOCKET hSocket = socket(pAddress->ai_family, pAddress->ai_socktype, pAddress->ai_protocol);
        if (hSocket == INVALID_SOCKET) {
            nErr = Failed(u"socket failed", -2);
        } else if (connect(hSocket, pAddress->ai_addr, static_cast<int32_t>(pAddress->ai_addrlen)) == SOCKET_ERROR) {
            ReportWSAError(OPERATION, u"connect failed");
            closesocket(hSocket);
        } else {
            PrepareLinkSocket(hSocket);
            TraceDebugA("[ClientInit] connect socket succeed");
            *phSocket = hSocket;
            nErr      = 0;
        }
    }
    freeaddrinfo(pResults);
    if (nErr == -3) TraceDebugA("[ClientInit] Couldn't create client socket ");
    return nErr;
}

// Sends the password and reads the answer. 0, -4, -5, -6 or 9999.
int32_t ProvePassword(SOCKET hSocket)
{
    char szField[HANDSHAKE_FIELD_BYTES]      = "";
    char szAnswer[HANDSHAKE_FIELD_BYTES + 1] = ""; // the peer promises no terminator
    GetPassword(szField);
    TraceDebugA("[ClientInit] Be4 send PW");
    if (SendBuffer(hSocket, szField, HANDSHAKE_FIELD_BYTES) != HANDSHAKE_FIELD_BYTES)
        return Failed(u"send PW failed", -4);
    if (IsStopped()) return CLIENT_CANCELLED;
    TraceDebugA("[ClientInit] Send PW done, wait ack.");
    if (RecvBuffer(hSocket, szAnswer, HANDSHAKE_FIELD_BYTES) != HANDSHAKE_FIELD_BYTES)
        return Failed(u"recv PW ack failed", -5);
    TraceDebugA("[ClientInit] Server ack (%s)", szAnswer);
    if (IsStopped()) return CLIENT_CANCELLED;
    if (CompareTextNoCaseA(szAnswer, ADMITTED_ANSWER) == 0) return 0;
    TraceDebugA("[ClientInit] Server PWACK wrong.");
    return CLIENT_WRONG_PASSWORD;
}

// The server has admitted this machine. 0 with the socket published; -300 or 9999 with the socket left to the caller.
int32_t BeginLink(SOCKET hSocket, const char *pszPort, uint32_t dwGeneration)
{
    char szPassword[PASSWORD_BYTES];
    EnterRoleChange();
    if (g_bStopClientEnum || dwGeneration != g_dwLinkGeneration) {
        LeaveRoleChange();
        TraceDebugA("[ClientInit] g_bStopClientEnum.");
        return CLIENT_CANCELLED;
    }
    GetPassword(szPassword);
    WriteSetting(SECTION_LAST_CLIENT, KEY_PORT, pszPort);
    WriteSetting(SECTION_LAST_CLIENT, KEY_SERVER_IP, g_szServerIP);
    WriteSetting(SECTION_LAST_CLIENT, KEY_PASSWORD, szPassword);
    OpenNetSocketLock();
    g_ClientRecvSocket = hSocket;
    const int32_t bListening = StartClientListener(hSocket, g_hClientExitEvent);
    if (!bListening) g_ClientRecvSocket = INVALID_SOCKET;
    LeaveRoleChange();
    return bListening ? 0 : -300;
}

} // namespace

int32_t ClientInitLink(const char *pszAddress, const char *pszPassword, const char *pszPort, uint32_t *pdwGeneration)
{
    char     szPort[PORT_BYTES];
    char     szPassword[PASSWORD_BYTES];
    uint32_t dwGeneration = 0;
    SOCKET   hSocket      = INVALID_SOCKET;
    TraceDebugA("[ClientInit] IP[%s], PW[%s], Port[%s]", pszAddress, pszPassword, pszPort);
    int32_t nErr = BeginAttempt(&dwGeneration);
    if (nErr != 0) return nErr;
    AwaitFormerLink();

    ChooseValue(pszAddress, KEY_SERVER_IP, DEFAULT_ADDRESS, g_szServerIP, sizeof g_szServerIP);
    TraceDebugA("[ClientInit] server ip [%s]", g_szServerIP);
    ChooseValue(pszPort, KEY_PORT, DEFAULT_PORT, szPort, sizeof szPort);
    TraceDebugA("[ClientInit] server port [%s]", szPort);
    if (IsStopped()) return CLIENT_CANCELLED;
    nErr = ConnectToServer(szPort, &hSocket);
    if (nErr != 0) return nErr;

    if (pszPassword[0] != '\0') {
        SetPassword(pszPassword);
    } else {
        ReadSetting(SECTION_LAST_CLIENT, KEY_PASSWORD, szPassword, sizeof szPassword);
        SetPassword(szPassword);
    }
    GetPassword(szPassword);
    TraceDebugA("[ClientInit] final PW [%s]", szPassword);
    nErr = IsStopped() ? CLIENT_CANCELLED : ProvePassword(hSocket);
    if (nErr == 0) nErr = BeginLink(hSocket, szPort, dwGeneration);
    if (nErr != 0)
        closesocket(hSocket);
    else
        *pdwGeneration = dwGeneration;
    return nErr;
}

int32_t ClientInit(const char *pszAddress, const char *pszPassword, const char *pszPort)
{
    uint32_t dwGeneration = 0;
    return ClientInitLink(pszAddress, pszPassword, pszPort, &dwGeneration);
}
