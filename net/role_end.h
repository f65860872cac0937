// role_end.h: how roles and links end: the two teardowns, and the releases that other threads start. Whose end is
// whose: role_start.h.
// Threads  any. Each may be repeated and may come from several threads at once.
#pragma once
#include "net/network_link.h"
#include <atomic>
#include <cstdint>

// Auto-reset, "Global\VORN Pendrel Server Socket Exit Event". ServerInit creates it, ServerUninit signals and closes
// it, ServerListenThread consumes it through a handle of its own.
extern std::atomic<platform::HANDLE> g_hServerExitEvent;
// The same for the client, "Global\VORN Pendrel Client Socket Exit Event".
extern std::atomic<platform::HANDLE> g_hClientExitEvent;
extern std::atomic<uint8_t>          g_bClientEnuming; // 1 while a ClientInitEnum runs

// Tear the role down; the client's also cancels a search that runs.
void ServerUninit();
void ClientUninit();
// The same for callers that must not touch a link that came later: nothing but a log line when dwLink is neither 0 nor
// the current number.
void ServerUninitLink(uint32_t dwLink);
void ClientUninitLink(uint32_t dwLink);

// What has an end stays ended, and what was asked for later is left alone: ends the starts up to this number, and each
// role that was taken by one of them. A link that is ended takes the special-folder record and the special-transfer
// flag with it, before anything else, unless bKeepFolders: what the service sets next is for the next session.
void EndRolesUpTo(uint32_t dwLast, bool bKeepFolders = false);
// Ends everything that has been asked for so far. 1.
int32_t disconnect();

// What is to be released.
struct LinkRelease {
    bool     bServer;
    uint32_t dwLink;     // exactly this link (network_link.h), or 0:
    uint32_t dwUpTo = 0; // whatever was asked for up to this number (role_start.h)
};
// pRelease: a LinkRelease allocated with new, which the thread frees. Null: as disconnect.
uint32_t ReleaseNetworkThread(void *pRelease);
// Starts a ReleaseNetworkThread that ends whatever stands at this moment, or exactly this link; its handle is closed at
// once. 1 or 0.
int32_t StartReleaseNetwork();
int32_t StartReleaseOfLink(const LinkRelease *pRelease); // copied
