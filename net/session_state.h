// session_state.h: what is known of the one session: its record, the PINs, which role was started, and whether the peer
// has described itself.
// Threads  any.
// Lock     the session lock guards the PINs and the timer event, and is held for a few statements at a time; only
//          SetPassword, the trace log and role_start.h are called under it. The marks of the two roles belong to the
//          role lock. The readiness events have a lock of their own, inside, under which nothing is called.
#pragma once
#include "platform/kernel.h"
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

void EnterSession(); // the session lock
void LeaveSession();

// Which PIN the session thread starts the server with, for SetServerPassword.
void SetServedPin(const char *pszPin);
// The same while the server starts: stores pszStarted as the password, or the PIN that has replaced it since the
// session thread took it. Without this a PIN replaced between the two would be told to the user and never admit
// anybody.
void SetServerPassword(const char *pszStarted);

// Readiness events: the first for callers with a name buffer, the second for callers without. Made and closed by
// SetNetworkServerClient, signalled through SignalSpecialReady by the receiver of the peer's machine-info file, for the
// link that the calling thread is bound to. Any thread.
void SignalSpecialReady();
// True when the machine info of this link's peer has come.
bool IsSpecialReady(uint32_t dwLink);
// For SetNetworkServerClient: one of the two, reset, or null when it cannot be made; the last user's release closes it.
platform::HANDLE AcquireReadyEvent(bool bWithName);
void             ReleaseReadyEvent(bool bWithName);

// Back to the state of process start. Tests only, with no session thread running.
void ResetSessionState();
