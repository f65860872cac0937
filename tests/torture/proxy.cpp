// proxy.cpp: a thread that mirrors announcements and accepts, and one for each connection.
#include "tests/torture/proxy.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

constexpr size_t PIECE_BYTES = 16384, TRICKLE_BYTES = 200;

struct ProxyState {
    std::string                 sServers, sClients;
    int                         fdListen = -1;
    unsigned short              nPort    = 0;
    std::atomic<unsigned short> nServerPort{0};
    std::atomic<bool>           bStop{false}, bHold{false}, bTrickle{false}, bFlipped{false};
    std::atomic<int>            nEnd{-1}, nConnections{0}; // nEnd: a LineEnd to be carried out, or -1
    std::atomic<uint64_t>       cbPassed{0};
    std::mutex                  lock; // of what follows
    uint64_t                    cbTrigger = UINT64_MAX;
    std::function<void()>       trigger;
    struct {
        bool        bFromServer = false;
        std::string sMark;
        unsigned    nLeft = 0, nOffset = 0, nBit = 0;
        size_t      nMatched = 0;
        int64_t     nIn      = -1; // bytes until the one to flip, once the mark was found
    } flip;
    std::vector<std::thread> lines;
    std::thread              main;
};

static int Connect(unsigned short nPort)
{
    const int   fd          = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address     = {};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(nPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) return fd;
    close(fd);
    return -1;
}

static void Reset(int fd)
{
    const linger hard = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
}

static void Falsify(ProxyState *p, bool bFromServer, char *pb, size_t cb)
{
    const std::lock_guard<std::mutex> guard(p->lock);
    auto                             &flip = p->flip;
    if (flip.nLeft == 0 || flip.bFromServer != bFromServer) return;
    for (size_t i = 0; i < cb && flip.nLeft != 0; i++) {
        if (flip.nIn < 0) {
            flip.nMatched = pb[i] == flip.sMark[flip.nMatched] ? flip.nMatched + 1 : pb[i] == flip.sMark[0] ? 1 : 0;
            if (flip.nMatched != flip.sMark.size()) continue;
            flip.nMatched = 0;
            if (--flip.nLeft != 0) continue;
            flip.nLeft = 1;
            flip.nIn   = static_cast<int64_t>(flip.nOffset) - static_cast<int64_t>(flip.sMark.size()) + 1;
            if (flip.nIn <= 0) { // within the mark itself
                const int64_t n = static_cast<int64_t>(i) + flip.nIn;
                pb[n > 0 ? n : 0] ^= static_cast<char>(1 << flip.nBit);
                flip.nLeft  = 0;
                p->bFlipped = true;
            }
        } else if (--flip.nIn == 0) {
            pb[i] ^= static_cast<char>(1 << flip.nBit);
            flip.nLeft  = 0;
            p->bFlipped = true;
        }
    }
}

static bool SendAll(ProxyState *p, int fd, const char *pb, size_t cb)
{
    while (cb > 0 && !p->bStop && p->nEnd < 0) {
        const ssize_t n = send(fd, pb, cb, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd waiting = {fd, POLLOUT, 0};
            poll(&waiting, 1, 10);
            continue;
        }
        if (n <= 0) return false;
        pb += n;
        cb -= static_cast<size_t>(n);
    }
    return true;
}

