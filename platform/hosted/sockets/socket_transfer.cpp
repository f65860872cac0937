// socket_transfer.cpp: send and recv, and the hold that gathers sends.
// Callers move at most 4096 bytes by a call. A real call for each would cost more than the bytes do, so a receive takes
// what has arrived, up to RECV_AHEAD_BYTES, and serves the next ones from that; sends inside a hold are gathered up to
// SEND_HOLD_BYTES. A receive never waits for more than there is: it blocks only while nothing has arrived.
// When gathered bytes cannot be sent (time-out, reset), the rest of that hold is dropped and every send up to the flush
// gives the same error, the flush too: half an exchange is never followed by more of it.
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/sockets/socket_table.h"
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

// The descriptor's time-out follows the setting, the clock rate and SetSocketTimeout, and costs a call only when it
// changes.
void ApplyTimeout(int fd, int nOption, uint32_t dwMilliseconds, int64_t &nCurrent)
{
    const int64_t nWanted = hosted::RealSocketTimeout(dwMilliseconds);
    if (nWanted == nCurrent) return;
    const timeval value = {static_cast<time_t>(nWanted / 1000000), static_cast<suseconds_t>(nWanted % 1000000)};
    if (::setsockopt(fd, SOL_SOCKET, nOption, &value, sizeof(value)) == 0) nCurrent = nWanted;
}

// What forbids a call in this direction: 0 or a Winsock error.
int32_t Obstacle(const hosted::Connection &connection, int nDirection)
{
    if (connection.bClosed) return platform::WSAENOTSOCK;
    if (connection.bCut) return platform::WSAECONNRESET;
    if (!connection.bConnected) return platform::WSAENOTCONN;
    return (connection.nShut & nDirection) != 0 ? platform::WSAESHUTDOWN : 0;
}

// After a peer's orderly close has been received, the system goes on saying so even when a reset has followed; on
// Windows a receive then says that the connection was reset.
bool IsReset(int fd)
{
    tcp_info  info = {};
    socklen_t cb   = sizeof(info);
    return ::getsockopt(fd, SOL_TCP, TCP_INFO, &info, &cb) == 0 && info.tcpi_state == TCP_CLOSE;
}

// [csSend held] One real send. Result: bytes sent (at least 1), or a negative Winsock error.
int64_t SendSome(hosted::Connection &connection, const char *pBuffer, size_t cb)
{
    if (const int32_t nObstacle = Obstacle(connection, hosted::SHUT_FOR_SEND)) return -nObstacle;
    ApplyTimeout(connection.fd, SO_SNDTIMEO, connection.dwSendTimeout, connection.nSendTimeoutSet);
    const int64_t nSent = hosted::SendOnLink(connection, pBuffer, cb, 0);
    if (nSent > 0) return nSent;
    const int nErrno = errno;
    // another thread may have ended the socket meanwhile, and then that is the reason
    if (const int32_t nObstacle = Obstacle(connection, hosted::SHUT_FOR_SEND)) return -nObstacle;
    return -hosted::WinsockErrorFromErrno(nErrno);
}

// [csSend held] Sends everything gathered. 0, or the Winsock error with the rest dropped. What was gathered is one
// piece with one time-out, as it is for Winsock's blocking send, however many of its bytes have left meanwhile.
int32_t SendHeld(hosted::Connection &connection)
{
    using Clock       = std::chrono::steady_clock;
    const auto tBegin = Clock::now();
    size_t     cbDone = 0;
    while (cbDone < connection.cbHeld) {
        int64_t nSent = SendSome(connection, connection.pHeld.get() + cbDone, connection.cbHeld - cbDone);
        if (nSent > 0 && cbDone + static_cast<size_t>(nSent) < connection.cbHeld) {
            const auto nLimit = std::chrono::microseconds(connection.nSendTimeoutSet);
            if (connection.nSendTimeoutSet > 0 && Clock::now() - tBegin >= nLimit) nSent = -platform::WSAETIMEDOUT;
        }
        if (nSent < 0) {
            connection.cbHeld     = 0;
            connection.nHeldError = static_cast<int32_t>(-nSent);
            return connection.nHeldError;
        }
        cbDone += static_cast<size_t>(nSent);
    }
    connection.cbHeld = 0;
    return 0;
}

