// datagrams.h: UDP with multicast over IPv4, and the addresses of this machine, for the discovery tool: nothing in the
// product includes this.
// Errors, threads  as in sockets.h, whose socket, bind, setsockopt and closesocket serve these sockets too.
#pragma once
#include "platform/sockets.h"

namespace platform {

constexpr int32_t SOCK_DGRAM = 2, IPPROTO_IP = 0, IPPROTO_UDP = 17, SO_REUSEADDR = 4;
constexpr int32_t IP_MULTICAST_IF = 9, IP_MULTICAST_TTL = 10, IP_ADD_MEMBERSHIP = 12, IP_DROP_MEMBERSHIP = 13;
constexpr int32_t WSAEMSGSIZE = 10040;
constexpr int16_t POLLIN      = 0x300; // POLLRDNORM and POLLRDBAND

struct ip_mreq {
    uint32_t imr_multiaddr; // both in network byte order
    uint32_t imr_interface; // an address of the interface
};
struct WSAPOLLFD {
    SOCKET  fd;
    int16_t events, revents;
};

// The options are SO_REUSEADDR (before bind: other sockets that have it may be bound to the same port, those
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

} // namespace platform