// Counts what comes from the server; the action of At is carried out between two bytes.
static bool PassOn(ProxyState *p, bool bFromServer, int fd, char *pb, size_t cb)
{
    Falsify(p, bFromServer, pb, cb);
    while (cb > 0) {
        size_t                cbPart = cb;
        std::function<void()> action;
        if (bFromServer) {
            const std::lock_guard<std::mutex> guard(p->lock);
            if (p->cbTrigger < p->cbPassed + cb) {
                cbPart       = p->cbTrigger > p->cbPassed ? p->cbTrigger - p->cbPassed : 0;
                action       = std::move(p->trigger);
                p->cbTrigger = UINT64_MAX;
            }
            p->cbPassed += cbPart;
        }
        if (!SendAll(p, fd, pb, cbPart)) return false;
        if (action) action();
        while (p->bHold && !p->bStop && p->nEnd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        pb += cbPart;
        cb -= cbPart;
    }
    return true;
}

// aFd: the server's end, the client's end.
static void RunLine(ProxyState *p, int fdServer, int fdClient)
{
    const int aFd[2]   = {fdServer, fdClient};
    bool      aOpen[2] = {true, true}; // that direction still goes
    char      aBuffer[PIECE_BYTES];
    bool      bReset = false;
    ++p->nConnections;
    while (!p->bStop && !bReset && (aOpen[0] || aOpen[1])) {
        const int nEnd = p->nEnd;
        if (nEnd == static_cast<int>(LineEnd::HalfClose) && aOpen[0]) {
            shutdown(fdClient, SHUT_WR);
            aOpen[0] = false;
            p->nEnd  = -1;
        } else if (nEnd >= 0 && nEnd != static_cast<int>(LineEnd::HalfClose)) {
            bReset = nEnd == static_cast<int>(LineEnd::Reset);
            break;
        }
        pollfd aPoll[2] = {{fdServer, POLLIN, 0}, {fdClient, POLLIN, 0}};
        if (p->bHold) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        poll(aPoll, 2, 2);
        for (int i = 0; i < 2 && !bReset; i++) {
            if (!(aPoll[i].revents & (POLLIN | POLLERR | POLLHUP))) continue;
            const ssize_t n = recv(aFd[i], aBuffer, p->bTrickle ? TRICKLE_BYTES : PIECE_BYTES, MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n < 0) bReset = true;
            else if (n == 0 && aOpen[i]) {
                shutdown(aFd[1 - i], SHUT_WR);
                aOpen[i] = false;
            } else if (n == 0) { // told already
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            } else if (aOpen[i] && !PassOn(p, i == 0, aFd[1 - i], aBuffer, static_cast<size_t>(n))) {
                bReset = true;
            }
            if (p->bTrickle) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    for (const int fd : aFd) {
        if (bReset) Reset(fd);
        close(fd);
    }
    --p->nConnections;
}

// The newest announcement of the server, under the proxy's own port for the other machine's clients.
static void Mirror(ProxyState *p)
{
    std::error_code    error;
    const fs::path     mirrored = fs::path(p->sClients) / ("127.0.0.1_" + std::to_string(p->nPort) + ".vorn-server.1");
    fs::file_time_type newest   = fs::file_time_type::min();
    unsigned short     nPort    = 0;
    for (fs::directory_iterator it(p->sServers, error), end; !error && it != end; it.increment(error)) {
        const std::string sName = it->path().filename().string();
        std::error_code   gone;
        const auto        when = fs::last_write_time(it->path(), gone);
        if (gone || when <= newest || sName.find(".vorn-server") == std::string::npos) continue;
        newest = when;
        nPort  = static_cast<unsigned short>(std::atoi(sName.c_str() + sName.find('_') + 1));
    }
    if (nPort != 0) p->nServerPort = nPort;
    if (nPort != 0 && !fs::exists(mirrored, error)) std::ofstream(mirrored).flush();
    if (nPort == 0) fs::remove(mirrored, error);
}

static void RunProxy(ProxyState *p)
{
    while (!p->bStop) {
        pollfd waiting = {p->fdListen, POLLIN, 0};
        Mirror(p);
        if (poll(&waiting, 1, 20) != 1) continue;
        const int fdClient = accept4(p->fdListen, nullptr, nullptr, SOCK_CLOEXEC);
        const int fdServer = fdClient >= 0 ? Connect(p->nServerPort) : -1;
        if (fdServer < 0) {
            Reset(fdClient);
            close(fdClient);
            continue;
        }
        const int nOne = 1;
        for (const int fd : {fdClient, fdServer}) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
        p->nEnd = -1;
        p->lines.emplace_back(RunLine, p, fdServer, fdClient);
    }
}

Proxy::Proxy(const std::string &sServers, const std::string &sClients) : m_state(std::make_shared<ProxyState>())
{
    sockaddr_in address     = {};
    socklen_t   cb          = sizeof(address);
    address.sin_family      = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    m_state->sServers       = sServers;
    m_state->sClients       = sClients;
    m_state->fdListen       = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(m_state->fdListen, reinterpret_cast<sockaddr *>(&address), cb) != 0 || listen(m_state->fdListen, 16) != 0)
        std::abort();
    getsockname(m_state->fdListen, reinterpret_cast<sockaddr *>(&address), &cb);
    m_state->nPort = ntohs(address.sin_port);
    m_state->main  = std::thread(RunProxy, m_state.get());
}

Proxy::~Proxy()
{
    m_state->bStop = true;
    m_state->main.join();
    for (std::thread &line : m_state->lines) line.join();
    close(m_state->fdListen);
}

void Proxy::Begin()
{
    const std::lock_guard<std::mutex> guard(m_state->lock);
    m_state->bHold = m_state->bTrickle = m_state->bFlipped = false;
    m_state->cbPassed                                      = 0;
    m_state->cbTrigger                                     = UINT64_MAX;
    m_state->trigger                                       = nullptr;
    m_state->flip                                          = {};
}

void Proxy::At(uint64_t cb, std::function<void()> fn)
{
    const std::lock_guard<std::mutex> guard(m_state->lock);
    m_state->cbTrigger = cb;
    m_state->trigger   = std::move(fn);
}

void Proxy::Flip(bool bFromServer, const std::string &sMark, unsigned nth, unsigned nOffset, unsigned nBit)
{
    const std::lock_guard<std::mutex> guard(m_state->lock);
    m_state->flip = {bFromServer, sMark, nth, nOffset, nBit, 0, -1};
}

void Proxy::End(LineEnd eEnd)
{
    if (m_state->nConnections > 0) m_state->nEnd = static_cast<int>(eEnd);
}

uint64_t Proxy::Passed() const
{
    return m_state->cbPassed;
}
void Proxy::Hold(bool bHold)
{
    m_state->bHold = bHold;
}
void Proxy::Trickle(bool bSlow)
{
    m_state->bTrickle = bSlow;
}
bool Proxy::Flipped() const
{
    return m_state->bFlipped;
}
unsigned short Proxy::ServerPort() const
{
    return m_state->nServerPort;
}
int Proxy::Connections() const
{
    return m_state->nConnections;
}
