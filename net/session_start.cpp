// session_start.cpp: one session's start: the role, then the exchange of machine info.
// The client sends first and the server answers after its wait, so that only one file is under way at a time. The
// exchange is bound to the link it began on: a session that starts meanwhile is neither sent to nor torn down.
#include "net/session_start.h"
#include "ipc/stop_signal.h"
#include "migration/local_info.h"
#include "migration/special_folders.h"
#include "migration/state_files.h"
#include "net/client_discovery.h"
#include "net/client_role.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/server_role.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/network_send.h"

using namespace platform;

constexpr uint32_t READY_WAIT_MS   = 10000;
constexpr uint32_t READY_STEP_MS   = 100; // after which an ended link is noticed
constexpr int32_t  EXCHANGE_FAILED = -1;

// True when this link's peer has described itself. The event may be an earlier session's word, whose link has gone.
static bool AwaitPeerInfo(HANDLE hReady)
{
    const HANDLE   aHandles[] = {g_hAppEvent, hReady};
    const uint64_t ullStart   = GetTickCount64();
    if (aHandles[0] == nullptr || hReady == nullptr) return false;
    while (!IsSpecialReady(GetThreadLink())) {
        if (!IsThreadLinkCurrent() || GetTickCount64() - ullStart >= READY_WAIT_MS) return false;
        ResetEvent(hReady);
        if (IsSpecialReady(GetThreadLink())) break;
        const uint32_t dwWait = WaitForMultipleObjects(2, aHandles, FALSE, READY_STEP_MS);
        if (dwWait == WAIT_OBJECT_0 || dwWait == WAIT_FAILED) return false;
    }
    return IsThreadLinkCurrent();
}

// The peer puts the files of its service's answers below the path that it is told here, and the own service is told
// them as paths below root A: so that root is what the peer has to know, once the service has named it.
static void SetMappingPaths(SessionRecord *pSession)
{
    if (!GetMappingFolder(pSession->szMappingPath)) return;
    SetSpecialRoot(SpecialRoot::ProgramData, pSession->szMappingPath);
    const SpecialFolders folders = GetSpecialFolders();
    if (folders.szAppDataRoot[0] != u'\0')
        CopyTextW(pSession->szMappingPath, sizeof(pSession->szMappingPath) / sizeof(char16_t), folders.szAppDataRoot);
}

// True when both files have crossed.
static bool ExchangeMachineInfo(SessionRecord *pSession, bool bServer, HANDLE hReady, char16_t *pszPeerName,
                                uint32_t cchPeerName)
{
    bool bSent = false;
    SetMappingPaths(pSession);
    WriteLocalInfo(pSession);
    if (!bServer) bSent = SendLocalInfo() == SEND_OK;
    const bool bReceived = AwaitPeerInfo(hReady);
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

int32_t StartSession(uint32_t dwStart, SessionRecord *pSession, bool bServer, const char *pszPin, char16_t *pszPeerName,
                     uint32_t cchPeerName)
{
    const bool bWithName = pszPeerName != nullptr;
    uint32_t   dwLink    = 0;
    if (bWithName && cchPeerName > 0) pszPeerName[0] = u'\0';
    if (WaitForStop(0)) return bServer ? SERVER_CANCELLED : CLIENT_CANCELLED; // nobody would end the role any more
    const HANDLE hReady = AcquireReadyEvent(bWithName);
    int32_t nRet = bServer ? ServerInitStart(pszPin, dwStart, &dwLink) : ClientInitEnumStart(pszPin, dwStart, &dwLink);
    if (bServer) TraceText(nRet == 0 ? "ServerInit success" : "ServerInit fail");
    else TraceText(nRet == 0 ? "ClientInit success" : "ClientInit fail");
    if (nRet == 0) {
        BindThreadToLink(dwLink);
        if (!ExchangeMachineInfo(pSession, bServer, hReady, pszPeerName, cchPeerName)) {
            bServer ? ServerUninitLink(dwLink) : ClientUninitLink(dwLink);
            nRet = EXCHANGE_FAILED;
        }
        BindThreadToLink(0);
    }
    ReleaseReadyEvent(bWithName);
    return nRet;
}

int32_t SetNetworkServerClient(SessionRecord *pSession, int32_t bConnect, int32_t bServer, const char *pszPin,
                               char16_t *pszPeerName, uint32_t cchPeerName)
{
    const bool bServerRole = bServer == 1;
    if (bConnect)
        return StartSession(NewRoleStartOf(bServerRole), pSession, bServerRole, pszPin, pszPeerName, cchPeerName);
    if (bServerRole ? pSession->bServerStarted : pSession->bClientStarted)
        bServerRole ? ServerUninit() : ClientUninit();
    return 0;
}