// [csSend held] 0 or a Winsock error.
int32_t Gather(hosted::Connection &connection, const char *pBuffer, size_t cb)
{
    if (connection.nHeldError != 0) return connection.nHeldError;
    if (connection.pHeld == nullptr) {
        connection.pHeld.reset(new (std::nothrow) char[hosted::SEND_HOLD_BYTES]);
        if (connection.pHeld == nullptr) return platform::WSAENOBUFS;
    }
    while (cb > 0) {
        if (const int32_t nObstacle = Obstacle(connection, hosted::SHUT_FOR_SEND)) return nObstacle;
        const size_t cbPiece = std::min(cb, hosted::SEND_HOLD_BYTES - connection.cbHeld);
        std::memcpy(connection.pHeld.get() + connection.cbHeld, pBuffer, cbPiece);
        connection.cbHeld += cbPiece;
        pBuffer += cbPiece;
        cb -= cbPiece;
        if (connection.cbHeld == hosted::SEND_HOLD_BYTES)
            if (const int32_t nError = SendHeld(connection)) return nError;
    }
    return 0;
}

} // namespace

namespace hosted {

void PushHeldBytes(Connection &connection)
{
    std::unique_lock<std::mutex> lock(connection.csSend, std::try_to_lock);
    if (!lock.owns_lock() || connection.cbHeld == 0 || Obstacle(connection, SHUT_FOR_SEND) != 0) return;
    SendOnLink(connection, connection.pHeld.get(), connection.cbHeld, MSG_DONTWAIT);
    connection.cbHeld = 0;
}

} // namespace hosted

