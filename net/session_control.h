// session_control.h: what the migration service asks of the link: PIN codes, roles, release.
// Threads  each request runs on a short-lived thread of its own; newer requests win by their tick-count stamps.
// Lock     the session lock, inside session_control.cpp: it guards the PINs, the timer event and the marks of the two
//          roles, and is held for a few statements at a time; only SetPassword and the trace log are called under it.
#pragma once
#include "ipc/ipc_message.h"
#include "platform/types.h"
#include <atomic>
#include <cstdint>

// The one session of this process. Its starter flags are shared; the texts are written by the session thread while a
// session starts and read afterwards.
struct SessionRecord {
    std::atomic<uint32_t> bServerStarted;
    std::atomic<uint32_t> bClientStarted;
    char16_t              szMappingPath[260];     // own application mapping folder
    char16_t              szPeerMappingPath[260]; // the peer's, from targetinfo.ini
    char16_t              szPeerVersion[260];
    std::atomic<uint32_t> bPeerAtLeast1040;
    std::atomic<uint32_t> bPeerAtLeast1050;
    std::atomic<uint32_t> bPeerAtLeast1050Second; // the same value again; both fields are part of the record
};
extern SessionRecord g_Session;

extern char                          g_szServerPin[260];      // session lock
extern char                          g_szClientPin[260];      // session lock
extern std::atomic<uint64_t>         g_ullLastPinRequest;     // ms; 0 after a disconnect
extern std::atomic<uint64_t>         g_ullLastConnectRequest; // ms
extern std::atomic<platform::HANDLE> g_hNetInitTimerEvent;    // not null exactly while NetInitializationThread runs

// Readiness events: the first for callers with a name buffer, the second for callers without. Made and closed by
// SetNetworkServerClient, signalled through SignalSpecialReady by the receiver of the peer's machine-info file. Any
// thread.
void SignalSpecialReady();

// Copies the record and starts CallPinCodeThread on it. 1, or 0. A null record gives a zeroed block and errno 22.
int32_t  StartPinCodeThread(const IpcMessage *pRecord);
uint32_t CallPinCodeThread(void *pBlock);
uint32_t NetInitializationThread(void *pUnused);
// Replaces the password that a listening server asks for by the PIN that g_szServerPin holds by now, unless a peer is
// being admitted. Any thread.
void UpdateServerPW(const char *pszPin);
// The same while the server starts: stores pszStarted as the password, or the PIN that has replaced it since the
// session thread took it. Without this a PIN replaced between the two would be told to the user and never admit anybody.
void SetServerPassword(const char *pszStarted);
// dwMode: 1 server, 2 client, 3 disconnect (dwOption 1: the service is told first). 1, or 0 when the thread cannot be
// had.
int32_t  StartNetworkConnect(uint32_t dwMode, uint32_t dwOption);
uint32_t NetworkConnectThread(void *pBlock);
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

// 0 connected and machine info exchanged; -6 wrong PIN; 9999 cancelled; others failed (-1: connected, but the exchange
// of machine info failed, and the role was torn down again). Blocks until a peer is there; session threads.
//   bConnect     0 only ends the role if it was started, and gives 0
//   pszPeerName  cchPeerName UTF-16 units, or null and 0
int32_t SetNetworkServerClient(SessionRecord *pSession, int32_t bConnect, int32_t bServer, const char *pszPin,
                               char16_t *pszPeerName, uint32_t cchPeerName);

// Marks the role as started, before it does. The result, which GetRoleStart repeats, numbers the starts of this role.
uint32_t MarkRoleStarted(SessionRecord *pSession, bool bServer);
uint32_t GetRoleStart(bool bServer);
// Clears the mark; true when it was set and no later start has set it anew.
bool ClearRoleStarted(SessionRecord *pSession, bool bServer, uint32_t dwRoleStart);

// Back to the state of process start. Tests only, with no session thread running.
void ResetSessionControl();
