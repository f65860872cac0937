// sockets.cpp: Winsock, forwarded, and the gathering of held sends.
// A hold belongs to one socket and the thread that made it. Only that thread touches the gathered bytes; the lock
// guards the list, and a close from any thread marks the socket's holds so that what is gathered can never reach
// another connection that gets the same socket number.
// A call that is blocked while another thread closes its socket: Windows ends it with WSAEINTR or WSAECONNABORTED, by
// release; Wine ends a receive with WSAEINVAL, an accept with ERROR_OPERATION_ABORTED and a send not at all. The
// interface promises WSAENOTSOCK at once on each of them: closesocket cancels what is blocked first, and the cancelled
// call says so.
#include "platform/sockets.h"
#include "platform/tool_seam.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(INVALID_SOCKET) X(SOCKET_ERROR) X(AF_INET) X(SOCK_STREAM) X(IPPROTO_TCP) X(AI_PASSIVE) X(SOL_SOCKET)             \
    X(SO_SNDTIMEO) X(SO_RCVTIMEO) X(SOMAXCONN) X(TCP_NODELAY) X(SD_BOTH) X(WSAEINTR) X(WSAEACCES) X(WSAEINVAL)         \
    X(WSAEMFILE) X(WSAEWOULDBLOCK) X(WSAENOTSOCK) X(WSAEADDRINUSE) X(WSAEADDRNOTAVAIL) X(WSAENETUNREACH)               \
    X(WSAECONNABORTED) X(WSAECONNRESET) X(WSAENOBUFS) X(WSAENOTCONN) X(WSAESHUTDOWN) X(WSAETIMEDOUT)                   \
    X(WSAECONNREFUSED) X(WSAEHOSTUNREACH) X(WSANOTINITIALISED) X(WSAEDISCON) X(WSAHOST_NOT_FOUND) X(WSATYPE_NOT_FOUND)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
MIRROR_SIZE(WSADATA)
MIRROR_SIZE(sockaddr)
MIRROR_FIELD(sockaddr, sa_family)
MIRROR_FIELD(sockaddr, sa_data)
MIRROR_SIZE(sockaddr_in)
MIRROR_FIELD(sockaddr_in, sin_family)
MIRROR_FIELD(sockaddr_in, sin_port)
MIRROR_FIELD(sockaddr_in, sin_addr)
MIRROR_FIELD(sockaddr_in, sin_zero)
MIRROR_SIZE(addrinfo)
MIRROR_FIELD(addrinfo, ai_flags)
MIRROR_FIELD(addrinfo, ai_family)
MIRROR_FIELD(addrinfo, ai_socktype)
MIRROR_FIELD(addrinfo, ai_protocol)
MIRROR_FIELD(addrinfo, ai_addrlen)
MIRROR_FIELD(addrinfo, ai_canonname)
MIRROR_FIELD(addrinfo, ai_addr)
MIRROR_FIELD(addrinfo, ai_next)
} // namespace mirror

namespace platform {

static const ::sockaddr *AsSdk(const sockaddr *pName)
{
    return reinterpret_cast<const ::sockaddr *>(pName);
}

static ::sockaddr *AsSdk(sockaddr *pName)
{
    return reinterpret_cast<::sockaddr *>(pName);
}

// After a failed call: the error of a socket that another thread closed meanwhile becomes WSAENOTSOCK.
static void NoteClosedSocket(SOCKET s)
{
    const int nError = ::WSAGetLastError();
    int       nType  = 0;
    int       cbType = sizeof(nType);
    if (nError == WSA_OPERATION_ABORTED || nError == WSAEINTR)
        ::WSASetLastError(WSAENOTSOCK); // nothing but closesocket and shutdown cancels
    else if (nError == WSAEINVAL || nError == WSAECONNABORTED) {
        const bool bClosed = ::getsockopt(s, SOL_SOCKET, SO_TYPE, reinterpret_cast<char *>(&nType), &cbType) != 0 &&
                             ::WSAGetLastError() == WSAENOTSOCK;
        ::WSASetLastError(bClosed ? WSAENOTSOCK : nError);
    }
}

int32_t WSAStartup(uint16_t wVersionRequested, WSADATA *pData)
{
    return ::WSAStartup(wVersionRequested, reinterpret_cast<::WSADATA *>(pData));
}

int32_t WSACleanup()
{
    return ::WSACleanup();
}

int32_t WSAGetLastError()
{
    return ::WSAGetLastError();
}

void WSASetLastError(int32_t nError)
{
    ::WSASetLastError(nError);
}

uint16_t ntohs(uint16_t nNet)
{
    return ::ntohs(nNet);
}

uint16_t htons(uint16_t nHost)
{
    return ::htons(nHost);
}

int32_t getaddrinfo(const char *pszNode, const char *pszService, const addrinfo *pHints, addrinfo **ppResult)
{
    return ::getaddrinfo(pszNode, pszService, reinterpret_cast<const ::addrinfo *>(pHints),
                         reinterpret_cast<::addrinfo **>(ppResult));
}

void freeaddrinfo(addrinfo *pResult)
{
    ::freeaddrinfo(reinterpret_cast<::addrinfo *>(pResult));
}

// Windows breaks the connections of a process that is terminated with a reset. Wine leaves them to the host's system,
// which closes them in good order, so that the peer would not learn of the death: there the reset is asked for when a
// socket is made and taken back by an orderly closesocket. On Windows itself this changes nothing.
static void ResetAtClose(SOCKET s, bool bReset)
{
    const ::linger value = {static_cast<u_short>(bReset ? 1 : 0), 0};
    ::setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&value), sizeof(value));
}

