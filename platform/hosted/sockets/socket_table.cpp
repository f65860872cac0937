// socket_table.cpp: the table of sockets, Winsock's start and errors, and the two ways a socket ends.
// A SOCKET names a slot and the slot's generation, so that a value kept after closesocket never reaches a later socket,
// unless ReuseSocketValues asks for that.
// Differences from Windows: a receive or send that another thread's closesocket ends gives WSAENOTSOCK at once, where
// Windows gives that or WSAEINTR or WSAECONNABORTED by the moment; a blocked accept gives WSAEINTR, as there.
#include "platform/hosted/sockets/socket_table.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/tool_seam.h"
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t   MAX_SOCKETS      = 16384;
constexpr unsigned SLOT_SHIFT       = 2; // socket values are multiples of 4, as on Windows
constexpr unsigned GENERATION_SHIFT = 32;

std::atomic<bool>          g_bReuseValues{false};
const hosted::OnUseMachine g_Reset([] { g_bReuseValues = false; });

struct Slot {
    uint32_t                            nGeneration = 1;
    std::shared_ptr<hosted::Connection> pConnection;
};
struct SocketTable {
    std::mutex          csTable;
    std::vector<Slot>   aSlots;
    std::vector<size_t> aFree;
};

SocketTable &Table()
{
    static auto &table = *new SocketTable;
    return table;
}

Slot *SlotOf(SocketTable &table, platform::SOCKET s)
{
    const uint64_t iSlot = ((s & 0xFFFFFFFF) >> SLOT_SHIFT) - 1;
    if (iSlot >= table.aSlots.size()) return nullptr;
    Slot &slot = table.aSlots[iSlot];
    if (slot.pConnection == nullptr || s != (static_cast<uint64_t>(slot.nGeneration) << GENERATION_SHIFT |
                                             static_cast<uint64_t>(iSlot + 1) << SLOT_SHIFT))
        return nullptr;
    return &slot;
}

std::shared_ptr<hosted::Connection> Take(SocketTable &table, Slot &slot)
{
    std::shared_ptr<hosted::Connection> pConnection = std::move(slot.pConnection);
    slot.pConnection                                = nullptr;
    if (!g_bReuseValues && ++slot.nGeneration == 0) slot.nGeneration = 1;
    table.aFree.push_back(static_cast<size_t>(&slot - table.aSlots.data()));
    --hosted::g_nSockets;
    return pConnection;
}

// The order matters: a thread that wakes must find the mark, or it would take the shutdown for the peer's.
void EndConnection(hosted::Connection &connection)
{
    hosted::PushHeldBytes(connection);
    connection.bClosed = true;
    if (!connection.bCut) hosted::ResetAtClose(connection.fd, false);
    ::shutdown(connection.fd, SHUT_RDWR);
}

} // namespace

namespace hosted {

void ReuseSocketValues(bool bReuse)
{
    g_bReuseValues = bReuse;
}

Connection::~Connection()
{
    ::close(fd);
}

void ResetAtClose(int fd, bool bReset)
{
    const linger value = {bReset ? 1 : 0, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof(value));
}

int32_t FailWith(int32_t nWinsockError)
{
    SetError(static_cast<uint32_t>(nWinsockError));
    return platform::SOCKET_ERROR;
}

bool EnterWinsockCall(const char *pszCall)
{
    if (FailsNow(pszCall)) return false;
    if (g_nWinsockStarts > 0) return true;
    FailWith(platform::WSANOTINITIALISED);
    return false;
}

std::shared_ptr<Connection> EnterSocketCall(const char *pszCall, platform::SOCKET s)
{
    if (!EnterWinsockCall(pszCall)) return nullptr;
    SocketTable                &table = Table();
    std::lock_guard<std::mutex> lock(table.csTable);
    Slot                       *pSlot = SlotOf(table, s);
    if (pSlot == nullptr) {
        FailWith(platform::WSAENOTSOCK);
        return nullptr;
    }
    return pSlot->pConnection;
}

platform::SOCKET AddConnection(std::shared_ptr<Connection> pConnection)
{
    SocketTable                &table = Table();
    std::lock_guard<std::mutex> lock(table.csTable);
    if (table.aFree.empty()) {
        if (table.aSlots.size() >= MAX_SOCKETS) {
            FailWith(platform::WSAEMFILE);
            return platform::INVALID_SOCKET;
        }
        table.aFree.push_back(table.aSlots.size());
        table.aSlots.emplace_back();
    }
    const size_t iSlot = table.aFree.back();
    table.aFree.pop_back();
    table.aSlots[iSlot].pConnection = std::move(pConnection);
    ++g_nSockets;
    return static_cast<uint64_t>(table.aSlots[iSlot].nGeneration) << GENERATION_SHIFT | static_cast<uint64_t>(iSlot + 1)
                                                                                            << SLOT_SHIFT;
}

std::vector<std::shared_ptr<Connection>> AllConnections()
{
    std::vector<std::shared_ptr<Connection>> aAll;
    SocketTable                             &table = Table();
    std::lock_guard<std::mutex>              lock(table.csTable);
    for (const Slot &slot : table.aSlots)
        if (slot.pConnection != nullptr) aAll.push_back(slot.pConnection);
    return aAll;
}

int32_t WinsockErrorFromErrno(int nErrno)
{
    switch (nErrno) {
    case EINTR: return platform::WSAEINTR;
    case EACCES:
    case EPERM: return platform::WSAEACCES;
    case EFAULT: return WSAEFAULT;
    case EINVAL: return platform::WSAEINVAL;
    case EMFILE:
    case ENFILE: return platform::WSAEMFILE;
    case EAGAIN: // descriptors block, so this is their time-out
    case ETIMEDOUT: return platform::WSAETIMEDOUT;
    case EALREADY:
    case EINPROGRESS: return WSAEALREADY;
    case EBADF:
    case ENOTSOCK: return platform::WSAENOTSOCK;
    case EMSGSIZE: return platform::WSAEMSGSIZE;
    case ENOPROTOOPT: return WSAENOPROTOOPT;
    case EOPNOTSUPP: return WSAEOPNOTSUPP;
    case EAFNOSUPPORT: return WSAEAFNOSUPPORT;
    case EADDRINUSE: return platform::WSAEADDRINUSE;
    case EADDRNOTAVAIL: return platform::WSAEADDRNOTAVAIL;
    case ENETDOWN: return WSAENETDOWN;
    case ENETUNREACH: return platform::WSAENETUNREACH;
    case EPIPE: // the peer's reset was reported before
    case ECONNABORTED: return platform::WSAECONNABORTED;
    case ECONNRESET: return platform::WSAECONNRESET;
    case EISCONN: return WSAEISCONN;
    case ENOTCONN: return platform::WSAENOTCONN;
    case ECONNREFUSED: return platform::WSAECONNREFUSED;
    case EHOSTDOWN: return WSAEHOSTDOWN;
    case EHOSTUNREACH: return platform::WSAEHOSTUNREACH;
    default: return platform::WSAENOBUFS; // ENOMEM, ENOBUFS and what a TCP socket does not give
    }
}

} // namespace hosted

