// proxy.h: a line between two machines that can be cut, held, slowed and falsified.
// It mirrors the announcements of one rendezvous folder into another under a port of its own, so that the client of one
// machine comes through it to the server of the other.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

enum class LineEnd { Reset, Close, HalfClose };

struct Proxy {
    Proxy(const std::string &sServerFolder, const std::string &sClientFolder); // rendezvous folders
    ~Proxy();
    Proxy(const Proxy &)            = delete;
    Proxy &operator=(const Proxy &) = delete;

    void Begin(); // everything as it comes; counts and plans of an earlier run are forgotten
    // Once so many bytes have come from the server, calls fn on the line's thread before the next one goes.
    void At(uint64_t cb, std::function<void()> fn);
    void End(LineEnd eEnd); // of every connection; half-close: of the server's direction
    // Flips a bit of the byte at nOffset behind the beginning of the nth occurrence of sMark in that direction.
    void Flip(bool bFromServer, const std::string &sMark, unsigned nth, unsigned nOffset, unsigned nBit);

    std::atomic<bool>           bHold{false};    // nothing goes either way, and nobody is told
    std::atomic<bool>           bTrickle{false}; // some hundred bytes a time
    std::atomic<bool>           bFlipped{false};
    std::atomic<uint64_t>       cbPassed{0};    // from the server to its client since Begin
    std::atomic<unsigned short> nServerPort{0}; // announced last, 0 before
    std::atomic<int>            nConnections{0};

    std::string           sServers, sClients;
    int                   fdListen = -1;
    unsigned short        nPort    = 0;
    std::atomic<bool>     bStop{false};
    std::atomic<int>      nEnd{-1}; // a LineEnd to be carried out, or -1
    std::mutex            lock;     // of what follows
    uint64_t              cbTrigger = UINT64_MAX;
    std::function<void()> trigger;
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
