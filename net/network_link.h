// network_link.h: the state of the one link to the peer that both roles share.
// Lock     g_csNetSocket spans one whole exchange written to the peer. While it is held no second lock is taken.
//          It is made once per process and never really deleted: OpenNetSocketLock / CloseNetSocketLock, called where
//          a role begins and ends a link, only open and close it for use. A thread that waits for it or holds it while
//          the role is torn down leaves it in good order and finds its socket invalid.
//          The role lock is held while a role takes its first steps, publishes a socket, admits its peer or is torn
//          down, so that each of these is whole to the others. It is recursive, it is never held over a wait for the
//          peer. Only locks inside a call are taken under it (SetPassword, GetRoleStart), never g_csNetSocket.
#pragma once
#include "platform/kernel.h"
#include "platform/sockets.h"
#include <atomic>
#include <cstdint>

extern std::atomic<uint8_t>          g_bServer;     // 1 from ServerInit until ServerUninit; never with g_bClient
extern std::atomic<uint8_t>          g_bClient;     // 1 from ClientInitEnum/ClientInit until ClientUninit
extern std::atomic<uint8_t>          g_bConnecting; // 1 from a peer's connection until that attempt fails
extern std::atomic<platform::SOCKET> g_ServerSrvSocket;  // listening
extern std::atomic<platform::SOCKET> g_ServerSendSocket; // accepted, connected
extern std::atomic<platform::SOCKET> g_ClientRecvSocket; // connected
extern char                          g_szPW[10];    // the current password; guarded by SetPassword / GetPassword
extern platform::CRITICAL_SECTION    g_csNetSocket;

// Of each of the two fields of a handshake, zero-filled after the text, without length.
constexpr int32_t HANDSHAKE_FIELD_BYTES = 10;

void OpenNetSocketLock();  // a peer was admitted: makes the lock if no earlier link has. Any thread, may be repeated.
void CloseNetSocketLock(); // the role ends: g_dwLinkGeneration grows, so that whoever belongs to the link is shut out

// Copies into g_szPW with strcpy_s: a text of 10 bytes or more leaves it empty and sets errno. Any thread.
void SetPassword(const char *pszPassword);
void GetPassword(char (&szPassword)[10]);

// Grows by one whenever a role that had started is torn down, whenever a role's start puts an end to what an earlier
// one left, and when a listener finds its link broken; never 0. A walk, a transfer or a listener remembers the number
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

// Takes the socket out of its global and closes it, once, whoever calls. True when this call closed it.
bool CloseLinkSocket(std::atomic<platform::SOCKET> *pSocket);
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
// Waits until nobody reads from or writes to the sockets of a link that has ended, at most some seconds for the reader:
// only then may a new socket be given the number of an old one. Not under the role lock, not on a listener.
void AwaitFormerLink();

// One WSAStartup for a role: a flag that is set already means that an earlier start is still to be undone, which
// happens here.
void BeginWinsock(std::atomic<uint8_t> *pbStarted);
void EndWinsock(std::atomic<uint8_t> *pbStarted);

// Puts every variable above back as it was at process start. Tests only, with no role and no listener running.
void ResetNetworkLink();
