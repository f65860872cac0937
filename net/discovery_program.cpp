// discovery_program.cpp: the discovery program is asked in the order in which links begin and end.
#include "net/discovery_program.h"
#include "net/network_link.h"
#include "net/settings.h"
#include "platform/made_once.h"

using namespace platform;

static CRITICAL_SECTION g_csDiscovery;
static uint32_t         g_dwDiscoveryLink; // for which it runs, 0 for none; guarded by the lock

void StartDiscovery(bool bServer, uint32_t dwLink)
{
    EnterCriticalSection(MadeOnce<&g_csDiscovery>());
    if (IsOwnLink(dwLink)) { // a link that ends from here on stops the program after this
        g_dwDiscoveryLink = dwLink;
        bServer ? RunDiscoveryServer() : RunDiscoveryClient();
    }
    LeaveCriticalSection(&g_csDiscovery);
}

void StopDiscovery(uint32_t dwLink)
{
    EnterCriticalSection(MadeOnce<&g_csDiscovery>());
    if (g_dwDiscoveryLink == 0 || g_dwDiscoveryLink == dwLink || IsOwnLink(dwLink)) {
        RunDiscoveryHelper("stop");
        g_dwDiscoveryLink = 0;
    }
    LeaveCriticalSection(&g_csDiscovery);
}
