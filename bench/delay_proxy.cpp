// delay_proxy.cpp: two threads for each direction of a connection: one reads and stamps, one waits and writes.
// An end of stream travels like the bytes; a broken side breaks the other.
#include "bench/delay_proxy.h"
#include <arpa/inet.h>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t READ_BYTES = 256u << 10;

struct Parcel {
    Clock::time_point tDue;
    std::vector<char> bytes; // empty: the stream ends
};

struct Sockets { // closed when both directions are over
    const int nNear, nFar;
    Sockets(int nNearEnd, int nFarEnd) : nNear(nNearEnd), nFar(nFarEnd) {}
    Sockets(const Sockets &) = delete;
    ~Sockets()
    {
        close(nNear);
        close(nFar);
    }
};

struct Direction {
    std::shared_ptr<Sockets> sockets;
    int                      nFrom, nTo;
    std::chrono::nanoseconds delay;
    std::mutex               lock; // guards the three below
    std::condition_variable  changed;
    std::deque<Parcel>       queue;
    size_t                   cbQueued = 0;
    bool                     bBroken  = false; // the far end takes no more
};

void ReadAndStamp(const std::shared_ptr<Direction> &direction)
{
    std::vector<char> block(READ_BYTES);
    for (;;) {
        const ssize_t                n    = recv(direction->nFrom, block.data(), block.size(), 0);
        const auto                   tDue = Clock::now() + direction->delay;
        std::unique_lock<std::mutex> lock(direction->lock);
        direction->changed.wait(lock, [&] { return direction->bBroken || direction->cbQueued < DELAY_QUEUE_BYTES; });
        if (direction->bBroken) return;
        direction->queue.push_back({tDue, {block.data(), block.data() + (n > 0 ? n : 0)}});
        direction->cbQueued += static_cast<size_t>(n > 0 ? n : 0);
        direction->changed.notify_all();
        if (n <= 0) return;
    }
}

bool WriteAll(int nTo, const std::vector<char> &bytes)
{
    for (size_t cbDone = 0; cbDone < bytes.size();) {
        const ssize_t n = send(nTo, bytes.data() + cbDone, bytes.size() - cbDone, MSG_NOSIGNAL);
        if (n <= 0) return false;
        cbDone += static_cast<size_t>(n);
    }
    return true;
}

void WaitAndWrite(const std::shared_ptr<Direction> &direction)
{
    prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0); // the delay shall be what it says, not 50 us more
    for (bool bGoOn = true; bGoOn;) {
        std::unique_lock<std::mutex> lock(direction->lock);
        direction->changed.wait(lock, [&] { return !direction->queue.empty(); });
        const Parcel parcel = std::move(direction->queue.front());
        direction->queue.pop_front();
        lock.unlock();
        std::this_thread::sleep_until(parcel.tDue);
        bGoOn = !parcel.bytes.empty() && WriteAll(direction->nTo, parcel.bytes);
        lock.lock();
        direction->cbQueued -= parcel.bytes.size();
        if (!bGoOn) direction->bBroken = true;
        direction->changed.notify_all();
    }
    shutdown(direction->nTo, SHUT_WR);
    shutdown(direction->nFrom, SHUT_RD); // the reader, if it still runs, finds its end
}

void StartDirection(const std::shared_ptr<Sockets> &sockets, int nFrom, int nTo, std::chrono::microseconds delay)
{
    const auto direction = std::make_shared<Direction>();
    direction->sockets   = sockets;
    direction->nFrom     = nFrom;
    direction->nTo       = nTo;
    direction->delay     = delay;
    std::thread([direction] { ReadAndStamp(direction); }).detach();
    std::thread([direction] { WaitAndWrite(direction); }).detach();
}

sockaddr_in Loopback(uint16_t nPort)
{
    sockaddr_in address     = {};
    address.sin_family      = AF_INET;
    address.sin_port        = htons(nPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void Serve(int nListener, uint16_t nTarget, std::chrono::microseconds delay)
{
    for (;;) {
        const int nNear = accept(nListener, nullptr, nullptr);
        if (nNear < 0) continue;
        const auto        sockets = std::make_shared<Sockets>(nNear, socket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in address = Loopback(nTarget);
        const int         bOn     = 1;
        if (connect(sockets->nFar, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) continue;
        setsockopt(sockets->nNear, IPPROTO_TCP, TCP_NODELAY, &bOn, sizeof(bOn));
        setsockopt(sockets->nFar, IPPROTO_TCP, TCP_NODELAY, &bOn, sizeof(bOn));
        StartDirection(sockets, sockets->nNear, sockets->nFar, delay);
        StartDirection(sockets, sockets->nFar, sockets->nNear, delay);
    }
}

} // namespace

uint16_t StartDelayProxy(uint16_t nTarget, std::chrono::microseconds delay)
{
    sockaddr_in address   = Loopback(0);
    socklen_t   cb        = sizeof(address);
    const int   nListener = socket(AF_INET, SOCK_STREAM, 0);
    if (nListener < 0 || bind(nListener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(nListener, 16) != 0 || getsockname(nListener, reinterpret_cast<sockaddr *>(&address), &cb) != 0)
        return 0;
    std::thread([=] { Serve(nListener, nTarget, delay); }).detach();
    return ntohs(address.sin_port);
}
