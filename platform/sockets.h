// sockets.h: Winsock 2 over IPv4: TCP. (UDP, for the tool that uses it: datagrams.h.)
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

constexpr int32_t AF_INET = 2, SOCK_STREAM = 1, IPPROTO_TCP = 6, AI_PASSIVE = 1;
constexpr int32_t SOL_SOCKET = 0xFFFF, SO_SNDTIMEO = 0x1005, SO_RCVTIMEO = 0x1006;
constexpr int32_t SOMAXCONN   = 0x7FFFFFFF;
constexpr int32_t TCP_NODELAY = 1;
constexpr int32_t SD_BOTH     = 2;

constexpr int32_t WSAEINTR = 10004, WSAEACCES = 10013, WSAEINVAL = 10022, WSAEMFILE = 10024, WSAEWOULDBLOCK = 10035,
                  WSAENOTSOCK = 10038, WSAEADDRINUSE = 10048, WSAEADDRNOTAVAIL = 10049, WSAENETUNREACH = 10051,
                  WSAECONNABORTED = 10053, WSAECONNRESET = 10054, WSAENOBUFS = 10055, WSAENOTCONN = 10057,
                  WSAESHUTDOWN = 10058, WSAETIMEDOUT = 10060, WSAECONNREFUSED = 10061, WSAEHOSTUNREACH = 10065,
                  WSANOTINITIALISED = 10093, WSAEDISCON = 10101, WSAHOST_NOT_FOUND = 11001, WSATYPE_NOT_FOUND = 10109;

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

int32_t closesocket(SOCKET s);

// Round one exchange of several sends, so that it leaves in as few segments as TCP can make of it: after the hold,
// sends may be gathered in the backend (in bounded memory, sent on whenever the gathering is full); the flush sends
// what remains and ends the hold. A send that failed behind the scenes is reported by a later send or by the flush:
// 0, or SOCKET_ERROR with WSAGetLastError. Holds do not nest; the caller owns the sending side meanwhile.
void    HoldSends(SOCKET s);
int32_t FlushSends(SOCKET s);
// True when receives of cb bytes altogether would not wait. False, too, when it cannot be said: the next receive tells.
BOOL CanReceive(SOCKET s, uint32_t cb);

} // namespace platform