SOCKET socket(int32_t nFamily, int32_t nType, int32_t nProtocol)
{
    // Programs that are started meanwhile get none: the peer would see the connection end with the last of them only.
    const SOCKET s =
        ::WSASocketW(nFamily, nType, nProtocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (s != INVALID_SOCKET && nType == SOCK_STREAM) ResetAtClose(s, true);
    return s;
}

int32_t bind(SOCKET s, const sockaddr *pName, int32_t cbName)
{
    return ::bind(s, AsSdk(pName), cbName);
}

int32_t listen(SOCKET s, int32_t nBacklog)
{
    return ::listen(s, nBacklog);
}

SOCKET accept(SOCKET s, sockaddr *pAddr, int32_t *pcbAddr)
{
    SOCKET        hAccepted = INVALID_SOCKET;
    const int32_t cbAddr    = pcbAddr != nullptr ? *pcbAddr : 0;
    do { // a peer that gave up while it waited in the queue is no failure of the listening socket
        if (pcbAddr != nullptr) *pcbAddr = cbAddr;
        hAccepted = ::accept(s, AsSdk(pAddr), pcbAddr);
    } while (hAccepted == INVALID_SOCKET &&
             (::WSAGetLastError() == WSAECONNRESET || ::WSAGetLastError() == WSAECONNABORTED));
    if (hAccepted == INVALID_SOCKET) {
        NoteClosedSocket(s);
    } else {
        ::SetHandleInformation(reinterpret_cast<::HANDLE>(hAccepted), HANDLE_FLAG_INHERIT, 0);
        ResetAtClose(hAccepted, true);
    }
    return hAccepted;
}

int32_t connect(SOCKET s, const sockaddr *pName, int32_t cbName)
{
    const int32_t nResult = ::connect(s, AsSdk(pName), cbName);
    if (nResult == SOCKET_ERROR) NoteClosedSocket(s);
    return nResult;
}

int32_t getsockname(SOCKET s, sockaddr *pName, int32_t *pcbName)
{
    return ::getsockname(s, AsSdk(pName), pcbName);
}

int32_t setsockopt(SOCKET s, int32_t nLevel, int32_t nOption, const char *pValue, int32_t cbValue)
{
    return ::setsockopt(s, nLevel, nOption, pValue, cbValue);
}

// On Windows every receive after a reset says so. Wine's server takes the host's error for itself when it learns of the
// reset first, and each receive after that looks like a peer's orderly close. A send of no bytes tells the two apart:
// it changes nothing on a connection that can still send, and fails on one that was reset.
static bool IsReset(SOCKET s)
{
    return ::send(s, "", 0, 0) == SOCKET_ERROR;
}

// Waits until a receive would not wait, for the socket's SO_RCVTIMEO. 0, or the error that the receive gives. A receive
// that itself runs out of that time leaves the socket in an indeterminate state, by the documentation of SO_RCVTIMEO,
// and the product goes on receiving after a time-out. A receive of no bytes ends when there is something to receive,
// and takes nothing along when it is cancelled. (WSAPoll does as well on Windows; Wine keeps the socket of a process
// that is killed inside it open for ever, and the peer waits for its death.)
static int32_t AwaitReadable(SOCKET s)
{
    DWORD           dwTimeout = 0, cbNone = 0, dwFlags = 0;
    int             cb      = sizeof(dwTimeout);
    u_long          cbThere = 0;
    ::WSABUF        nothing = {0, nullptr};
    ::WSAOVERLAPPED wait    = {};
    if (::getsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char *>(&dwTimeout), &cb) != 0 || dwTimeout == 0 ||
        (::ioctlsocket(s, FIONREAD, &cbThere) == 0 && cbThere > 0))
        return 0; // no time-out, no socket, nothing to wait for: the receive says so
    wait.hEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (wait.hEvent == nullptr) return WSAENOBUFS;
    bool    bTimedOut = false;
    int32_t nError    = ::WSARecv(s, &nothing, 1, nullptr, &dwFlags, &wait, nullptr) == 0 ? 0 : ::WSAGetLastError();
    if (nError == WSA_IO_PENDING) {
        bTimedOut = ::WaitForSingleObject(wait.hEvent, dwTimeout) == WAIT_TIMEOUT;
        if (bTimedOut) ::CancelIoEx(reinterpret_cast<::HANDLE>(s), &wait);
        nError = ::WSAGetOverlappedResult(s, &wait, &cbNone, TRUE, &dwFlags) ? 0 : ::WSAGetLastError();
    }
    ::CloseHandle(wait.hEvent);
    if (nError != WSA_OPERATION_ABORTED) return 0; // other errors, too, are the receive's to tell
    return bTimedOut ? WSAETIMEDOUT : WSAENOTSOCK; // but for its time-out only closesocket and shutdown cancel
}

