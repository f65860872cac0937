// proxy.cpp: a thread that mirrors announcements and accepts, and one for each connection.
#include "tests/torture/proxy.h"
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

constexpr size_t PIECE_BYTES = 16384, TRICKLE_BYTES = 200;

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

static void Falsify(Proxy *p, bool bFromServer, char *pb, size_t cb)
{
    const std::lock_guard<std::mutex> guard(p->lock);
    auto                             &flip = p->flip;
    for (size_t i = 0; i < cb && flip.nLeft != 0 && flip.bFromServer == bFromServer; i++) {
        if (flip.nIn < 0) {
            flip.nMatched = pb[i] == flip.sMark[flip.nMatched] ? flip.nMatched + 1 : pb[i] == flip.sMark[0] ? 1 : 0;
            if (flip.nMatched != flip.sMark.size()) continue;
            flip.nMatched = 0;
            if (flip.nLeft-- > 1) continue;
            flip.nLeft = 1;
            flip.nIn =
                std::max<int64_t>(static_cast<int64_t>(flip.nOffset + 1) - static_cast<int64_t>(flip.sMark.size()), 0);
        } else {
            flip.nIn--;
        }
        if (flip.nIn != 0) continue;
        pb[i] ^= static_cast<char>(1 << flip.nBit); // a byte within the mark stands for its last one
        flip.nLeft  = 0;
        p->bFlipped = true;
    }
}

static bool SendAll(Proxy *p, int fd, const char *pb, size_t cb)
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
static bool PassOn(Proxy *p, bool bFromServer, int fd, char *pb, size_t cb)
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
static void RunLine(Proxy *p, int fdServer, int fdClient)
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
static void Mirror(Proxy *p)
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

static void RunProxy(Proxy *p)
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

Proxy::Proxy(const std::string &sServerFolder, const std::string &sClientFolder)
    : sServers(sServerFolder), sClients(sClientFolder)
{
    sockaddr_in address     = {};
    socklen_t   cb          = sizeof(address);
    address.sin_family      = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    fdListen                = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fdListen, reinterpret_cast<sockaddr *>(&address), cb) != 0 || listen(fdListen, 16) != 0) std::abort();
    getsockname(fdListen, reinterpret_cast<sockaddr *>(&address), &cb);
    nPort = ntohs(address.sin_port);
    main  = std::thread(RunProxy, this);
}

Proxy::~Proxy()
{
    bStop = true;
    main.join();
    for (std::thread &line : lines) line.join();
    close(fdListen);
}

void Proxy::Begin()
{
    const std::lock_guard<std::mutex> guard(lock);
    bHold = bTrickle = bFlipped = false;
    cbPassed                    = 0;
    cbTrigger                   = UINT64_MAX;
    trigger                     = nullptr;
    flip                        = {};
}

void Proxy::At(uint64_t cb, std::function<void()> fn)
{
    const std::lock_guard<std::mutex> guard(lock);
    cbTrigger = cb;
    trigger   = std::move(fn);
}

void Proxy::Flip(bool bFromServer, const std::string &sMark, unsigned nth, unsigned nOffset, unsigned nBit)
{
    const std::lock_guard<std::mutex> guard(lock);
    flip = {bFromServer, sMark, nth, nOffset, nBit, 0, -1};
}

void Proxy::End(LineEnd eEnd)
{
    if (nConnections > 0) nEnd = static_cast<int>(eEnd);
}
