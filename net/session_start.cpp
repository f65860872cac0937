// session_start.cpp: one session's start: the role, then the exchange of machine info.
// The client sends first and the server answers after its wait, so that only one file is under way at a time. The
// exchange is bound to the link it began on: a session that starts meanwhile is neither sent to nor torn down.
#include "net/session_start.h"
#include "ipc/stop_signal.h"
#include "migration/local_info.h"
#include "migration/special_folders.h"
#include "migration/state_files.h"
#include "net/client_discovery.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/server_role.h"
#include "platform/kernel.h"
#include "trace/trace_log.h"
#include "transfer/network_send.h"

using namespace platform;

namespace {

constexpr uint32_t READY_WAIT_MS   = 10000;
constexpr int32_t  EXCHANGE_FAILED = -1;

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

int32_t SetNetworkServerClient(SessionRecord *pSession, int32_t bConnect, int32_t bServer, const char *pszPin,
                               char16_t *pszPeerName, uint32_t cchPeerName)
{
    const bool bServerRole = bServer == 1;
    if (!bConnect) {
        if (ClearRoleStarted(pSession, bServerRole, GetRoleStart(bServerRole))) UninitRole(bServerRole, 0);
        return 0;
    }
    if (pszPeerName != nullptr && cchPeerName > 0) pszPeerName[0] = u'\0';
    const bool     bWithName    = pszPeerName != nullptr;
    const HANDLE   hReady       = AcquireReadyEvent(bWithName);
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
    ReleaseReadyEvent(bWithName);
    return nRet;
}
