// role_end.h: how roles and links end: the two teardowns, what they undo, and the releases that other threads start.
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
extern std::atomic<uint8_t>          g_bServerWinsock;  // 1 while the role's WSAStartup is to be undone; role lock
extern std::atomic<uint8_t>          g_bClientWinsock;
extern std::atomic<uint8_t>          g_bClientEnuming;  // 1 while ClientInitEnum runs
extern std::atomic<uint8_t>          g_bStopClientEnum; // set by ClientUninit; every wait and attempt tests it

// Tear the role down; the client's also cancels a search that runs.
void ServerUninit();
void ClientUninit();
// The same for callers that must not touch a link that came later: nothing but a log line when dwGeneration is neither 0
// nor the current number.
void ServerUninitLink(uint32_t dwGeneration);
void ClientUninitLink(uint32_t dwGeneration);

// Ends each started role, clears the special-folder record and the special-transfer flag. 1.
int32_t disconnect();

// One link, as its listener knows it, for releasing exactly that one.
struct LinkRelease {
    bool     bServer;
    uint32_t dwRoleStart;  // GetRoleStart when the link began
    uint32_t dwGeneration; // its number (network_link.h)
};
// pRelease: a LinkRelease allocated with new, which the thread frees: the role is ended if it is still the one that
// this link began in, and a role that has started since is left alone. Null: as disconnect.
uint32_t ReleaseNetworkThread(void *pRelease);
// Starts ReleaseNetworkThread, its handle closed at once. 1 or 0.
int32_t StartReleaseNetwork();
int32_t StartReleaseOfLink(const LinkRelease *pRelease); // copied
