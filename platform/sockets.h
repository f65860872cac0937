// sockets.h: Winsock 2 over IPv4: TCP, UDP with multicast, and the addresses of this machine.
// They are real on every backend: what a socket does goes over the network that the process has, whatever adapters a
// hosted machine says it has (adapters.h).
// Errors   SOCKET_ERROR or INVALID_SOCKET, and WSAGetLastError of the calling thread gives a WSAE code: a receive
//          time-out is WSAETIMEDOUT, a socket closed by another thread WSAENOTSOCK (a blocked call returns at once).
// Threads  one receiver and one sender at a time per socket; any thread may close it.
#pragma once
#include "platform/types.h"

namespace platform {

constexpr SOCKET  INVALID_SOCKET = ~static_cast<SOCKET>(0);
constexpr int32_t SOCKET_ERROR   = -1;

constexpr int32_t AF_INET = 2, SOCK_STREAM = 1, SOCK_DGRAM = 2, IPPROTO_IP = 0, IPPROTO_TCP = 6, IPPROTO_UDP = 17,
                  AI_PASSIVE = 1;
constexpr int32_t SOL_SOCKET = 0xFFFF, SO_SNDTIMEO = 0x1005, SO_RCVTIMEO = 0x1006, SO_REUSEADDR = 4;
constexpr int32_t SOMAXCONN       = 0x7FFFFFFF;
constexpr int32_t TCP_NODELAY     = 1;
constexpr int32_t SD_BOTH         = 2;
constexpr int32_t IP_MULTICAST_IF = 9, IP_MULTICAST_TTL = 10, IP_ADD_MEMBERSHIP = 12, IP_DROP_MEMBERSHIP = 13;
constexpr int16_t POLLIN = 0x300; // POLLRDNORM and POLLRDBAND

constexpr int32_t WSAEINTR = 10004, WSAEACCES = 10013, WSAEINVAL = 10022, WSAEMFILE = 10024, WSAEWOULDBLOCK = 10035,
                  WSAENOTSOCK = 10038, WSAEMSGSIZE = 10040, WSAEADDRINUSE = 10048, WSAEADDRNOTAVAIL = 10049,
                  WSAENETUNREACH = 10051, WSAECONNABORTED = 10053, WSAECONNRESET = 10054, WSAENOBUFS = 10055,
                  WSAENOTCONN = 10057, WSAESHUTDOWN = 10058, WSAETIMEDOUT = 10060, WSAECONNREFUSED = 10061,
                  WSAEHOSTUNREACH = 10065, WSANOTINITIALISED = 10093, WSAEDISCON = 10101, WSAHOST_NOT_FOUND = 11001,
                  WSATYPE_NOT_FOUND = 10109;

struct WSADATA {
    unsigned char aStorage[408];
};

struct sockaddr {
    uint16_t sa_family;
    char     sa_data[14];
};
struct sockaddr_in {
    uint16_t sin_family;
    uint16_t sin_port; // network byte order
    uint32_t sin_addr; // network byte order
    char     sin_zero[8];
};
struct ip_mreq {
    uint32_t imr_multiaddr; // both in network byte order
    uint32_t imr_interface; // an address of the interface
};
struct WSAPOLLFD {
    SOCKET  fd;
    int16_t events, revents;
};
static_assert(sizeof(sockaddr) == 16 && sizeof(sockaddr_in) == 16, "the SDK's sizes");

struct addrinfo {
    int32_t   ai_flags;
    int32_t   ai_family;
    int32_t   ai_socktype;
    int32_t   ai_protocol;
    size_t    ai_addrlen;
    char     *ai_canonname;
    sockaddr *ai_addr;
    addrinfo *ai_next;
};

int32_t  WSAStartup(uint16_t wVersionRequested, WSADATA *pData); // 0, or the error itself; counted, as on Windows
int32_t  WSACleanup();
int32_t  WSAGetLastError();
void     WSASetLastError(int32_t nError);
uint16_t ntohs(uint16_t nNet);
uint16_t htons(uint16_t nHost);

int32_t getaddrinfo(const char *pszNode, const char *pszService, const addrinfo *pHints, addrinfo **ppResult);
void    freeaddrinfo(addrinfo *pResult);
SOCKET  socket(int32_t nFamily, int32_t nType, int32_t nProtocol);
int32_t bind(SOCKET s, const sockaddr *pName, int32_t cbName);
int32_t listen(SOCKET s, int32_t nBacklog);
SOCKET  accept(SOCKET s, sockaddr *pAddr, int32_t *pcbAddr);
int32_t connect(SOCKET s, const sockaddr *pName, int32_t cbName);
int32_t getsockname(SOCKET s, sockaddr *pName, int32_t *pcbName);
int32_t setsockopt(SOCKET s, int32_t nLevel, int32_t nOption, const char *pValue, int32_t cbValue);
int32_t send(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags); // nFlags 0
int32_t recv(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags);       // nFlags 0; 0 after an orderly close
int32_t shutdown(SOCKET s, int32_t nHow);

// Datagrams. The options are SO_REUSEADDR (before bind: other sockets that have it may be bound to the same port, those
// of other programs too; each gets a copy of a multicast, one of them a unicast, nobody can say which), IP_MULTICAST_IF
// (the interface that multicasts leave by, named by an address of it), IP_MULTICAST_TTL, IP_ADD_MEMBERSHIP and
// IP_DROP_MEMBERSHIP (ip_mreq). A multicast comes back to members on this machine.
// A socket gets the multicasts that arrive where it is a member, and may get those of the other interfaces too (Wine).
// recvfrom: bytes received; WSAEMSGSIZE when the datagram was longer than the buffer, which then holds its beginning;
// WSAECONNRESET when an earlier datagram met a closed port: the socket is well. nFlags 0.
int32_t sendto(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags, const sockaddr *pTo, int32_t cbTo);
int32_t recvfrom(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags, sockaddr *pFrom, int32_t *pcbFrom);
// Waits until one of nCount (1 to 64) UDP sockets has something to receive: how many, their revents set; 0 after the
// time-out. A revents other than POLLIN is a broken socket.
int32_t WSAPoll(WSAPOLLFD *pSockets, uint32_t nCount, int32_t nTimeoutMs);

// IP Helper: the IPv4 addresses that sockets of this process can use, one row each.
constexpr uint16_t MIB_IPADDR_DISCONNECTED = 0x08, MIB_IPADDR_DELETED = 0x40, MIB_IPADDR_TRANSIENT = 0x80;
struct MIB_IPADDRROW {
    uint32_t dwAddr;  // network byte order, as the next two
    uint32_t dwIndex; // of the interface
    uint32_t dwMask;
    uint32_t dwBCastAddr;
    uint32_t dwReasmSize;
    uint16_t unused1;
    uint16_t wType; // MIB_IPADDR_...
};
struct MIB_IPADDRTABLE {
    uint32_t      dwNumEntries;
    MIB_IPADDRROW table[1];
};
// 0, ERROR_INSUFFICIENT_BUFFER with the size wanted in *pcb, or another error code. bOrder sorts by address.
uint32_t GetIpAddrTable(MIB_IPADDRTABLE *pTable, uint32_t *pcb, BOOL bOrder);

int32_t closesocket(SOCKET s);

// Round one exchange of several sends, so that it leaves in as few segments as TCP can make of it: after the hold,
// sends may be gathered in the backend (in bounded memory, sent on whenever the gathering is full); the flush sends
// what remains and ends the hold. A send that failed behind the scenes is reported by a later send or by the flush:
// 0, or SOCKET_ERROR with WSAGetLastError. Holds do not nest; the caller owns the sending side meanwhile.
void    HoldSends(SOCKET s);
int32_t FlushSends(SOCKET s);

} // namespace platform