namespace platform {

int32_t send(SOCKET s, const char *pBuffer, int32_t cb, int32_t nFlags)
{
    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("send", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    if (nFlags != 0) return hosted::FailWith(hosted::WSAEOPNOTSUPP);
    if (cb < 0 || (pBuffer == nullptr && cb > 0)) return hosted::FailWith(hosted::WSAEFAULT);

    std::lock_guard<std::mutex> lock(pConnection->csSend);
    if (const int32_t nObstacle = Obstacle(*pConnection, hosted::SHUT_FOR_SEND)) return hosted::FailWith(nObstacle);
    if (cb == 0) return 0;
    if (pConnection->bHolding) {
        if (const int32_t nError = Gather(*pConnection, pBuffer, static_cast<size_t>(cb)))
            return hosted::FailWith(nError);
        return cb;
    }
    const int64_t nSent = SendSome(*pConnection, pBuffer, static_cast<size_t>(cb));
    return nSent < 0 ? hosted::FailWith(static_cast<int32_t>(-nSent)) : static_cast<int32_t>(nSent);
}

void HoldSends(SOCKET s)
{
    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("HoldSends", s);
    if (pConnection == nullptr) return; // the sends that follow report it
    std::lock_guard<std::mutex> lock(pConnection->csSend);
    pConnection->bHolding   = true;
    pConnection->nHeldError = 0;
}

int32_t FlushSends(SOCKET s)
{
    uint32_t   dwPretended = 0; // such a failure, too, ends the hold and loses what was held
    const bool bFails      = hosted::FailsNow("FlushSends", &dwPretended);

    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("hold of FlushSends", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    std::lock_guard<std::mutex> lock(pConnection->csSend);
    if (bFails) {
        pConnection->cbHeld     = 0;
        pConnection->nHeldError = static_cast<int32_t>(dwPretended);
    }
    if (pConnection->nHeldError == 0) SendHeld(*pConnection);
    const int32_t nError    = pConnection->nHeldError;
    pConnection->bHolding   = false;
    pConnection->nHeldError = 0;
    return nError != 0 ? hosted::FailWith(nError) : 0;
}

// What the host's recv gives and leaves in errno. To wake a thread on a virtual machine whose processors are halted
// takes longer than a peer's answer, and two agents that send small files wait for each other all the time: who waits
// looks again for a moment, letting everybody else run in between, before it sleeps. Where that was in vain, as between
// answers that come many at a time, the looking would take the processor from those who work: the next receives sleep
// at once.
static ssize_t ReceiveBriefly(hosted::Connection &connection)
{
    constexpr std::chrono::microseconds LOOK_AGAIN(400);
    constexpr int                       SLEEPS = 16;
    const auto                          tEnd   = std::chrono::steady_clock::now() + LOOK_AGAIN;
    int                                 nFlags = connection.nSleepsDue > 0 ? 0 : MSG_DONTWAIT;
    if (connection.nSleepsDue > 0) connection.nSleepsDue--;
    for (;;) {
        const ssize_t n = ::recv(connection.fd, connection.pAhead.get(), hosted::RECV_AHEAD_BYTES, nFlags);
        if (n >= 0 || (errno != EINTR && (errno != EAGAIN || nFlags == 0))) return n;
        if (nFlags == 0) continue;
        sched_yield();
        if (!connection.bCut && std::chrono::steady_clock::now() < tEnd) continue;
        nFlags                = 0;
        connection.nSleepsDue = SLEEPS;
    }
}

int32_t recv(SOCKET s, char *pBuffer, int32_t cb, int32_t nFlags)
{
    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("recv", s);
    if (pConnection == nullptr) return SOCKET_ERROR;
    if (nFlags != 0) return hosted::FailWith(hosted::WSAEOPNOTSUPP);
    if (cb < 0 || (pBuffer == nullptr && cb > 0)) return hosted::FailWith(hosted::WSAEFAULT);

    hosted::Connection         &connection = *pConnection;
    std::lock_guard<std::mutex> lock(connection.csRecv);
    if (const int32_t nObstacle = Obstacle(connection, hosted::SHUT_FOR_RECV)) return hosted::FailWith(nObstacle);
    if (cb == 0) return 0;
    if (connection.iAhead == connection.cbAhead) {
        if (connection.pAhead == nullptr) {
            connection.pAhead.reset(new (std::nothrow) char[hosted::RECV_AHEAD_BYTES]);
            if (connection.pAhead == nullptr) return hosted::FailWith(WSAENOBUFS);
        }
        ApplyTimeout(connection.fd, SO_RCVTIMEO, connection.dwRecvTimeout, connection.nRecvTimeoutSet);
        ssize_t   nReceived = ReceiveBriefly(connection);
        const int nErrno    = errno;
        if (connection.bCut)
            hosted::BreakConnection(connection); // see there: the try while this thread waited may have failed
        if (const int32_t nObstacle = Obstacle(connection, hosted::SHUT_FOR_RECV)) return hosted::FailWith(nObstacle);
        if (nReceived < 0) return hosted::FailWith(hosted::WinsockErrorFromErrno(nErrno));
        if (nReceived == 0) return IsReset(connection.fd) ? hosted::FailWith(WSAECONNRESET) : 0;
        connection.iAhead  = 0;
        connection.cbAhead = static_cast<size_t>(nReceived);
    }
    const size_t cbPiece = std::min(static_cast<size_t>(cb), connection.cbAhead - connection.iAhead);
    std::memcpy(pBuffer, connection.pAhead.get() + connection.iAhead, cbPiece);
    connection.iAhead += cbPiece;
    return static_cast<int32_t>(cbPiece);
}

BOOL CanReceive(SOCKET s, uint32_t cb)
{
    const std::shared_ptr<hosted::Connection> pConnection = hosted::EnterSocketCall("CanReceive", s);
    if (pConnection == nullptr) return FALSE;
    hosted::Connection         &connection = *pConnection;
    std::lock_guard<std::mutex> lock(connection.csRecv);
    if (Obstacle(connection, hosted::SHUT_FOR_RECV) != 0) return FALSE;
    const size_t cbAhead = connection.cbAhead - connection.iAhead;
    int          cbThere = 0;
    if (cbAhead >= cb) return TRUE;
    return ::ioctl(connection.fd, FIONREAD, &cbThere) == 0 && cbAhead + static_cast<size_t>(cbThere) >= cb;
}

} // namespace platform
