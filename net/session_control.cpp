// session_control.cpp: requests for PINs and roles.
// A request has its number (role_start.h) before its thread starts, so that threads that overtake each other change
// nothing: PINs are told and stored in the order of their requests, and what a disconnect ends is what was asked for
// before it.
// A PIN request that arrives while the thread that serves them is about to end must not be lost: the request stores
// its PIN, looks for the thread and wakes it in one section of the session lock, and the thread decides to end and
// takes its event away in another.
#include "net/session_control.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "net/client_role.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/session_start.h"
#include "net/session_state.h"
#include "platform/detached_thread.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "trace/trace_log.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>

using namespace platform;

constexpr uint32_t SETTLE_MS            = 2000;  // without a further PIN request, until the role starts
constexpr uint64_t CONNECT_RETRY_MS     = 10000; // from a network-role request on
constexpr uint32_t CONNECT_PAUSE_MS     = 500;
constexpr uint32_t DISCONNECT_NOTICE_MS = 500; // for the service to hear of a disconnect before it happens
constexpr uint32_t PIN_DIGITS           = 6;
constexpr size_t   PIN_BYTES            = 260;
constexpr size_t   NAME_UNITS           = 260;

constexpr uint32_t MODE_SERVER = 1, MODE_CLIENT = 2, MODE_DISCONNECT = 3;

// First parameters of the answers to the service.
constexpr int32_t ANSWER_DONE = 2, ANSWER_PIN_MADE = 3, ANSWER_WRONG_PIN = -3, ANSWER_FAILED = -4;

struct ConnectRequest {
    uint64_t ullTime;
    uint32_t dwMode;
    uint32_t dwOption;
    uint32_t dwStart;
};
struct PinRequest {
    IpcMessage record;
    uint32_t   dwStart;
};

static CRITICAL_SECTION g_csPinOrder; // held while one PIN is made, told and stored; the session lock is taken under it
static uint32_t         g_dwLastPin;  // the newest request that has stored its PIN; PIN order
static uint32_t         g_dwPinStart; // the request that the PINs stand for; session lock
static uint32_t         g_dwPinEndUpTo; // requests up to this number have been ended by a disconnect; session lock

// The stamp of a new request: the time, but never that of the request before, so that of two the newer one is known.
static uint64_t NextStamp(std::atomic<uint64_t> *pullLast)
{
    uint64_t ullLast = pullLast->load(), ullNow;
    do ullNow = GetTickCount64() > ullLast ? GetTickCount64() : ullLast + 1;
    while (!pullLast->compare_exchange_weak(ullLast, ullNow));
    return ullNow;
}

static int32_t GeneratePin()
{
    int32_t nPin = 0;
    std::srand(GetTickCount());
    for (uint32_t i = 0; i < PIN_DIGITS; i++) nPin = nPin * 10 + std::rand() % 10;
    char szPin[PIN_BYTES];
    FormatTextA(szPin, sizeof(szPin), "%d", nPin);
    TraceTwoTexts("random generated code", szPin);
    CallServiceNamedPipe(STON_GETPINCODE, ANSWER_PIN_MADE, nPin, 0, nullptr, nullptr, nullptr);
    return nPin;
}

enum class PinStep { ServerExists, ResetTimer, NewThread };

// Stores the PIN and finds out who serves it, waking the thread if it runs: one step to that thread.
static PinStep StorePin(bool bServerPin, const char *pszPin, uint32_t dwStart)
{
    PinStep eStep = PinStep::NewThread;
    EnterSession();
    const HANDLE hTimer  = g_hNetInitTimerEvent;
    const bool   bStands = g_ullLastPinRequest != 0 && g_dwPinStart > g_dwPinEndUpTo;
    if (hTimer != nullptr && bServerPin && g_szServerPin[0] != '\0' && bStands) {
        TraceText("CallPinCodeThread server exist");
        CopyTextA(g_szServerPin, sizeof(g_szServerPin), pszPin);
        eStep = PinStep::ServerExists;
    } else {
        NextStamp(&g_ullLastPinRequest);
        g_dwPinStart = dwStart;
        AnnounceRoleStart(bServerPin, dwStart);
        CopyTextA(g_szServerPin, sizeof(g_szServerPin), bServerPin ? pszPin : "");
        CopyTextA(g_szClientPin, sizeof(g_szClientPin), bServerPin ? "" : pszPin);
        if (hTimer != nullptr) {
            TraceText("CallPinCodeThread Reset timer"); // before what the woken thread traces
            SetEvent(hTimer);
            eStep = PinStep::ResetTimer;
        }
    }
    LeaveSession();
    return eStep;
}

