// socket_table.h: the open sockets of this process and what the calls on them share.
// Include before any system header that defines socket names: several of them are macros there.
// Life     a Connection is in the table from socket/accept to closesocket; its descriptor is closed when the last call
//          that uses it has left, so that a descriptor number is never reused under a blocked thread.
// Locks    Connection::csSend, csRecv: one each for the two directions, held while a call blocks. Nothing that ends a
//          socket waits for them. The table's own lock is inside socket_table.cpp and held for look-ups only.
#pragma once
#include "platform/datagrams.h"
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace hosted {

// Winsock's numbers, under names that no system header has a macro for.
constexpr int32_t WINSOCK_SOL_SOCKET = platform::SOL_SOCKET, WINSOCK_SO_SNDTIMEO = platform::SO_SNDTIMEO,
                  WINSOCK_SO_RCVTIMEO = platform::SO_RCVTIMEO, WINSOCK_IPPROTO_TCP = platform::IPPROTO_TCP,
                  WINSOCK_TCP_NODELAY = platform::TCP_NODELAY, WINSOCK_SO_REUSEADDR = platform::SO_REUSEADDR,
                  WINSOCK_IPPROTO_IP = platform::IPPROTO_IP, WINSOCK_IPPROTO_UDP = platform::IPPROTO_UDP,
                  WINSOCK_SOCK_STREAM = platform::SOCK_STREAM, WINSOCK_SOCK_DGRAM = platform::SOCK_DGRAM,
                  WINSOCK_IP_MULTICAST_IF    = platform::IP_MULTICAST_IF,
                  WINSOCK_IP_MULTICAST_TTL   = platform::IP_MULTICAST_TTL,
                  WINSOCK_IP_ADD_MEMBERSHIP  = platform::IP_ADD_MEMBERSHIP,
                  WINSOCK_IP_DROP_MEMBERSHIP = platform::IP_DROP_MEMBERSHIP;
constexpr int16_t WINSOCK_POLLIN = platform::POLLIN, WINSOCK_POLLERR = 1, WINSOCK_POLLNVAL = 4;
constexpr int32_t WSAEFAULT = 10014, WSAEALREADY = 10037, WSAENOPROTOOPT = 10042, WSAEPROTONOSUPPORT = 10043,
                  WSAESOCKTNOSUPPORT = 10044, WSAEOPNOTSUPP = 10045, WSAEAFNOSUPPORT = 10047, WSAENETDOWN = 10050,
                  WSAEISCONN = 10056, WSAEHOSTDOWN = 10064, WSAVERNOTSUPPORTED = 10092;

constexpr size_t SEND_HOLD_BYTES  = 16 * 1024; // what a hold gathers before it sends on: the peer works meanwhile
constexpr size_t RECV_AHEAD_BYTES = 64 * 1024; // what one real receive may take for the receives to come
constexpr int    SHUT_FOR_RECV = 1, SHUT_FOR_SEND = 2;

struct Connection {
    explicit Connection(int nDescriptor, bool bIsDatagram = false) : fd(nDescriptor), bDatagram(bIsDatagram) {}
    ~Connection();
    Connection(const Connection &)            = delete;
    Connection &operator=(const Connection &) = delete;

    const int fd;
    // UDP: none of what follows but bClosed, bNamed and dwRecvTimeout concerns it
    const bool            bDatagram;
    std::atomic<bool>     bClosed{false};    // taken out of the table
    std::atomic<bool>     bCut{false};       // broken by CutLinkAfter
    std::atomic<bool>     bNamed{false};     // has a local address
    std::atomic<bool>     bConnected{false}; // by connect or accept, and not undone
    std::atomic<int>      nShut{0};          // SHUT_FOR_..., by this side
    std::atomic<uint32_t> dwSendTimeout{0};  // as set, in milliseconds; 0 waits for ever
    std::atomic<uint32_t> dwRecvTimeout{0};

    std::mutex              csSend; // guards the next five
    std::unique_ptr<char[]> pHeld;  // SEND_HOLD_BYTES, from the first held send on
    size_t                  cbHeld          = 0;
    bool                    bHolding        = false;
    int32_t                 nHeldError      = 0; // why gathered bytes were lost; until the flush
    int64_t                 nSendTimeoutSet = 0; // what the descriptor has, in microseconds

    std::mutex              csRecv;                  // guards the next five
    std::unique_ptr<char[]> pAhead;                  // RECV_AHEAD_BYTES, from the first receive on
    size_t                  iAhead = 0, cbAhead = 0; // what is left of it: [iAhead, cbAhead)
    int64_t                 nRecvTimeoutSet = 0;
    int                     nSleepsDue      = 0; // receives that sleep at once, since looking again was in vain
};

// The start of every call on a socket: counts it, then null with the error set when it must fail, when Winsock is not
// started, or when s is no open socket.
std::shared_ptr<Connection> EnterSocketCall(const char *pszCall, platform::SOCKET s);
// The same without a socket: false with the error set.
bool EnterWinsockCall(const char *pszCall);
// Winsock's datagram socket of this process (datagrams.cpp); -1 with errno set.
int OpenDatagramSocket();
// An option of a datagram socket: 0, or SOCKET_ERROR with the error set.
int32_t SetDatagramOption(Connection &connection, int32_t nLevel, int32_t nOption, const char *pValue, int32_t cbValue);
// True with *pInner filled, or false with the error set; the two systems lay the address out alike.
bool ReadAddress(const platform::sockaddr *pName, int32_t cbName, platform::sockaddr_in *pInner);
// INVALID_SOCKET with WSAEMFILE when the table is full (the connection is then dropped).
platform::SOCKET                         AddConnection(std::shared_ptr<Connection> pConnection);
std::vector<std::shared_ptr<Connection>> AllConnections();

int32_t WinsockErrorFromErrno(int nErrno);
// Sets the thread's error; the result is SOCKET_ERROR, for a caller's return.
int32_t FailWith(int32_t nWinsockError);
// A process that dies must break its connections with a reset, as on Windows, where an orderly close would leave the
// peer waiting for ever: asked for when a socket is made, taken back by closesocket.
void ResetAtClose(int fd, bool bReset);

// Sends on what a hold has gathered as far as that needs no waiting, for a socket that is about to end.
void PushHeldBytes(Connection &connection);

// ---- pretended link trouble (link_faults.cpp) ----
// The microseconds that a time-out of so many milliseconds lasts in reality; 0 waits for ever.
int64_t RealSocketTimeout(uint32_t dwMilliseconds);
// One send(2) on a connected socket, after the pretended delay and within what may pass before the pretended cut.
// Result: bytes sent, or -1 with errno set; ECONNRESET after a cut.
int64_t SendOnLink(Connection &connection, const char *pBuffer, size_t cb, int nFlags);
// Breaks one connection as a lost link does. Repeat it when a call that was blocked on the connection has returned: a
// descriptor with a waiting thread may refuse.
void BreakConnection(Connection &connection);

} // namespace hosted
