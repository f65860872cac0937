// link_faults.cpp: pretended link trouble: shorter socket time-outs, a slow link, a link that breaks.
// The delay and the replaced time-out are real milliseconds, whatever the clock rate. The cut counts the bytes that all
// sockets of the process have really sent, breaks the connections of that moment, and is then used up: a later
// connection lives. The peer gets a reset after it has read what had arrived.
#include "platform/hosted/control.h"
#include "platform/hosted/kernel/clock.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/sockets/socket_table.h"
#include <atomic>
#include <cerrno>
#include <ctime>
#include <sys/socket.h>

namespace {

constexpr uint32_t PROTOCOL_TIMEOUT_MS = 8000; // the one time-out that SetSocketTimeout replaces

std::atomic<uint32_t> g_dwSocketTimeout{0};
std::atomic<uint32_t> g_dwLinkDelay{0};
std::atomic<bool>     g_bCutArmed{false};
std::mutex            g_csCut; // guards the next; only taken while a cut is armed
int64_t               g_cbUntilCut = 0;

const hosted::OnUseMachine g_Reset([] {
    hosted::SetSocketTimeout(0);
    hosted::SetLinkDelay(0);
    hosted::CutLinkAfter(-1);
});

void BreakEveryConnection()
{
    for (const auto &pConnection : hosted::AllConnections())
        if (pConnection->bConnected) {
            pConnection->bCut = true;
            hosted::BreakConnection(*pConnection);
        }
}

} // namespace

namespace hosted {

void SetSocketTimeout(uint32_t dwMilliseconds)
{
    g_dwSocketTimeout = dwMilliseconds;
}

void SetLinkDelay(uint32_t dwMilliseconds)
{
    g_dwLinkDelay = dwMilliseconds;
}

void CutLinkAfter(int64_t cbSent)
{
    std::lock_guard<std::mutex> lock(g_csCut);
    g_cbUntilCut = cbSent;
    g_bCutArmed  = cbSent >= 0;
}

int64_t RealSocketTimeout(uint32_t dwMilliseconds)
{
    if (dwMilliseconds == 0) return 0;
    const uint32_t dwInstead = g_dwSocketTimeout;
    if (dwMilliseconds == PROTOCOL_TIMEOUT_MS && dwInstead != 0) return static_cast<int64_t>(dwInstead) * 1000;
    return std::max<int64_t>(1000, RealTime(dwMilliseconds).count());
}

int64_t SendOnLink(Connection &connection, const char *pBuffer, size_t cb, int nFlags)
{
    if (const uint32_t dwDelay = g_dwLinkDelay; dwDelay != 0) {
        timespec delay = {static_cast<time_t>(dwDelay / 1000), static_cast<long>(dwDelay % 1000) * 1000000};
        while (::nanosleep(&delay, &delay) != 0 && errno == EINTR) {
        }
    }
    const bool bCounted = g_bCutArmed;
    if (bCounted) {
        std::lock_guard<std::mutex> lock(g_csCut);
        if (g_bCutArmed) cb = std::min(cb, static_cast<size_t>(g_cbUntilCut));
    }
    int64_t nSent = 0;
    if (cb > 0) {
        do nSent = ::send(connection.fd, pBuffer, cb, nFlags | MSG_NOSIGNAL);
        while (nSent < 0 && errno == EINTR);
    }
    if (bCounted) {
        bool bCutNow = false;
        {
            std::lock_guard<std::mutex> lock(g_csCut);
            if (g_bCutArmed && nSent >= 0) {
                g_cbUntilCut -= std::min(nSent, g_cbUntilCut);
                bCutNow = g_cbUntilCut == 0;
                if (bCutNow) g_bCutArmed = false;
            }
        }
        if (bCutNow) BreakEveryConnection();
        if (nSent == 0) nSent = -1;
    }
    if (connection.bCut && nSent <= 0) {
        BreakConnection(connection);
        errno = ECONNRESET;
        return -1;
    }
    return nSent;
}

void BreakConnection(Connection &connection)
{
    // Undoing the connection makes the system send a reset. It may refuse while a thread waits on the descriptor; that
    // thread is woken by the shutdown and tries again on its way out, and the linger setting makes the close reset too.
    const linger     noLinger    = {1, 0};
    const ::sockaddr unspecified = {AF_UNSPEC, {}};
    ::setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &noLinger, sizeof(noLinger));
    if (::connect(connection.fd, &unspecified, sizeof(unspecified)) != 0) ::shutdown(connection.fd, SHUT_RD);
}

} // namespace hosted