// The PINs as they are now; the number of the request that they stand for.
static uint32_t ReadPins(char (&szServerPin)[PIN_BYTES], char (&szClientPin)[PIN_BYTES])
{
    EnterSession();
    const uint32_t dwRequest = g_dwPinStart;
    CopyTextA(szServerPin, sizeof(szServerPin), g_szServerPin);
    CopyTextA(szClientPin, sizeof(szClientPin), g_szClientPin);
    LeaveSession();
    return dwRequest;
}

// [session lock] The thread ends: its event goes.
static void CloseTimerEvent()
{
    CloseHandle(g_hNetInitTimerEvent.exchange(nullptr));
}

// True when no newer PIN request has taken this one's place.
static bool IsPinOf(uint32_t dwStart)
{
    EnterSession();
    const bool bNewest = g_dwPinStart == dwStart;
    LeaveSession();
    return bNewest;
}

// True when a PIN has been served and nothing newer came, or a disconnect ended the request; the event is then gone. A
// server that failed is tried again, unless another request has the role or a link by now.
static bool EndIfServed(uint32_t dwServed, bool bServerFailed)
{
    EnterSession();
    const bool bAgain = bServerFailed && IsStartWanted(true, dwServed) && !IsLinkUp();
    const bool bEnd   = g_ullLastPinRequest == 0 || (g_dwPinStart == dwServed && !bAgain);
    if (bEnd) CloseTimerEvent();
    LeaveSession();
    return bEnd;
}

// True when the server could not be started.
static bool ServeServerPin(uint32_t dwStart, const char *pszPin)
{
    SetServedPin(pszPin);
    char16_t szPeerName[NAME_UNITS] = u"";
    char     szNow[PIN_BYTES], szClientPin[PIN_BYTES];
    TraceText("call SetNetworkServerClient server");
    const int32_t nRet = StartSession(dwStart, &g_Session, true, pszPin, szPeerName, NAME_UNITS);
    if (ReadPins(szNow, szClientPin) != dwStart) return nRet != 0; // the newer request's answers are what counts
    // the PIN may have been replaced while the server waited
    CallServiceNamedPipe(STON_GETPINCODE, nRet == 0 ? ANSWER_DONE : ANSWER_FAILED,
                         TextToInt32A(szNow[0] != '\0' ? szNow : pszPin), 0, szPeerName, nullptr, nullptr);
    return nRet != 0;
}

static void ServeClientPin(uint32_t dwStart, const char *pszPin)
{
    char16_t szPeerName[NAME_UNITS] = u"";
    TraceText("call SetNetworkServerClient client");
    const int32_t nRet = StartSession(dwStart, &g_Session, false, pszPin, szPeerName, NAME_UNITS);
    if (nRet == CLIENT_CANCELLED || !IsPinOf(dwStart)) return;
    const int32_t nFailure = nRet == CLIENT_WRONG_PASSWORD ? ANSWER_WRONG_PIN : ANSWER_FAILED;
    CallServiceNamedPipe(STON_SETPINCCODE, nRet == 0 ? ANSWER_DONE : nFailure, TextToInt32A(pszPin), 0, szPeerName,
                         nullptr, nullptr);
}

// The requests have settled. True when the thread ends. *pdwFailed: the request whose server failed last, 0 for none.
static bool ServePin(uint32_t *pdwFailed)
{
    char szServerPin[PIN_BYTES], szClientPin[PIN_BYTES];
    TraceText("NetInitializationThread timeout");
    const uint32_t dwServed = ReadPins(szServerPin, szClientPin);
    if (*pdwFailed == dwServed && EndIfServed(dwServed, true)) return true; // it is not to be tried again any more
    bool bServerFailed = false;
    if (szServerPin[0] != '\0') bServerFailed = ServeServerPin(dwServed, szServerPin);
    else if (szClientPin[0] != '\0') ServeClientPin(dwServed, szClientPin);
    *pdwFailed = bServerFailed ? dwServed : 0;
    return EndIfServed(dwServed, bServerFailed);
}

