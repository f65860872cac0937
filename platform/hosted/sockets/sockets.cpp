// sockets.cpp: making, naming, connecting and setting up sockets.
// Two defaults of Linux are turned into Windows': a listening port may be taken again while old connections of it wait
// out their time, but never while another socket is bound to it; and send/receive time-outs act on neither connect nor
// accept.
#include "platform/hosted/sockets/socket_table.h"
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#undef htons
#undef ntohs

namespace {

using hosted::Connection;
using hosted::FailWith;
using hosted::WinsockErrorFromErrno;

void AllowAddressReuse(int fd)
{
    const int bOn = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &bOn, sizeof(bOn));
}

bool HasRoom(const platform::sockaddr *pName, const int32_t *pcbName)
{
    if (pName != nullptr && pcbName != nullptr && *pcbName >= static_cast<int32_t>(sizeof(::sockaddr_in))) return true;
    FailWith(hosted::WSAEFAULT);
    return false;
}

// A connect that a signal interrupted goes on by itself; 0 or an errno when it has ended.
int FinishConnect(int fd)
{
    pollfd    wait   = {fd, POLLOUT, 0};
    int       nErrno = 0;
    socklen_t cb     = sizeof(nErrno);
    while (::poll(&wait, 1, -1) < 0) {
        if (errno != EINTR) return errno;
    }
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &nErrno, &cb) == 0 ? nErrno : errno;
}

// Errors of accept(2) that belong to a connection which ended before it was taken; the listening socket is well.
bool IsLostBeforeAccept(int nErrno)
{
    switch (nErrno) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case ENETUNREACH: return true;
    default: return false;
    }
}

} // namespace

namespace platform {

uint16_t htons(uint16_t nHost)
{
    return static_cast<uint16_t>(nHost << 8 | nHost >> 8);
}

uint16_t ntohs(uint16_t nNet)
{
    return static_cast<uint16_t>(nNet << 8 | nNet >> 8);
}

SOCKET socket(int32_t nFamily, int32_t nType, int32_t nProtocol)
{
    int32_t nError = 0;
    if (!hosted::EnterWinsockCall("socket")) return INVALID_SOCKET;
    if (nFamily != AF_INET) nError = hosted::WSAEAFNOSUPPORT;
    else if (nType != hosted::WINSOCK_SOCK_STREAM && nType != hosted::WINSOCK_SOCK_DGRAM)
        nError = hosted::WSAESOCKTNOSUPPORT;
    const bool    bDatagram = nType == hosted::WINSOCK_SOCK_DGRAM;
    const int32_t nOnly     = bDatagram ? hosted::WINSOCK_IPPROTO_UDP : hosted::WINSOCK_IPPROTO_TCP;
    if (nError == 0 && nProtocol != 0 && nProtocol != nOnly) nError = hosted::WSAEPROTONOSUPPORT;
    const int fd = nError != 0 ? -1
                   : bDatagram ? hosted::OpenDatagramSocket()
                               : ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        FailWith(nError != 0 ? nError : WinsockErrorFromErrno(errno));
        return INVALID_SOCKET;
    }
    if (!bDatagram) hosted::ResetAtClose(fd, true); // accepted connections inherit it from their listener
    return hosted::AddConnection(std::make_shared<Connection>(fd, bDatagram));
}

int32_t bind(SOCKET s, const sockaddr *pName, int32_t cbName)
{
    const std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall("bind", s);
    sockaddr_in                       address     = {};
    if (pConnection == nullptr || !hosted::ReadAddress(pName, cbName, &address)) return SOCKET_ERROR;
    const auto *pAddress = reinterpret_cast<const ::sockaddr *>(&address);
    if (::bind(pConnection->fd, pAddress, sizeof(address)) != 0) {
        if (errno != EADDRINUSE || pConnection->bDatagram) return FailWith(WinsockErrorFromErrno(errno));
        // Only sockets that have the mark themselves (old connections, see listen and accept) make way for a second
        // try; one that is merely bound has none, and one that listens never makes way.
        AllowAddressReuse(pConnection->fd);
        if (::bind(pConnection->fd, pAddress, sizeof(address)) != 0) return FailWith(WinsockErrorFromErrno(errno));
    }
    pConnection->bNamed = true;
    return 0;
}

