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

namespace {

CRITICAL_SECTION g_csSession;
uint32_t         g_aRoleStarts[2];   // client, server; session lock
char             g_szServedPin[260]; // what the session thread starts the server with; session lock

// A readiness event and the calls of SetNetworkServerClient that use it: a request may overtake one that still waits,
// and the last of them closes the event.
struct ReadyEvent {
    HANDLE   hEvent;
    uint32_t nUsers;
};
ReadyEvent       g_SpecialReady[2]; // for callers with a name buffer, and without
CRITICAL_SECTION g_csReady;         // guards the two; nothing else is called under it

CRITICAL_SECTION *ReadyLock()
{
    return MadeOnce<&g_csReady>();
}

ReadyEvent *ReadyEventOf(bool bWithName)
{
    return &g_SpecialReady[bWithName ? 0 : 1];
}

std::atomic<uint32_t> *StartedFlag(SessionRecord *pSession, bool bServer)
{
    return bServer ? &pSession->bServerStarted : &pSession->bClientStarted;
}

} // namespace

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
    CopyTextA(g_szServedPin, sizeof g_szServedPin, pszPin);
    LeaveSession();
}

void SetServerPassword(const char *pszStarted)
{
    EnterSession();
    const bool bServed = g_szServedPin[0] != '\0' && CompareTextNoCaseA(g_szServedPin, pszStarted) == 0;
    SetPassword(bServed && g_hNetInitTimerEvent != nullptr && g_szServerPin[0] != '\0' ? g_szServerPin : pszStarted);
    LeaveSession();
}

uint32_t MarkRoleStarted(SessionRecord *pSession, bool bServer)
{
    EnterSession();
    const uint32_t dwStart           = ++g_aRoleStarts[bServer];
    *StartedFlag(pSession, bServer) = 1;
    LeaveSession();
    return dwStart;
}

uint32_t GetRoleStart(bool bServer)
{
    EnterSession();
    const uint32_t dwStart = g_aRoleStarts[bServer];
    LeaveSession();
    return dwStart;
}

bool ClearRoleStarted(SessionRecord *pSession, bool bServer, uint32_t dwRoleStart)
{
    EnterSession();
    const bool bCleared = g_aRoleStarts[bServer] == dwRoleStart && StartedFlag(pSession, bServer)->exchange(0) != 0;
    LeaveSession();
    return bCleared;
}

HANDLE AcquireReadyEvent(bool bWithName)
{
    ReadyEvent *pReady = ReadyEventOf(bWithName);
    EnterCriticalSection(ReadyLock());
    pReady->nUsers++;
    if (pReady->hEvent == nullptr)
        pReady->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    else
        ResetEvent(pReady->hEvent); // what an overtaken session left
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
    EnterCriticalSection(ReadyLock());
    for (const ReadyEvent &ready : g_SpecialReady)
        if (ready.hEvent != nullptr) SetEvent(ready.hEvent);
    LeaveCriticalSection(ReadyLock());
}

void ResetSessionState()
{
    g_szServerPin[0] = g_szClientPin[0] = g_szServedPin[0] = '\0';
    g_ullLastPinRequest = g_ullLastConnectRequest = 0;
    g_Session.bServerStarted = g_Session.bClientStarted = 0;
    g_Session.szMappingPath[0] = g_Session.szPeerMappingPath[0] = g_Session.szPeerVersion[0] = u'\0';
    g_Session.bPeerAtLeast1040 = g_Session.bPeerAtLeast1050 = g_Session.bPeerAtLeast1050Second = 0;
}
