// network_link.h: the state of the one link to the peer that both roles share.
// Lock     g_csNetSocket spans one whole exchange written to the peer. While it is held no second lock is taken.
//          It is made once per process (MakeNetSocketLock) and never deleted: a thread that waits for it or holds it
//          while the role is torn down leaves it in good order and finds its socket invalid.
//          The role lock is held while a role takes its first steps, publishes a socket, admits its peer or is torn
//          down, so that each of these is whole to the others. It is recursive, it is never held over a wait for the
//          peer or for the shell. Only locks inside a call are taken under it (SetPassword, ClearSpecialFolders), never
//          g_csNetSocket, the session's or the discovery program's.
// Sockets  the listening socket and a connection whose peer is not admitted yet are closed by whoever ends the role,
//          which wakes the attempt that waits in them. A link's socket is its listener's: ending the role shuts it
//          down, and the listener closes it as its last act, so that no other link's socket has its value while it
//          reads.
#pragma once
#include "platform/kernel.h"
#include "platform/sockets.h"
#include <atomic>
#include <cstdint>

extern std::atomic<uint8_t>          g_bServer;          // 1 from ServerInit until ServerUninit; never with g_bClient
extern std::atomic<uint8_t>          g_bClient;          // 1 from ClientInitEnum/ClientInit until ClientUninit
extern std::atomic<uint8_t>          g_bConnecting;      // 1 from a peer's connection until that attempt fails
extern std::atomic<platform::SOCKET> g_ServerSrvSocket;  // listening
extern std::atomic<platform::SOCKET> g_ServerSendSocket; // accepted, connected
extern std::atomic<platform::SOCKET> g_ClientRecvSocket; // connected
extern std::atomic<platform::SOCKET> g_ClientAttemptSocket; // of a client's attempt, until its server admits it
extern std::atomic<uint8_t>          g_bLinkAdmitted; // 1 from a listener's start until its role is ended; role lock
extern char                          g_szPW[10];      // the current password; guarded by SetPassword / GetPassword
extern platform::CRITICAL_SECTION    g_csNetSocket;

constexpr int32_t ROLE_EXCLUDED = -201; // what a start gives while the other role is taken

// Of each of the two fields of a handshake, zero-filled after the text, without length.
constexpr int32_t HANDSHAKE_FIELD_BYTES = 10;

void MakeNetSocketLock();  // makes g_csNetSocket unless it is there. Any thread.
void NextLinkGeneration(); // [role lock] a role begins or ends: whoever belongs to the link so far is shut out

// Copies into g_szPW with strcpy_s: a text of 10 bytes or more leaves it empty and sets errno. Any thread.
void SetPassword(const char *pszPassword);
void GetPassword(char (&szPassword)[10]);

// The number of the current link: another one whenever a role is taken, whenever one that had started is torn down, and
// when a listener finds its link broken; never 0. A walk, a transfer or a listener remembers the number
// it began with; once it differs, the link it belonged to is gone, and it neither sends on, reports through nor
// releases a later one.
// Order    the number grows before the link's sockets are closed or replaced: who reads a socket first and then finds
//          the number unchanged holds the socket of that link.
extern std::atomic<uint32_t> g_dwLinkGeneration;
// Binds the calling thread's sends to one link (0 unbinds: any link). SendNetworkCommand and SendNetworkFile give
// -1005 when the bound generation is no longer the current one. Threads start unbound; a listener is bound to its own
// link.
void     BindThreadToLink(uint32_t dwGeneration);
uint32_t GetThreadLink();
// True when the calling thread is unbound or its link is still the current one.
bool IsThreadLinkCurrent();
// True while the role is this link's. Its answer lasts only as long as the caller holds the role lock.
bool IsOwnLink(uint32_t dwLink);
// True while a peer is admitted on the current link.
bool IsLinkUp();

// Takes the socket out of its global and closes it, once, whoever calls. True when this call closed it.
bool CloseLinkSocket(std::atomic<platform::SOCKET> *pSocket);
// [role lock] Ends the role's connection: closes its socket, but only shuts down one that a listener reads.
void EndLinkSocket(bool bServer);
// [role lock] That and the role's other socket: the listening one, or a client's attempt.
void EndLinkSockets(bool bServer);
// The listener's last act: its socket is closed, once no exchange is under way on it.
void CloseListenedSocket(bool bServer, platform::SOCKET hSocket);
// Sets 8000 ms for both directions and TCP_NODELAY. An option that the system refuses is reported and left.
void PrepareLinkSocket(platform::SOCKET hSocket);

// The role lock, see above.
void EnterRoleChange();
void LeaveRoleChange();
// Puts the socket into its global if dwGeneration is still current; a socket that was there is closed. False: hSocket
// has been closed instead. Takes the role lock.
bool PublishLinkSocket(std::atomic<platform::SOCKET> *pSocket, platform::SOCKET hSocket, uint32_t dwGeneration);
// Declares the link of dwGeneration broken, for its listener: 0 when it is no longer the current one (somebody else has
// ended it, so there is nothing to report), else the number that is current from here on. Takes the role lock.
uint32_t ClaimBrokenLink(uint32_t dwGeneration);

// Listener threads that have not ended. Written by listener.cpp.
extern std::atomic<int32_t> g_nListeners;
// Attempts in ServerInit or ClientInit. Written by those.
extern std::atomic<int32_t> g_nAttempts;
// Waits, for 2.5 seconds at most, until no listener of a former link and no attempt but the caller's is left. Not under
// the role lock, not on a listener.
void AwaitFormerLink(int32_t nOwnAttempts = 0);

// Starts Winsock, once for the life of the process: what a role's end took back would fail a socket of the next one.
void StartWinsock();

// Puts every variable above back as it was at process start. Tests only, with no role and no listener running.
void ResetNetworkLink();