namespace platform {

int32_t WSAStartup(uint16_t wVersionRequested, WSADATA *pData)
{
    constexpr uint16_t VERSION_2_2 = 0x0202;
    uint32_t           dwError     = 0;
    if (hosted::FailsNow("WSAStartup", &dwError)) return static_cast<int32_t>(dwError);
    if (pData == nullptr) return hosted::WSAEFAULT;
    if ((wVersionRequested & 0xFF) == 0) return hosted::WSAVERNOTSUPPORTED;
    const uint16_t aVersions[2] = {std::min(wVersionRequested, VERSION_2_2), VERSION_2_2};
    std::memset(pData, 0, sizeof(*pData));
    std::memcpy(pData, aVersions, sizeof(aVersions)); // wVersion and wHighVersion stand first
    ++hosted::g_nWinsockStarts;
    return 0;
}

int32_t WSACleanup()
{
    if (hosted::FailsNow("WSACleanup")) return SOCKET_ERROR;
    --hosted::g_nWinsockStarts; // sockets that are still open stay so: they are their opener's fault
    return 0;
}

int32_t WSAGetLastError()
{
    return static_cast<int32_t>(GetLastError());
}

void WSASetLastError(int32_t nError)
{
    SetLastError(static_cast<uint32_t>(nError));
}

int32_t shutdown(SOCKET s, int32_t nHow)
{
    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("shutdown", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    static_assert(SHUT_WR == 1 && SHUT_RDWR == SD_BOTH, "both systems number the directions alike");
    if (nHow != SHUT_WR && nHow != SHUT_RDWR) return hosted::FailWith(hosted::WSAEOPNOTSUPP);
    if (!pConnection->bConnected) return hosted::FailWith(WSAENOTCONN);
    hosted::PushHeldBytes(*pConnection);
    pConnection->nShut |= hosted::SHUT_FOR_SEND | (nHow == SHUT_RDWR ? hosted::SHUT_FOR_RECV : 0);
    if (::shutdown(pConnection->fd, nHow) != 0 && errno != ENOTCONN)
        return hosted::FailWith(hosted::WinsockErrorFromErrno(errno));
    return 0; // ENOTCONN: the peer has already ended the link, and there is nothing left to end
}

int32_t closesocket(SOCKET s)
{
    if (!hosted::EnterWinsockCall("closesocket")) return SOCKET_ERROR;
    std::shared_ptr<hosted::Connection> pConnection;
    {
        SocketTable                &table = Table();
        std::lock_guard<std::mutex> lock(table.csTable);
        Slot                       *pSlot = SlotOf(table, s);
        if (pSlot != nullptr) pConnection = Take(table, *pSlot);
    }
    if (pConnection == nullptr) return hosted::FailWith(WSAENOTSOCK);
    EndConnection(*pConnection);
    return 0;
}

} // namespace platform
