// datagrams.cpp: UDP sockets, multicast and the address table, over the host's network.
// Linux gives a bound socket the multicasts of every membership on the host; Winsock those of its own alone.
#include "platform/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/sockets/socket_table.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>
#undef POLLIN

namespace {

using hosted::Connection;
using hosted::FailWith;
using hosted::WinsockErrorFromErrno;

constexpr uint32_t MAX_POLLED        = 64;
constexpr int16_t  HOST_POLLIN       = 1;
constexpr uint32_t REASSEMBLED_BYTES = 65535;
// The numbers of the host's interfaces begin here: those of the adapters that a machine says it has are small, and name
// others.
constexpr uint32_t REAL_INTERFACES = 0x10000;
static_assert(sizeof(::sockaddr_in) == sizeof(platform::sockaddr_in) && sizeof(::ip_mreq) == sizeof(platform::ip_mreq));

// The datagram socket s, or null with the error set.
std::shared_ptr<Connection> EnterDatagramCall(const char *pszCall, platform::SOCKET s)
{
    std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall(pszCall, s);
    if (pConnection == nullptr || pConnection->bDatagram) return pConnection;
    FailWith(hosted::WSAEOPNOTSUPP);
    return nullptr;
}

int32_t SetHostOption(const Connection &connection, int nLevel, int nOption, const void *pValue, size_t cb)
{
    if (::setsockopt(connection.fd, nLevel, nOption, pValue, static_cast<socklen_t>(cb)) == 0) return 0;
    return FailWith(errno == ENODEV ? platform::WSAEADDRNOTAVAIL : WinsockErrorFromErrno(errno));
}

std::vector<platform::MIB_IPADDRROW> HostAddresses()
{
    std::vector<platform::MIB_IPADDRROW> aRows;
    ::ifaddrs                           *pFirst = nullptr;
    if (::getifaddrs(&pFirst) != 0) return aRows;
    for (const ::ifaddrs *p = pFirst; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || p->ifa_netmask == nullptr || p->ifa_addr->sa_family != AF_INET) continue;
        platform::MIB_IPADDRROW row = {};
        row.dwAddr                  = reinterpret_cast<const ::sockaddr_in *>(p->ifa_addr)->sin_addr.s_addr;
        row.dwMask                  = reinterpret_cast<const ::sockaddr_in *>(p->ifa_netmask)->sin_addr.s_addr;
        row.dwIndex                 = ::if_nametoindex(p->ifa_name);
        if (row.dwIndex != 0) row.dwIndex += REAL_INTERFACES;
        row.dwBCastAddr = 1; // as on Windows: the host part is all ones
        row.dwReasmSize = REASSEMBLED_BYTES;
        const bool bUp  = (p->ifa_flags & (IFF_UP | IFF_RUNNING)) == (IFF_UP | IFF_RUNNING);
        row.wType       = bUp ? 0 : platform::MIB_IPADDR_DISCONNECTED;
        if (row.dwIndex != 0) aRows.push_back(row);
    }
    ::freeifaddrs(pFirst);
    return aRows;
}

} // namespace

namespace hosted {

bool ReadAddress(const platform::sockaddr *pName, int32_t cbName, platform::sockaddr_in *pInner)
{
    if (pName == nullptr || cbName < static_cast<int32_t>(sizeof(*pInner))) {
        FailWith(hosted::WSAEFAULT);
        return false;
    }
    std::memcpy(pInner, pName, sizeof(*pInner));
    if (pInner->sin_family == AF_INET) return true;
    FailWith(hosted::WSAEAFNOSUPPORT);
    return false;
}

int OpenDatagramSocket()
{
    const int fd   = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    const int nOff = 0;
    if (fd >= 0) ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &nOff, sizeof(nOff));
    return fd;
}