// [PIN order] Makes the PIN of a request, tells it, and has it served.
static void TakePin(bool bServerPin, int32_t nTypedPin, uint32_t dwStart)
{
    char szPin[PIN_BYTES];
    FormatTextA(szPin, sizeof(szPin), "%d", bServerPin ? GeneratePin() : nTypedPin);
    switch (StorePin(bServerPin, szPin, dwStart)) {
    case PinStep::ServerExists: UpdateServerPW(szPin); break;
    case PinStep::ResetTimer: EndRolesUpTo(dwStart - 1, true); break; // a PIN corrected ends no session's folders
    case PinStep::NewThread:
        TraceText("CallPinCodeThread CreateThread");
        StartDetachedThread(NetInitializationThread, nullptr);
        break;
    }
}

static void TellStandingPin()
{
    char szServerPin[PIN_BYTES], szClientPin[PIN_BYTES];
    ReadPins(szServerPin, szClientPin);
    CallServiceNamedPipe(STON_GETPINCODE, szServerPin[0] != '\0' ? ANSWER_PIN_MADE : ANSWER_FAILED,
                         TextToInt32A(szServerPin), 0, nullptr, nullptr, nullptr);
}

// From here on no PIN request up to this number stands: a new one is not answered with "server exist".
static void EndPinRequests(uint32_t dwUpTo)
{
    EnterSession();
    g_dwPinEndUpTo = std::max(g_dwPinEndUpTo, dwUpTo);
    LeaveSession();
}

static void Disconnect(const ConnectRequest *pRequest)
{
    TraceText("call disconnect networkconnect");
    if (pRequest->dwOption == 1) {
        CallServiceNamedPipe(NTOS_USERCONTROL, 1, 0, 0, nullptr, nullptr, nullptr);
        WaitForStop(DISCONNECT_NOTICE_MS);
    }
    EnterSession();
    if (g_dwPinStart < pRequest->dwStart) g_ullLastPinRequest = 0;
    LeaveSession();
    EndRolesUpTo(pRequest->dwStart);
}

static bool IsLatest(const ConnectRequest *pRequest)
{
    return g_ullLastConnectRequest == pRequest->ullTime;
}

// True when no further try begins. Of requests in one tick the later ones have stamps ahead of the clock.
static bool IsRetryOver(const ConnectRequest *pRequest)
{
    const uint64_t ullNow = GetTickCount64();
    return ullNow > pRequest->ullTime && ullNow - pRequest->ullTime >= CONNECT_RETRY_MS;
}

// Modes 1 and 2.
static void ConnectRole(const ConnectRequest *pRequest)
{
    const bool bServer = pRequest->dwMode == MODE_SERVER;
    int32_t    nRet    = 0;
    TraceTwoTexts("call SetNetworkServerClient", bServer ? "server networkconnect" : "client networkconnect");
    do {
        if (!IsLatest(pRequest)) return; // also after the pause: a try would take the role from the newer request
        nRet = StartSession(pRequest->dwStart, &g_Session, bServer, "", nullptr, 0);
    } while (nRet != 0 && IsLatest(pRequest) && IsStartWanted(bServer, pRequest->dwStart) && !IsRetryOver(pRequest) &&
             !WaitForStop(CONNECT_PAUSE_MS));
    if (IsLatest(pRequest))
        CallServiceNamedPipe(STON_NETWORKCONNECTION, nRet == 0 ? ANSWER_DONE : ANSWER_FAILED, 0, 0, nullptr, nullptr,
                             nullptr);
}