int32_t listen(SOCKET s, int32_t nBacklog)
{
    const std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall("listen", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    if (pConnection->bDatagram) return FailWith(hosted::WSAEOPNOTSUPP);
    if (pConnection->bConnected) return FailWith(hosted::WSAEISCONN);
    if (!pConnection->bNamed) return FailWith(WSAEINVAL);
    AllowAddressReuse(pConnection->fd); // accepted connections inherit it
    if (::listen(pConnection->fd, nBacklog) != 0) return FailWith(WinsockErrorFromErrno(errno));
    return 0;
}

SOCKET accept(SOCKET s, sockaddr *pAddr, int32_t *pcbAddr)
{
    const std::shared_ptr<Connection> pListener = hosted::EnterSocketCall("accept", s);
    if (pListener == nullptr) return INVALID_SOCKET;
    if ((pAddr != nullptr || pcbAddr != nullptr) && !HasRoom(pAddr, pcbAddr)) return INVALID_SOCKET;
    ::sockaddr_in address = {};
    socklen_t     cb      = sizeof(address);
    int           fd;
    do fd = ::accept4(pListener->fd, reinterpret_cast<::sockaddr *>(&address), &cb, SOCK_CLOEXEC);
    while (fd < 0 && !pListener->bClosed && IsLostBeforeAccept(errno));
    if (fd < 0 || pListener->bClosed) {
        FailWith(pListener->bClosed ? WSAEINTR : WinsockErrorFromErrno(errno));
        if (fd >= 0) ::close(fd);
        return INVALID_SOCKET;
    }
    auto pConnection           = std::make_shared<Connection>(fd);
    pConnection->bNamed        = true;
    pConnection->bConnected    = true;
    pConnection->dwSendTimeout = pListener->dwSendTimeout.load();
    pConnection->dwRecvTimeout = pListener->dwRecvTimeout.load();
    if (pAddr != nullptr) {
        std::memcpy(pAddr, &address, sizeof(address));
        *pcbAddr = sizeof(address);
    }
    return hosted::AddConnection(std::move(pConnection));
}

int32_t connect(SOCKET s, const sockaddr *pName, int32_t cbName)
{
    const std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall("connect", s);
    sockaddr_in                       address     = {};
    if (pConnection == nullptr || !hosted::ReadAddress(pName, cbName, &address)) return SOCKET_ERROR;
    if (pConnection->bConnected) return FailWith(hosted::WSAEISCONN);
    if (pConnection->bDatagram) return FailWith(hosted::WSAEOPNOTSUPP); // nothing here connects one
    if (address.sin_addr == 0 || address.sin_port == 0) return FailWith(WSAEADDRNOTAVAIL);
    AllowAddressReuse(pConnection->fd); // a port that this connection used is free for a listener when it has ended
    int nErrno =
        ::connect(pConnection->fd, reinterpret_cast<const ::sockaddr *>(&address), sizeof(address)) == 0 ? 0 : errno;
    if (nErrno == EINTR) nErrno = FinishConnect(pConnection->fd);
    if (pConnection->bClosed) return FailWith(WSAENOTSOCK);
    if (nErrno != 0) return FailWith(WinsockErrorFromErrno(nErrno));
    pConnection->bNamed     = true;
    pConnection->bConnected = true;
    return 0;
}

int32_t getsockname(SOCKET s, sockaddr *pName, int32_t *pcbName)
{
    const std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall("getsockname", s);
    if (pConnection == nullptr || !HasRoom(pName, pcbName)) return SOCKET_ERROR;
    if (!pConnection->bNamed) return FailWith(WSAEINVAL);
    ::sockaddr_in address = {};
    socklen_t     cb      = sizeof(address);
    if (::getsockname(pConnection->fd, reinterpret_cast<::sockaddr *>(&address), &cb) != 0)
        return FailWith(WinsockErrorFromErrno(errno));
    std::memcpy(pName, &address, sizeof(address));
    *pcbName = sizeof(address);
    return 0;
}

int32_t setsockopt(SOCKET s, int32_t nLevel, int32_t nOption, const char *pValue, int32_t cbValue)
{
    const std::shared_ptr<Connection> pConnection = hosted::EnterSocketCall("setsockopt", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    const bool bTimeout = nLevel == hosted::WINSOCK_SOL_SOCKET && nOption == hosted::WINSOCK_SO_RCVTIMEO;
    if (pConnection->bDatagram && !bTimeout)
        return hosted::SetDatagramOption(*pConnection, nLevel, nOption, pValue, cbValue);
    uint32_t dwValue = 0;
    if (pValue == nullptr || cbValue != static_cast<int32_t>(sizeof(dwValue))) return FailWith(hosted::WSAEFAULT);
    std::memcpy(&dwValue, pValue, sizeof(dwValue));
    if (nLevel == hosted::WINSOCK_SOL_SOCKET && nOption == hosted::WINSOCK_SO_SNDTIMEO) {
        pConnection->dwSendTimeout = dwValue;
        return 0;
    }
    if (bTimeout) {
        pConnection->dwRecvTimeout = dwValue;
        return 0;
    }
    if (nLevel == hosted::WINSOCK_IPPROTO_TCP && nOption == hosted::WINSOCK_TCP_NODELAY) {
        const int bOn = dwValue != 0;
        if (::setsockopt(pConnection->fd, IPPROTO_TCP, TCP_NODELAY, &bOn, sizeof(bOn)) == 0) return 0;
        return FailWith(WinsockErrorFromErrno(errno));
    }
    return FailWith(hosted::WSAENOPROTOOPT);
}

} // namespace platform