int32_t recv(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags)
{
    if (const int32_t nError = AwaitReadable(s); nError != 0) {
        ::WSASetLastError(nError);
        return SOCKET_ERROR;
    }
    const int32_t cbReceived = ::recv(s, pBuffer, cb, nFlags);
    if (cbReceived == SOCKET_ERROR) {
        NoteClosedSocket(s);
    } else if (cbReceived == 0 && cb > 0 && IsReset(s)) {
        ::WSASetLastError(WSAECONNRESET);
        return SOCKET_ERROR;
    }
    return cbReceived;
}

int32_t shutdown(SOCKET s, int32_t nHow)
{
    const int32_t nResult = ::shutdown(s, nHow);
    const int     nError  = ::WSAGetLastError();
    // A receive that waits for readability does not look up by itself, and the peer may be silent.
    if (nHow == SD_BOTH) ::CancelIoEx(reinterpret_cast<::HANDLE>(s), nullptr);
    ::WSASetLastError(nError);
    return nResult;
}

// ---- held sends ----

// What leaves in one call, and so under one time-out (SO_SNDTIMEO): Winsock's blocking send of more than the stack
// takes at once waits for all of it, and on a slow line 64 KiB would not leave within the eight seconds of a link that
// works.
constexpr int32_t CB_GATHERED = 16384;

struct HeldSends {
    SOCKET            s;
    DWORD             dwThreadId;
    std::atomic<bool> bClosed{false};
    int32_t           nError     = 0; // of a send-on that failed; kept until the flush
    int32_t           cbGathered = 0;
    char              aGathered[CB_GATHERED];
};

static SRWLOCK               g_HeldLock = SRWLOCK_INIT; // guards the list
static std::atomic<uint32_t> g_nHeld{0};                // the list's length: with no hold anywhere a send takes no lock

// Never destroyed: at the process's end a worker may still be inside a send.
static std::vector<std::shared_ptr<HeldSends>> &HeldList()
{
    static auto &list = *new std::vector<std::shared_ptr<HeldSends>>();
    return list;
}

static std::shared_ptr<HeldSends> FindHeld(SOCKET s)
{
    if (g_nHeld.load(std::memory_order_relaxed) == 0) return nullptr; // the caller's own hold would be visible to it
    const DWORD                dwThreadId = ::GetCurrentThreadId();
    std::shared_ptr<HeldSends> pFound;
    ::AcquireSRWLockShared(&g_HeldLock);
    for (const auto &pHeld : HeldList()) {
        if (pHeld->s == s && pHeld->dwThreadId == dwThreadId) {
            pFound = pHeld;
            break;
        }
    }
    ::ReleaseSRWLockShared(&g_HeldLock);
    return pFound;
}

static void AddHeld(const std::shared_ptr<HeldSends> &pHeld)
{
    ::AcquireSRWLockExclusive(&g_HeldLock);
    try {
        HeldList().push_back(pHeld);
        g_nHeld.fetch_add(1, std::memory_order_relaxed);
    } catch (const std::bad_alloc &) {
        // Without memory for the list every send goes out on its own: slower, and otherwise the same.
    }
    ::ReleaseSRWLockExclusive(&g_HeldLock);
}