int32_t StartPinCodeThread(const IpcMessage *pRecord)
{
    auto *pBlock = new (std::nothrow) PinRequest{};
    if (pBlock == nullptr) return 0;
    if (pRecord != nullptr) pBlock->record = *pRecord;
    else errno = EINVAL;
    pBlock->dwStart = NewRoleStart();
    if (StartDetachedThread(CallPinCodeThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}

uint32_t CallPinCodeThread(void *pBlock)
{
    const auto    *pRequest   = static_cast<const PinRequest *>(pBlock);
    const bool     bServerPin = pRequest->record.dwCommand == STON_GETPINCODE;
    const bool     bWanted    = bServerPin || pRequest->record.dwCommand == STON_SETPINCCODE;
    const auto     nTypedPin  = static_cast<int32_t>(pRequest->record.dwParam2);
    const uint32_t dwStart    = pRequest->dwStart;
    delete pRequest;
    if (!bWanted) return 0;

    TraceText("CallPinCodeThread");
    EnterCriticalSection(MadeOnce<&g_csPinOrder>());
    if (dwStart > g_dwLastPin) {
        g_dwLastPin = dwStart;
        TakePin(bServerPin, nTypedPin, dwStart);
    } else if (bServerPin) {
        TellStandingPin(); // its thread was overtaken by a newer request's, whose PIN is the one that counts
    }
    LeaveCriticalSection(&g_csPinOrder);
    return 0;
}

void UpdateServerPW(const char *pszPin)
{
    char szOld[sizeof(g_szPW)];
    GetPassword(szOld);
    TraceDebugA("[UpdateServerPW] old[%s], new[%s]", szOld, pszPin);
    if (g_bConnecting) {
        TraceDebugA("[UpdateServerPW] g_bConnecting true. Exit.");
        return;
    }
    if (pszPin[0] == '\0') return;
    EnterSession();
    // another PIN there means that a newer request has overtaken this one
    if (CompareTextNoCaseA(g_szServerPin, pszPin) == 0) SetPassword(pszPin);
    LeaveSession();
}

uint32_t NetInitializationThread(void *)
{
    HANDLE hNone = nullptr;
    if (g_hNetInitTimerEvent != nullptr || g_hAppEvent == nullptr) return 0;
    const HANDLE hTimer = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (hTimer == nullptr) return 0;
    if (!g_hNetInitTimerEvent.compare_exchange_strong(hNone, hTimer)) {
        CloseHandle(hTimer);
        return 0;
    }
    uint32_t dwFailed = 0;
    for (;;) {
        const HANDLE   aHandles[] = {g_hAppEvent, hTimer};
        const uint32_t dwWait     = WaitForMultipleObjects(2, aHandles, FALSE, SETTLE_MS);
        if (dwWait == WAIT_OBJECT_0) break;
        if (dwWait == WAIT_OBJECT_0 + 1) TraceText("NetInitializationThread reset timer");
        if (dwWait == WAIT_TIMEOUT && ServePin(&dwFailed)) return 0; // it has closed the event
        if (dwWait == WAIT_FAILED && WaitForStop(SETTLE_MS)) break;
    }
    EnterSession();
    CloseTimerEvent();
    LeaveSession();
    return 0;
}

int32_t StartNetworkConnect(uint32_t dwMode, uint32_t dwOption)
{
    const uint64_t ullTime = NextStamp(&g_ullLastConnectRequest);
    const uint32_t dwStart = NewRoleStart();
    auto          *pBlock  = new (std::nothrow) ConnectRequest{ullTime, dwMode, dwOption, dwStart};
    if (pBlock == nullptr) return 0;
    if (dwMode == MODE_SERVER || dwMode == MODE_CLIENT) AnnounceRoleStart(dwMode == MODE_SERVER, dwStart);
    if (dwMode == MODE_DISCONNECT) EndPinRequests(dwStart);
    if (StartDetachedThread(NetworkConnectThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}

uint32_t NetworkConnectThread(void *pBlock)
{
    const ConnectRequest request = *static_cast<const ConnectRequest *>(pBlock);
    delete static_cast<const ConnectRequest *>(pBlock);
    if (request.dwMode == MODE_SERVER || request.dwMode == MODE_CLIENT) ConnectRole(&request);
    else if (request.dwMode == MODE_DISCONNECT) Disconnect(&request);
    return 0;
}
