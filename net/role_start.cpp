// role_start.cpp: the numbers of starts, and the taking of a role.
#include "net/role_start.h"
#include "net/session_state.h"
#include <algorithm>

using namespace platform;

// Role lock.
static uint32_t g_dwLastNumber;    // given so far
static uint32_t g_dwEndedUpTo;     // starts up to this number have been ended
static uint32_t g_aNewestStart[2]; // client, server: announced
static uint32_t g_aHolder[2];      // the start that took the role last

uint32_t NewRoleStart()
{
    EnterRoleChange();
    const uint32_t dwStart = ++g_dwLastNumber;
    LeaveRoleChange();
    return dwStart;
}

void AnnounceRoleStart(bool bServer, uint32_t dwStart)
{
    EnterRoleChange();
    if (dwStart > g_aNewestStart[bServer]) {
        g_aNewestStart[bServer] = dwStart;
        if (!bServer) CloseLinkSocket(&g_ClientAttemptSocket); // an older search may hang in it
    }
    LeaveRoleChange();
}

uint32_t NewRoleStartOf(bool bServer)
{
    EnterRoleChange();
    const uint32_t dwStart = NewRoleStart();
    AnnounceRoleStart(bServer, dwStart);
    LeaveRoleChange();
    return dwStart;
}

bool IsStartWanted(bool bServer, uint32_t dwStart)
{
    EnterRoleChange();
    const bool bWanted = dwStart == g_aNewestStart[bServer] && dwStart > g_dwEndedUpTo;
    LeaveRoleChange();
    return bWanted;
}

void EndNewestStart(bool bServer)
{
    NewRoleStartOf(bServer); // nobody's
}

void EndStartsUpTo(uint32_t dwLast)
{
    EnterRoleChange();
    g_dwEndedUpTo = std::max(g_dwEndedUpTo, dwLast);
    if (g_aHolder[0] <= dwLast) CloseLinkSocket(&g_ClientAttemptSocket);
    LeaveRoleChange();
}

uint32_t BeginRole(bool bServer, uint32_t dwStart)
{
    EnterRoleChange();
    NextLinkGeneration(); // first: a thread that wakes from its closed socket finds its link gone
    EndLinkSockets(bServer);
    (bServer ? g_bServer : g_bClient)                               = 1;
    (bServer ? g_Session.bServerStarted : g_Session.bClientStarted) = 1;
    g_aHolder[bServer]                                              = dwStart;
    const uint32_t dwLink                                           = g_dwLinkGeneration;
    LeaveRoleChange();
    return dwLink;
}

bool IsRoleOfStartsUpTo(bool bServer, uint32_t dwLast)
{
    return (bServer ? g_Session.bServerStarted : g_Session.bClientStarted) != 0 && g_aHolder[bServer] <= dwLast;
}