int32_t SetDatagramOption(Connection &connection, int32_t nLevel, int32_t nOption, const char *pValue, int32_t cbValue)
{
    const bool bMember =
        nLevel == WINSOCK_IPPROTO_IP && (nOption == WINSOCK_IP_ADD_MEMBERSHIP || nOption == WINSOCK_IP_DROP_MEMBERSHIP);
    const size_t cb = bMember ? sizeof(::ip_mreq) : sizeof(uint32_t);
    if (pValue == nullptr || cbValue < static_cast<int32_t>(cb)) return FailWith(WSAEFAULT);
    if (bMember) {
        ::ip_mreq request = {};
        std::memcpy(&request, pValue, sizeof(request));
        const bool bAdd = nOption == WINSOCK_IP_ADD_MEMBERSHIP;
        return SetHostOption(connection, IPPROTO_IP, bAdd ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &request,
                             sizeof(request));
    }
    uint32_t dwValue = 0;
    std::memcpy(&dwValue, pValue, sizeof(dwValue));
    if (nLevel == WINSOCK_SOL_SOCKET && nOption == WINSOCK_SO_REUSEADDR) {
        const int bOn = dwValue != 0;
        return SetHostOption(connection, SOL_SOCKET, SO_REUSEADDR, &bOn, sizeof(bOn));
    }
    if (nLevel == WINSOCK_IPPROTO_IP && nOption == WINSOCK_IP_MULTICAST_TTL) {
        const int nHops = static_cast<int>(dwValue);
        return SetHostOption(connection, IPPROTO_IP, IP_MULTICAST_TTL, &nHops, sizeof(nHops));
    }
    if (nLevel == WINSOCK_IPPROTO_IP && nOption == WINSOCK_IP_MULTICAST_IF) {
        const ::in_addr address = {dwValue};
        return SetHostOption(connection, IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof(address));
    }
    return FailWith(WSAENOPROTOOPT);
}

} // namespace hosted

