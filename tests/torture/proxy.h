// proxy.h: a line between two machines that can be cut, held, slowed and falsified.
// It mirrors the announcements of one rendezvous folder into another under a port of its own, so that the client of one
// machine comes through it to the server of the other.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

enum class LineEnd { Reset, Close, HalfClose };

struct ProxyState;
class Proxy {
  public:
    Proxy(const std::string &sServers, const std::string &sClients); // rendezvous folders
    ~Proxy();
    Proxy(const Proxy &)            = delete;
    Proxy &operator=(const Proxy &) = delete;

    // Everything as it comes; counts and plans of an earlier run are forgotten.
    void     Begin();
    uint64_t Passed() const; // bytes from the server to its client since Begin
    // Once so many bytes have passed that way, calls fn on the line's thread before the next byte goes.
    void At(uint64_t cb, std::function<void()> fn);
    void Hold(bool bHold);    // nothing goes either way, and nobody is told
    void Trickle(bool bSlow); // a few hundred bytes a time
    void End(LineEnd eEnd);   // of every connection; half-close: of the server's direction
    // Flips a bit of the byte at nOffset behind the nth occurrence of sMark in that direction.
    void           Flip(bool bFromServer, const std::string &sMark, unsigned nth, unsigned nOffset, unsigned nBit);
    bool           Flipped() const;
    unsigned short ServerPort() const; // that was announced last, 0 before
    int            Connections() const;

  private:
    std::shared_ptr<ProxyState> m_state;
};
