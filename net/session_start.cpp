// session_start.cpp: one session's start: the role, then the exchange of machine info.
// The client sends first and the server answers after its wait, so that only one file is under way at a time. The
// exchange is bound to the link it began on: a session that starts meanwhile is neither sent to nor torn down.
#include "ipc/stop_signal.h"
#include "migration/special_data.h"
#include "migration/state_files.h"
#include "net/client_role.h"
#include "net/server_role.h"
#include "net/session_control.h"
#include "platform/kernel.h"
#include "trace/trace_log.h"
#include "transfer/network_send.h"

using namespace platform;

namespace {

constexpr uint32_t READY_WAIT_MS   = 10000;
constexpr int32_t  EXCHANGE_FAILED = -1;

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
    static const bool bMade = (InitializeCriticalSection(&g_csReady), true);
    static_cast<void>(bMade);
    return &g_csReady;
}

// Null when the event cannot be made: the exchange then fails.
HANDLE AcquireReadyEvent(ReadyEvent *pReady)
{
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

void ReleaseReadyEvent(ReadyEvent *pReady)
{
    EnterCriticalSection(ReadyLock());
    if (--pReady->nUsers == 0 && pReady->hEvent != nullptr) {
        CloseHandle(pReady->hEvent);
        pReady->hEvent = nullptr;
    }
    LeaveCriticalSection(ReadyLock());
}

bool AwaitPeerInfo(HANDLE hReady)
{
    const HANDLE aHandles[] = {g_hAppEvent, hReady};
    if (aHandles[0] == nullptr || hReady == nullptr) return false;
    return WaitForMultipleObjects(2, aHandles, FALSE, READY_WAIT_MS) == WAIT_OBJECT_0 + 1;
}

// True when both files have crossed.
bool ExchangeMachineInfo(SessionRecord *pSession, bool bServer, HANDLE hReady, char16_t *pszPeerName,
                         uint32_t cchPeerName)
{
    bool bSent = false;
    if (GetMappingFolder(pSession->szMappingPath)) SetSpecialRoot(SpecialRoot::ProgramData, pSession->szMappingPath);
    WriteLocalInfo(pSession);
    if (!bServer) bSent = SendLocalInfo() == SEND_OK;
    // The file that ended the wait may be a later session's, whose link has taken this one's place meanwhile.
    const bool bReceived = AwaitPeerInfo(hReady) && IsThreadLinkCurrent();
    if (bReceived) {
        TraceText("SpecialReadyEvent is signal");
        ReadTargetInfo(pSession, pszPeerName, cchPeerName);
        SetSpecialRoot(SpecialRoot::SecondAppData, pSession->szPeerMappingPath);
    } else {
        TraceText("SpecialReadyEvent timeout");
    }
    if (bServer) bSent = SendLocalInfo() == SEND_OK;
    if (!bSent || !bReceived) TraceSpecialFileFailure(bSent ? 1 : 0, bReceived ? 1 : 0);
    return bSent && bReceived;
}

void UninitRole(bool bServer, uint32_t dwGeneration)
{
    bServer ? ServerUninitLink(dwGeneration) : ClientUninitLink(dwGeneration);
}

} // namespace

void SignalSpecialReady()
{
    EnterCriticalSection(ReadyLock());
    for (const ReadyEvent &ready : g_SpecialReady)
        if (ready.hEvent != nullptr) SetEvent(ready.hEvent);
    LeaveCriticalSection(ReadyLock());
}

int32_t SetNetworkServerClient(SessionRecord *pSession, int32_t bConnect, int32_t bServer, const char *pszPin,
                               char16_t *pszPeerName, uint32_t cchPeerName)
{
    const bool bServerRole = bServer == 1;
    if (!bConnect) {
        if (ClearRoleStarted(pSession, bServerRole, GetRoleStart(bServerRole))) UninitRole(bServerRole, 0);
        return 0;
    }
    if (pszPeerName != nullptr && cchPeerName > 0) pszPeerName[0] = u'\0';
    ReadyEvent    *pReady       = &g_SpecialReady[pszPeerName != nullptr ? 0 : 1];
    const HANDLE   hReady       = AcquireReadyEvent(pReady);
    const uint32_t dwRoleStart  = MarkRoleStarted(pSession, bServerRole);
    uint32_t       dwGeneration = 0;
    int32_t nRet = bServerRole ? ServerInitLink(pszPin, &pSession->bServerStarted, &dwGeneration)
                               : ClientInitEnumLink(pszPin, &pSession->bClientStarted, &dwGeneration);
    if (bServerRole)
        TraceText(nRet == 0 ? "ServerInit success" : "ServerInit fail");
    else
        TraceText(nRet == 0 ? "ClientInit success" : "ClientInit fail");
    if (nRet == 0) {
        BindThreadToLink(dwGeneration);
        if (!ExchangeMachineInfo(pSession, bServerRole, hReady, pszPeerName, cchPeerName)) {
            UninitRole(bServerRole, dwGeneration);
            ClearRoleStarted(pSession, bServerRole, dwRoleStart);
            nRet = EXCHANGE_FAILED;
        }
        BindThreadToLink(0);
    }
    ReleaseReadyEvent(pReady);
    return nRet;
}
