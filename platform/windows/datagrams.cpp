// datagrams.cpp: UDP, multicast and the address table, forwarded.
#include "platform/datagrams.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(SOCK_DGRAM) X(IPPROTO_IP) X(IPPROTO_UDP) X(SO_REUSEADDR) X(IP_MULTICAST_IF) X(IP_MULTICAST_TTL)                  \
    X(IP_ADD_MEMBERSHIP) X(IP_DROP_MEMBERSHIP) X(POLLIN) X(WSAEMSGSIZE) X(MIB_IPADDR_DISCONNECTED)                     \
    X(MIB_IPADDR_DELETED) X(MIB_IPADDR_TRANSIENT)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include <iphlpapi.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
MIRROR_SIZE(ip_mreq)
MIRROR_FIELD(ip_mreq, imr_multiaddr)
MIRROR_FIELD(ip_mreq, imr_interface)
MIRROR_SIZE(WSAPOLLFD)
MIRROR_FIELD(WSAPOLLFD, fd)
MIRROR_FIELD(WSAPOLLFD, events)
MIRROR_FIELD(WSAPOLLFD, revents)
MIRROR_SIZE(MIB_IPADDRROW)
MIRROR_FIELD(MIB_IPADDRROW, dwAddr)
MIRROR_FIELD(MIB_IPADDRROW, dwIndex)
MIRROR_FIELD(MIB_IPADDRROW, dwMask)
MIRROR_FIELD(MIB_IPADDRROW, wType)
static_assert(offsetof(platform::MIB_IPADDRTABLE, table) == offsetof(::MIB_IPADDRTABLE, table));
} // namespace mirror

namespace platform {

int32_t sendto(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags, const sockaddr *pTo, int32_t cbTo)
{
    return ::sendto(s, pBuffer, cb, nFlags, reinterpret_cast<const ::sockaddr *>(pTo), cbTo);
}

int32_t recvfrom(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags, sockaddr *pFrom, int32_t *pcbFrom)
{
    return ::recvfrom(s, pBuffer, cb, nFlags, reinterpret_cast<::sockaddr *>(pFrom), pcbFrom);
}

int32_t WSAPoll(WSAPOLLFD *pSockets, uint32_t nCount, int32_t nTimeoutMs)
{
    return ::WSAPoll(reinterpret_cast<::WSAPOLLFD *>(pSockets), nCount, nTimeoutMs);
}

uint32_t GetIpAddrTable(MIB_IPADDRTABLE *pTable, uint32_t *pcb, BOOL bOrder)
{
    return ::GetIpAddrTable(reinterpret_cast<::MIB_IPADDRTABLE *>(pTable), reinterpret_cast<::PULONG>(pcb), bOrder);
}

} // namespace platform
