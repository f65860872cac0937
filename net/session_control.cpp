// session_control.cpp: requests for PINs and roles, and the release of the link.
// A PIN request that arrives while the thread that serves them is about to end must not be lost: the request stores
// its PIN, looks for the thread and wakes it in one section of the session lock, and the thread decides to end and
// takes its event away in another.
#include "net/session_control.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "net/client_role.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/session_start.h"
#include "net/session_state.h"
#include "platform/detached_thread.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "trace/trace_log.h"
#include <cerrno>
#include <cstdlib>
#include <new>

using namespace platform;

namespace {

constexpr uint32_t SETTLE_MS         = 2000;  // without a further PIN request, until the role starts
constexpr uint64_t CONNECT_RETRY_MS  = 10000; // from a network-role request on
constexpr uint32_t CONNECT_PAUSE_MS  = 500;
constexpr uint32_t DISCONNECT_NOTICE_MS = 500; // for the service to hear of a disconnect before it happens
constexpr uint32_t PIN_DIGITS        = 6;
constexpr size_t   PIN_BYTES         = 260;
constexpr size_t   NAME_UNITS        = 260;

constexpr uint32_t MODE_SERVER = 1, MODE_CLIENT = 2, MODE_DISCONNECT = 3;

// First parameters of the answers to the service.
constexpr int32_t ANSWER_DONE = 2, ANSWER_PIN_MADE = 3, ANSWER_WRONG_PIN = -3, ANSWER_FAILED = -4;

struct ConnectRequest {
    uint64_t ullTime;
    uint32_t dwMode;
    uint32_t dwOption;
};
static_assert(sizeof(ConnectRequest) == 16, "the block of a network-role request");


// The stamp of a new request: the time, but never that of the request before, so that of two the newer one is known.
uint64_t NextStamp(std::atomic<uint64_t> *pullLast)
{
    uint64_t ullLast = pullLast->load(), ullNow;
    do ullNow = GetTickCount64() > ullLast ? GetTickCount64() : ullLast + 1;
    while (!pullLast->compare_exchange_weak(ullLast, ullNow));
    return ullNow;
}

int32_t GeneratePin()
{
    int32_t nPin = 0;
    std::srand(GetTickCount());
    for (uint32_t i = 0; i < PIN_DIGITS; i++) nPin = nPin * 10 + std::rand() % 10;
    char szPin[PIN_BYTES];
    FormatTextA(szPin, sizeof szPin, "%d", nPin);
    TraceTwoTexts("random generated code", szPin);
    CallServiceNamedPipe(STON_GETPINCODE, ANSWER_PIN_MADE, nPin, 0, nullptr, nullptr, nullptr);
    return nPin;
}

enum class PinStep { ServerExists, ResetTimer, NewThread };

// Stores the PIN and finds out who serves it, waking the thread if it runs: one step to that thread.
PinStep StorePin(bool bServerPin, const char *pszPin)
{
    PinStep eStep = PinStep::NewThread;
    EnterSession();
    const HANDLE hTimer = g_hNetInitTimerEvent;
    if (hTimer != nullptr && bServerPin && g_szServerPin[0] != '\0') {
        TraceText("CallPinCodeThread server exist");
        CopyTextA(g_szServerPin, sizeof g_szServerPin, pszPin);
        eStep = PinStep::ServerExists;
    } else {
        NextStamp(&g_ullLastPinRequest);
        CopyTextA(g_szServerPin, sizeof g_szServerPin, bServerPin ? pszPin : "");
        CopyTextA(g_szClientPin, sizeof g_szClientPin, bServerPin ? "" : pszPin);
        if (hTimer != nullptr) {
            TraceText("CallPinCodeThread Reset timer"); // before what the woken thread traces
            SetEvent(hTimer);
            eStep = PinStep::ResetTimer;
        }
    }
    LeaveSession();
    return eStep;
}

// The PINs as they are now; the stamp of the request that they belong to.
uint64_t ReadPins(char (&szServerPin)[PIN_BYTES], char (&szClientPin)[PIN_BYTES])
{
    EnterSession();
    const uint64_t ullRequest = g_ullLastPinRequest;
    CopyTextA(szServerPin, sizeof szServerPin, g_szServerPin);
    CopyTextA(szClientPin, sizeof szClientPin, g_szClientPin);
    LeaveSession();
    return ullRequest;
}

// [session lock] The thread ends: its event goes.
void CloseTimerEvent()
{
    CloseHandle(g_hNetInitTimerEvent.exchange(nullptr));
}

// True when a PIN has been served and nothing newer came, or a disconnect ended the request; the event is then gone.
bool EndIfServed(uint64_t ullServed, bool bServerFailed)
{
    EnterSession();
    const uint64_t ullLast = g_ullLastPinRequest;
    const bool     bEnd    = ullLast == 0 || (ullLast == ullServed && !bServerFailed);
    if (bEnd) CloseTimerEvent();
    LeaveSession();
    return bEnd;
}

// True when the server could not be started.
bool ServeServerPin(const char *pszPin)
{
    SetServedPin(pszPin);
    char16_t szPeerName[NAME_UNITS] = u"";
    char     szNow[PIN_BYTES], szClientPin[PIN_BYTES];
    TraceText("call SetNetworkServerClient server");
    const int32_t nRet = SetNetworkServerClient(&g_Session, 1, 1, pszPin, szPeerName, NAME_UNITS);
    ReadPins(szNow, szClientPin); // the PIN may have been replaced while the server waited
    CallServiceNamedPipe(STON_GETPINCODE, nRet == 0 ? ANSWER_DONE : ANSWER_FAILED,
                         TextToInt32A(szNow[0] != '\0' ? szNow : pszPin), 0, szPeerName, nullptr, nullptr);
    return nRet != 0;
}

void ServeClientPin(const char *pszPin)
{
    char16_t szPeerName[NAME_UNITS] = u"";
    TraceText("call SetNetworkServerClient client");
    const int32_t nRet = SetNetworkServerClient(&g_Session, 1, 0, pszPin, szPeerName, NAME_UNITS);
    if (nRet == CLIENT_CANCELLED) return;
    const int32_t nFailure = nRet == CLIENT_WRONG_PASSWORD ? ANSWER_WRONG_PIN : ANSWER_FAILED;
    CallServiceNamedPipe(STON_SETPINCCODE, nRet == 0 ? ANSWER_DONE : nFailure, TextToInt32A(pszPin), 0, szPeerName,
                         nullptr, nullptr);
}

// The requests have settled. True when the thread ends.
bool ServePin()
{
    char szServerPin[PIN_BYTES], szClientPin[PIN_BYTES];
    TraceText("NetInitializationThread timeout");
    const uint64_t ullServed     = ReadPins(szServerPin, szClientPin);
    bool           bServerFailed = false;
    if (szServerPin[0] != '\0')
        bServerFailed = ServeServerPin(szServerPin);
    else if (szClientPin[0] != '\0')
        ServeClientPin(szClientPin);
    return EndIfServed(ullServed, bServerFailed);
}

bool IsLatest(const ConnectRequest *pRequest)
{
    return g_ullLastConnectRequest == pRequest->ullTime;
}

// True when no further try begins. Of requests in one tick the later ones have stamps ahead of the clock.
bool IsRetryOver(const ConnectRequest *pRequest)
{
    const uint64_t ullNow = GetTickCount64();
    return ullNow > pRequest->ullTime && ullNow - pRequest->ullTime >= CONNECT_RETRY_MS;
}

// Modes 1 and 2.
void ConnectRole(const ConnectRequest *pRequest)
{
    const bool bServer = pRequest->dwMode == MODE_SERVER;
    int32_t    nRet    = 0;
    TraceTwoTexts("call SetNetworkServerClient", bServer ? "server networkconnect" : "client networkconnect");
    do {
        if (!IsLatest(pRequest)) return; // also after the pause: a try would take the role from the newer request
        nRet = SetNetworkServerClient(&g_Session, 1, bServer, "", nullptr, 0);
    } while (nRet != 0 && IsLatest(pRequest) && !IsRetryOver(pRequest) && !WaitForStop(CONNECT_PAUSE_MS));
    if (IsLatest(pRequest))
        CallServiceNamedPipe(STON_NETWORKCONNECTION, nRet == 0 ? ANSWER_DONE : ANSWER_FAILED, 0, 0, nullptr, nullptr,
                             nullptr);
}

} // namespace