namespace platform {

int32_t sendto(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags, const sockaddr *pTo, int32_t cbTo)
{
    const std::shared_ptr<Connection> pConnection = EnterDatagramCall("sendto", s);
    sockaddr_in                       to          = {};
    if (pConnection == nullptr || !hosted::ReadAddress(pTo, cbTo, &to)) return SOCKET_ERROR;
    if (nFlags != 0) return FailWith(hosted::WSAEOPNOTSUPP);
    if (cb < 0 || (pBuffer == nullptr && cb > 0)) return FailWith(hosted::WSAEFAULT);
    for (;;) {
        const ssize_t n = ::sendto(pConnection->fd, pBuffer, static_cast<size_t>(cb), 0,
                                   reinterpret_cast<const ::sockaddr *>(&to), sizeof(to));
        if (n >= 0) {
            pConnection->bNamed = true;
            return static_cast<int32_t>(n);
        }
        if (errno != EINTR) return FailWith(WinsockErrorFromErrno(errno));
    }
}

int32_t recvfrom(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags, sockaddr *pFrom, int32_t *pcbFrom)
{
    const std::shared_ptr<Connection> pConnection = EnterDatagramCall("recvfrom", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    if (nFlags != 0) return FailWith(hosted::WSAEOPNOTSUPP);
    const bool bRoom =
        pFrom == nullptr || (pcbFrom != nullptr && *pcbFrom >= static_cast<int32_t>(sizeof(sockaddr_in)));
    if (cb < 0 || (pBuffer == nullptr && cb > 0) || !bRoom) return FailWith(hosted::WSAEFAULT);
    if (!pConnection->bNamed) return FailWith(WSAEINVAL);
    std::lock_guard<std::mutex> lock(pConnection->csRecv);
    const int64_t               nWanted = hosted::RealSocketTimeout(pConnection->dwRecvTimeout);
    if (nWanted != pConnection->nRecvTimeoutSet) {
        const timeval value = {static_cast<time_t>(nWanted / 1000000), static_cast<suseconds_t>(nWanted % 1000000)};
        if (::setsockopt(pConnection->fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof(value)) == 0)
            pConnection->nRecvTimeoutSet = nWanted;
    }
    ::sockaddr_in from   = {};
    socklen_t     cbFrom = sizeof(from);
    ssize_t       n;
    do
        n = ::recvfrom(pConnection->fd, pBuffer, static_cast<size_t>(cb), MSG_TRUNC,
                       reinterpret_cast<::sockaddr *>(&from), &cbFrom);
    while (n < 0 && errno == EINTR && !pConnection->bClosed);
    if (pConnection->bClosed) return FailWith(WSAENOTSOCK);
    if (n < 0) return FailWith(errno == ECONNREFUSED ? WSAECONNRESET : WinsockErrorFromErrno(errno));
    if (pFrom != nullptr) {
        std::memcpy(pFrom, &from, sizeof(from));
        *pcbFrom = sizeof(from);
    }
    return n > cb ? FailWith(WSAEMSGSIZE) : static_cast<int32_t>(n);
}

int32_t WSAPoll(WSAPOLLFD *pSockets, uint32_t nCount, int32_t nTimeoutMs)
{
    if (!hosted::EnterWinsockCall("WSAPoll")) return SOCKET_ERROR;
    if (pSockets == nullptr || nCount == 0 || nCount > MAX_POLLED) return FailWith(WSAEINVAL);
    std::vector<std::shared_ptr<Connection>> aConnections(nCount);
    std::vector<::pollfd>                    aWaits(nCount);
    int32_t                                  nBroken = 0;
    for (uint32_t i = 0; i < nCount; i++) {
        if (pSockets[i].events != hosted::WINSOCK_POLLIN) return FailWith(WSAEINVAL);
        aConnections[i]     = EnterDatagramCall("WSAPoll", pSockets[i].fd);
        aWaits[i]           = {aConnections[i] != nullptr ? aConnections[i]->fd : -1, HOST_POLLIN, 0};
        pSockets[i].revents = aConnections[i] != nullptr ? int16_t{0} : hosted::WINSOCK_POLLNVAL;
        nBroken += aConnections[i] == nullptr;
    }
    // the wait is a real one at every rate of the clock: it is for packets, which have none
    const int n = ::poll(aWaits.data(), nCount, nBroken != 0 ? 0 : nTimeoutMs);
    if (n < 0 && errno != EINTR) return FailWith(WinsockErrorFromErrno(errno));
    int32_t nReady = nBroken;
    for (uint32_t i = 0; n > 0 && i < nCount; i++) {
        if (aConnections[i] == nullptr || aWaits[i].revents == 0) continue;
        pSockets[i].revents = (aWaits[i].revents & HOST_POLLIN) != 0 ? int16_t{0x100} : hosted::WINSOCK_POLLERR;
        nReady++;
    }
    return nReady;
}

uint32_t GetIpAddrTable(MIB_IPADDRTABLE *pTable, uint32_t *pcb, BOOL bOrder)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("GetIpAddrTable", &dwError)) return dwError;
    if (pcb == nullptr) return ERROR_INVALID_PARAMETER;
    std::vector<MIB_IPADDRROW> aRows    = HostAddresses();
    const auto                 cbWanted = static_cast<uint32_t>(offsetof(MIB_IPADDRTABLE, table) +
                                                std::max<size_t>(aRows.size(), 1) * sizeof(MIB_IPADDRROW));
    if (pTable == nullptr || *pcb < cbWanted) {
        *pcb = cbWanted;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    if (bOrder != 0) {
        std::sort(aRows.begin(), aRows.end(), [](const MIB_IPADDRROW &a, const MIB_IPADDRROW &b) {
            return std::memcmp(&a.dwAddr, &b.dwAddr, sizeof(a.dwAddr)) < 0;
        });
    }
    pTable->dwNumEntries = static_cast<uint32_t>(aRows.size());
    std::copy(aRows.begin(), aRows.end(), pTable->table);
    return ERROR_SUCCESS;
}

} // namespace platform