static void RemoveHeld(const std::shared_ptr<HeldSends> &pHeld)
{
    ::AcquireSRWLockExclusive(&g_HeldLock);
    g_nHeld.fetch_sub(static_cast<uint32_t>(std::erase(HeldList(), pHeld)), std::memory_order_relaxed);
    ::ReleaseSRWLockExclusive(&g_HeldLock);
}

// Sends the gathered bytes in one call, or in as many as the stack wants. Fails for good.
static bool SendOn(HeldSends *pHeld)
{
    int32_t cbDone = 0;
    while (cbDone < pHeld->cbGathered) {
        int32_t cbSent = SOCKET_ERROR;
        if (pHeld->bClosed.load()) {
            pHeld->nError = WSAENOTSOCK;
        } else {
            cbSent = ::send(pHeld->s, pHeld->aGathered + cbDone, pHeld->cbGathered - cbDone, 0);
            if (cbSent == SOCKET_ERROR) {
                NoteClosedSocket(pHeld->s);
                pHeld->nError = pHeld->bClosed.load() ? WSAENOTSOCK : ::WSAGetLastError();
            }
        }
        if (pHeld->nError != 0) return false;
        cbDone += cbSent;
    }
    pHeld->cbGathered = 0;
    return true;
}

// Adds to what is gathered, and sends that on whenever it is full.
static bool Gather(HeldSends *pHeld, const char *pBuffer, int32_t cb)
{
    while (cb > 0) {
        const int32_t cbRoom  = CB_GATHERED - pHeld->cbGathered;
        const int32_t cbPiece = cb < cbRoom ? cb : cbRoom;
        memcpy(pHeld->aGathered + pHeld->cbGathered, pBuffer, static_cast<size_t>(cbPiece));
        pHeld->cbGathered += cbPiece;
        pBuffer += cbPiece;
        cb -= cbPiece;
        if (pHeld->cbGathered == CB_GATHERED && !SendOn(pHeld)) return false;
    }
    return true;
}

int32_t send(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags)
{
    const auto pHeld = FindHeld(s);
    if (pHeld == nullptr || nFlags != 0 || cb < 0) {
        const int32_t cbSent = ::send(s, pBuffer, cb, nFlags);
        if (cbSent == SOCKET_ERROR) NoteClosedSocket(s);
        return cbSent;
    }
    if (pHeld->nError == 0 && pHeld->bClosed.load()) pHeld->nError = WSAENOTSOCK;
    if (pHeld->nError == 0 && Gather(pHeld.get(), pBuffer, cb)) return cb;
    ::WSASetLastError(pHeld->nError);
    return SOCKET_ERROR;
}

int32_t closesocket(SOCKET s)
{
    if (g_nHeld.load(std::memory_order_relaxed) != 0) {
        ::AcquireSRWLockShared(&g_HeldLock);
        for (const auto &pHeld : HeldList()) {
            if (pHeld->s == s) pHeld->bClosed.store(true);
        }
        ::ReleaseSRWLockShared(&g_HeldLock);
    }
    ResetAtClose(s, false);
    ::CancelIoEx(reinterpret_cast<::HANDLE>(s), nullptr); // from every thread; nothing pending is no failure here
    return ::closesocket(s);
}

void HoldSends(SOCKET s)
{
    // A hold that was never flushed, of a socket that is closed or broken, must not answer for a new one of its number.
    if (const auto pStale = FindHeld(s)) {
        if (pStale->nError == 0 && !pStale->bClosed.load()) return;
        RemoveHeld(pStale);
    }
    const std::shared_ptr<HeldSends> pHeld(new (std::nothrow) HeldSends());
    if (pHeld == nullptr) return; // without memory to gather in, as in AddHeld
    pHeld->s          = s;
    pHeld->dwThreadId = ::GetCurrentThreadId();
    AddHeld(pHeld);
}

int32_t FlushSends(SOCKET s)
{
    const auto pHeld = FindHeld(s);
    if (pHeld == nullptr) return 0;
    RemoveHeld(pHeld);
    if (pHeld->nError == 0 && SendOn(pHeld.get())) return 0;
    ::WSASetLastError(pHeld->nError);
    return SOCKET_ERROR;
}

BOOL CanReceive(SOCKET s, uint32_t cb)
{
    u_long cbThere = 0;
    return ::ioctlsocket(s, FIONREAD, &cbThere) == 0 && cbThere >= cb;
}

} // namespace platform