int32_t StartPinCodeThread(const IpcMessage *pRecord)
{
    auto *pBlock = new (std::nothrow) IpcMessage{};
    if (pBlock == nullptr) return 0;
    if (pRecord != nullptr)
        *pBlock = *pRecord;
    else
        errno = EINVAL;
    if (StartDetachedThread(CallPinCodeThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}

uint32_t CallPinCodeThread(void *pBlock)
{
    const IpcMessage *pRecord    = static_cast<const IpcMessage *>(pBlock);
    const bool        bServerPin = pRecord->dwCommand == STON_GETPINCODE;
    const bool        bWanted    = bServerPin || pRecord->dwCommand == STON_SETPINCCODE;
    const auto        nTypedPin  = static_cast<int32_t>(pRecord->dwParam2);
    delete pRecord;
    if (!bWanted) return 0;

    char szPin[PIN_BYTES];
    TraceText("CallPinCodeThread");
    FormatTextA(szPin, sizeof szPin, "%d", bServerPin ? GeneratePin() : nTypedPin);
    switch (StorePin(bServerPin, szPin)) {
    case PinStep::ServerExists: UpdateServerPW(szPin); break;
    case PinStep::ResetTimer: disconnect(); break;
    case PinStep::NewThread:
        TraceText("CallPinCodeThread CreateThread");
        StartDetachedThread(NetInitializationThread, nullptr);
        break;
    }
    return 0;
}

void UpdateServerPW(const char *pszPin)
{
    char szOld[sizeof g_szPW];
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
    for (;;) {
        const HANDLE   aHandles[] = {g_hAppEvent, hTimer};
        const uint32_t dwWait     = WaitForMultipleObjects(2, aHandles, FALSE, SETTLE_MS);
        if (dwWait == WAIT_OBJECT_0) break;
        if (dwWait == WAIT_OBJECT_0 + 1) TraceText("NetInitializationThread reset timer");
        if (dwWait == WAIT_TIMEOUT && ServePin()) return 0; // it has closed the event
        if (dwWait == WAIT_FAILED && WaitForStop(SETTLE_MS)) break;
    }
    EnterSession();
    CloseTimerEvent();
    LeaveSession();
    return 0;
}

int32_t StartNetworkConnect(uint32_t dwMode, uint32_t dwOption)
{
    auto *pBlock = new (std::nothrow) ConnectRequest{NextStamp(&g_ullLastConnectRequest), dwMode, dwOption};
    if (pBlock == nullptr) return 0;
    if (StartDetachedThread(NetworkConnectThread, pBlock)) return 1;
    delete pBlock;
    return 0;
}

uint32_t NetworkConnectThread(void *pBlock)
{
    const ConnectRequest request = *static_cast<const ConnectRequest *>(pBlock);
    delete static_cast<const ConnectRequest *>(pBlock);
    if (request.dwMode == MODE_SERVER || request.dwMode == MODE_CLIENT) {
        ConnectRole(&request);
    } else if (request.dwMode == MODE_DISCONNECT) {
        TraceText("call disconnect networkconnect");
        if (request.dwOption == 1) {
            CallServiceNamedPipe(NTOS_USERCONTROL, 1, 0, 0, nullptr, nullptr, nullptr);
            WaitForStop(DISCONNECT_NOTICE_MS);
        }
        g_ullLastPinRequest = 0;
        disconnect();
    }
    return 0;
}

