// session_state.cpp: the session's variables, each with the lock that keeps it whole.
#include "net/session_state.h"
#include "net/network_link.h"
#include "platform/made_once.h"
#include "platform/text.h"

using namespace platform;

SessionRecord         g_Session;
char                  g_szServerPin[260];
char                  g_szClientPin[260];
std::atomic<uint64_t> g_ullLastPinRequest{0};
std::atomic<uint64_t> g_ullLastConnectRequest{0};
std::atomic<HANDLE>   g_hNetInitTimerEvent{nullptr};

static CRITICAL_SECTION g_csSession;
static char             g_szServedPin[260]; // what the session thread starts the server with; session lock

// A readiness event and the calls of SetNetworkServerClient that use it: a request may overtake one that still waits,
// and the last of them closes the event.
struct ReadyEvent {
    HANDLE   hEvent;
    uint32_t nUsers;
};
static ReadyEvent       g_SpecialReady[2]; // for callers with a name buffer, and without
static CRITICAL_SECTION g_csReady;         // guards the two; nothing else is called under it

static std::atomic<uint32_t> g_dwReadyLink{0}; // whose peer's machine info came last

static CRITICAL_SECTION *ReadyLock()
{
    return MadeOnce<&g_csReady>();
}

static ReadyEvent *ReadyEventOf(bool bWithName)
{
    return &g_SpecialReady[bWithName ? 0 : 1];
}

void EnterSession()
{
    EnterCriticalSection(MadeOnce<&g_csSession>());
}

void LeaveSession()
{
    LeaveCriticalSection(&g_csSession);
}

void SetServedPin(const char *pszPin)
{
    EnterSession();
    CopyTextA(g_szServedPin, sizeof(g_szServedPin), pszPin);
    LeaveSession();
}

void SetServerPassword(const char *pszStarted)
{
    EnterSession();
    const bool bServed = g_szServedPin[0] != '\0' && CompareTextNoCaseA(g_szServedPin, pszStarted) == 0;
    SetPassword(bServed && g_hNetInitTimerEvent != nullptr && g_szServerPin[0] != '\0' ? g_szServerPin : pszStarted);
    LeaveSession();
}

HANDLE AcquireReadyEvent(bool bWithName)
{
    ReadyEvent *pReady = ReadyEventOf(bWithName);
    EnterCriticalSection(ReadyLock());
    pReady->nUsers++;
    if (pReady->hEvent == nullptr) pReady->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    else ResetEvent(pReady->hEvent); // what an overtaken session left
    const HANDLE hEvent = pReady->hEvent;
    LeaveCriticalSection(ReadyLock());
    return hEvent;
}

void ReleaseReadyEvent(bool bWithName)
{
    ReadyEvent *pReady = ReadyEventOf(bWithName);
    EnterCriticalSection(ReadyLock());
    if (--pReady->nUsers == 0 && pReady->hEvent != nullptr) {
        CloseHandle(pReady->hEvent);
        pReady->hEvent = nullptr;
    }
    LeaveCriticalSection(ReadyLock());
}

void SignalSpecialReady()
{
    const uint32_t dwLink = GetThreadLink();
    g_dwReadyLink         = dwLink != 0 ? dwLink : g_dwLinkGeneration.load();
    EnterCriticalSection(ReadyLock());
    for (const ReadyEvent &ready : g_SpecialReady)
        if (ready.hEvent != nullptr) SetEvent(ready.hEvent);
    LeaveCriticalSection(ReadyLock());
}

bool IsSpecialReady(uint32_t dwLink)
{
    return g_dwReadyLink == dwLink;
}

void ResetSessionState()
{
    g_szServerPin[0] = g_szClientPin[0] = g_szServedPin[0] = '\0';
    g_ullLastPinRequest = g_ullLastConnectRequest = 0;
    g_Session.bServerStarted = g_Session.bClientStarted = 0;
    g_Session.szMappingPath[0] = g_Session.szPeerMappingPath[0] = g_Session.szPeerVersion[0] = u'\0';
    g_Session.bPeerAtLeast1040 = g_Session.bPeerAtLeast1050 = g_Session.bPeerAtLeast1050Second = 0;
}
