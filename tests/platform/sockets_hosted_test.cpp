// sockets_hosted_test.cpp: generations, time-outs on the process's clock, what a hold does behind the scenes, and
// pretended link trouble.
#include "platform/hosted/control.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

namespace {

class HostedSockets : public MachineTest {
protected:
    WinsockStarted m_Winsock;
};

int64_t MillisecondsOf(const std::function<void()> &fn)
{
    const auto start = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

void ExpectReceiveTimeout(SOCKET s)
{
    char aByte[1];
    EXPECT_EQ(SOCKET_ERROR, recv(s, aByte, 1, 0));
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
}

} // namespace

TEST_F(HostedSockets, AStaleSocketNeverReachesALaterOne)
{
    const SOCKET hOld = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(0, closesocket(hOld));
    for (int i = 0; i < 100; i++) {
        const SOCKET hNew = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        EXPECT_NE(hOld, hNew);
        EXPECT_EQ(SOCKET_ERROR, closesocket(hOld));
        EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
        EXPECT_EQ(0, closesocket(hNew));
    }
    for (const SOCKET h : {SOCKET{0}, SOCKET{4}, INVALID_SOCKET, INVALID_SOCKET - 3})
        EXPECT_EQ(SOCKET_ERROR, closesocket(h)) << h;
    EXPECT_EQ(0, hosted::OpenSockets());
}

TEST_F(HostedSockets, TheLastCleanupEndsEverySocket)
{
    LinkPair link;
    char     aByte[1];
    ASSERT_EQ(2, hosted::OpenSockets());
    EXPECT_EQ(0, WSACleanup());
    EXPECT_EQ(0, hosted::OpenSockets());
    EXPECT_EQ(SOCKET_ERROR, recv(link.hClient, aByte, 1, 0));
    EXPECT_EQ(WSANOTINITIALISED, WSAGetLastError());
    WinsockStarted again;
    EXPECT_EQ(SOCKET_ERROR, recv(link.hClient, aByte, 1, 0));
    EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
}

TEST_F(HostedSockets, TimeoutsFollowTheClockAndTheirReplacement)
{
    LinkPair link;
    LinkPair::SetTimeout(link.hServer, SO_RCVTIMEO, 8000);
    hosted::SetSocketTimeout(60);
    int64_t nElapsed = MillisecondsOf([&] { ExpectReceiveTimeout(link.hServer); });
    EXPECT_GE(nElapsed, 50);
    EXPECT_LT(nElapsed, 4000) << "60 ms instead of 8000";

    hosted::SetSocketTimeout(0);
    hosted::SetClockRate(100);
    nElapsed = MillisecondsOf([&] { ExpectReceiveTimeout(link.hServer); });
    EXPECT_GE(nElapsed, 70);
    EXPECT_LT(nElapsed, 4000) << "8000 ms at a hundred times the speed";

    hosted::SetSocketTimeout(3600000);
    LinkPair::SetTimeout(link.hServer, SO_RCVTIMEO, 7000);
    nElapsed = MillisecondsOf([&] { ExpectReceiveTimeout(link.hServer); });
    EXPECT_LT(nElapsed, 4000) << "only 8000 ms is replaced";
}

TEST_F(HostedSockets, AHoldSendsOnceAndLeavesNothingBehind)
{
    LinkPair link;
    char     aBytes[200];
    LinkPair::SetTimeout(link.hServer, SO_RCVTIMEO, 50);
    HoldSends(link.hClient);
    for (int i = 0; i < 10; i++) ASSERT_EQ(10, send(link.hClient, "0123456789", 10, 0));
    ExpectReceiveTimeout(link.hServer);
    EXPECT_EQ(0, FlushSends(link.hClient));
    EXPECT_EQ(100, recv(link.hServer, aBytes, sizeof aBytes, 0));
    EXPECT_EQ(10, hosted::CallCount("send"));
    // a close in the middle of a hold gives the bytes away as a plain send would have
    HoldSends(link.hClient);
    ASSERT_EQ(4, send(link.hClient, "last", 4, 0));
    LinkPair::Close(&link.hClient);
    EXPECT_EQ(4, recv(link.hServer, aBytes, sizeof aBytes, 0));
    EXPECT_EQ(0, recv(link.hServer, aBytes, sizeof aBytes, 0));
}

TEST_F(HostedSockets, ATimeoutBehindAHoldEndsTheExchange)
{
    LinkPair          link;
    const std::string sPiece(4096, 'x');
    int32_t           nSent = 0;
    LinkPair::SetTimeout(link.hClient, SO_SNDTIMEO, 50);
    HoldSends(link.hClient);
    for (int i = 0; i < 100000 && nSent >= 0; i++)
        nSent = send(link.hClient, sPiece.data(), 4096, 0); // nobody receives
    EXPECT_EQ(SOCKET_ERROR, nSent);
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
    const int64_t nElapsed = MillisecondsOf([&] {
        for (int i = 0; i < 100; i++) EXPECT_EQ(SOCKET_ERROR, send(link.hClient, "x", 1, 0));
    });
    EXPECT_LT(nElapsed, 2000) << "no further waits once the exchange is lost";
    EXPECT_EQ(SOCKET_ERROR, FlushSends(link.hClient));
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
    EXPECT_EQ(0, FlushSends(link.hClient)) << "reported once";
}

TEST_F(HostedSockets, ACutBreaksTheConnectionsOfItsMoment)
{
    LinkPair link;
    char     aBytes[100];
    hosted::CutLinkAfter(15);
    EXPECT_EQ(10, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(5, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(SOCKET_ERROR, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(WSAECONNRESET, WSAGetLastError());
    EXPECT_EQ(SOCKET_ERROR, recv(link.hServer, aBytes, sizeof aBytes, 0));
    EXPECT_EQ(WSAECONNRESET, WSAGetLastError());
    LinkPair later;
    EXPECT_EQ(10, send(later.hClient, "0123456789", 10, 0));
    EXPECT_EQ(10, recv(later.hServer, aBytes, sizeof aBytes, 0));
}

TEST_F(HostedSockets, ACutWakesABlockedReceiver)
{
    LinkPair    link, other;
    int32_t     nError = 0;
    std::thread receiver([&] {
        char aByte[1];
        EXPECT_EQ(SOCKET_ERROR, recv(other.hServer, aByte, 1, 0));
        nError = WSAGetLastError();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30)); // likely blocked by then; both orders must work
    hosted::CutLinkAfter(1);
    EXPECT_EQ(1, send(link.hClient, "x", 1, 0));
    receiver.join();
    EXPECT_EQ(WSAECONNRESET, nError);
}

TEST_F(HostedSockets, ADelayHoldsEachRealSend)
{
    LinkPair link;
    hosted::SetLinkDelay(40);
    EXPECT_GE(MillisecondsOf([&] {
                  HoldSends(link.hClient);
                  for (int i = 0; i < 50; i++) send(link.hClient, "x", 1, 0);
                  EXPECT_EQ(0, FlushSends(link.hClient));
              }),
              40);
    EXPECT_GE(MillisecondsOf([&] {
                  for (int i = 0; i < 3; i++) send(link.hClient, "x", 1, 0);
              }),
              120);
}

TEST_F(HostedSockets, EachCallFailsWhenAskedAndLeaksNothing)
{
    LinkPair       link;
    char           aByte[1] = {'x'};
    uint16_t       nPort    = 0;
    int32_t        cb       = sizeof(sockaddr);
    sockaddr       address  = {};
    addrinfo      *pInfo    = nullptr;
    WSADATA        data;
    const SOCKET   hListen = ListenOnLoopback(&nPort);
    const uint32_t dwValue = 1;
    const char    *pValue  = reinterpret_cast<const char *>(&dwValue);
    const int      nSockets = hosted::OpenSockets(), nBlocks = hosted::LiveBlocks();
    const struct {
        const char              *pszCall;
        std::function<int64_t()> fn;
    } aCases[] = {
        {"socket", [&] { return static_cast<int64_t>(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }},
        {"bind", [&] { return bind(hListen, &address, cb); }},
        {"listen", [&] { return listen(hListen, 1); }},
        {"accept", [&] { return static_cast<int64_t>(accept(hListen, nullptr, nullptr)); }},
        {"connect", [&] { return ConnectToLoopback(hListen, nPort); }},
        {"getsockname", [&] { return getsockname(hListen, &address, &cb); }},
        {"setsockopt", [&] { return setsockopt(link.hClient, SOL_SOCKET, SO_SNDTIMEO, pValue, 4); }},
        {"send", [&] { return send(link.hClient, aByte, 1, 0); }},
        {"FlushSends", [&] { return FlushSends(link.hClient); }},
        {"recv", [&] { return recv(link.hServer, aByte, 1, 0); }},
        {"shutdown", [&] { return shutdown(link.hClient, SD_BOTH); }},
        {"closesocket", [&] { return closesocket(link.hClient); }},
        {"WSACleanup", [&] { return WSACleanup(); }},
        {"WSAStartup", [&] { return WSAStartup(0x0202, &data) == WSAENOBUFS ? -1 : 0; }},
        {"getaddrinfo", [&] { return getaddrinfo("127.0.0.1", "1", nullptr, &pInfo) == WSAENOBUFS ? -1 : 0; }},
    };
    for (const auto &c : aCases) {
        hosted::FailCall(c.pszCall, 1, static_cast<uint32_t>(WSAENOBUFS));
        WSASetLastError(0);
        EXPECT_EQ(-1, c.fn()) << c.pszCall;
        EXPECT_EQ(WSAENOBUFS, WSAGetLastError()) << c.pszCall;
        EXPECT_EQ(nSockets, hosted::OpenSockets()) << c.pszCall;
        EXPECT_EQ(nBlocks, hosted::LiveBlocks()) << c.pszCall;
    }
    // nothing of this touched the link
    EXPECT_EQ(1, send(link.hClient, aByte, 1, 0));
    EXPECT_EQ(1, recv(link.hServer, aByte, 1, 0));
    EXPECT_EQ(1, hosted::WinsockStarts());
    closesocket(hListen);
}
