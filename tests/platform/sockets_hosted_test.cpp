// sockets_hosted_test.cpp: stale values, what a hold does behind the scenes, and a line that is cut.
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

TEST_F(HostedSockets, AHoldSendsOnceAndLeavesNothingBehind)
{
    LinkPair link;
    char     aBytes[200];
    LinkPair::SetTimeout(link.hServer, SO_RCVTIMEO, 50);
    HoldSends(link.hClient);
    for (int i = 0; i < 10; i++) ASSERT_EQ(10, send(link.hClient, "0123456789", 10, 0));
    ExpectReceiveTimeout(link.hServer);
    EXPECT_EQ(0, FlushSends(link.hClient));
    EXPECT_EQ(100, recv(link.hServer, aBytes, sizeof(aBytes), 0));
    EXPECT_EQ(10, hosted::CallCount("send"));
    // a close in the middle of a hold gives the bytes away as a plain send would have
    HoldSends(link.hClient);
    ASSERT_EQ(4, send(link.hClient, "last", 4, 0));
    LinkPair::Close(&link.hClient);
    EXPECT_EQ(4, recv(link.hServer, aBytes, sizeof(aBytes), 0));
    EXPECT_EQ(0, recv(link.hServer, aBytes, sizeof(aBytes), 0));
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
    LinkPair    link, other;
    char        aBytes[100];
    int32_t     nError = 0;
    std::thread receiver([&] { // blocked by the time of the cut or not: it ends
        char aByte[1];
        EXPECT_EQ(SOCKET_ERROR, recv(other.hServer, aByte, 1, 0));
        nError = WSAGetLastError();
    });
    hosted::CutLinkAfter(15);
    EXPECT_EQ(10, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(5, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(SOCKET_ERROR, send(link.hClient, "0123456789", 10, 0));
    EXPECT_EQ(WSAECONNRESET, WSAGetLastError());
    EXPECT_EQ(SOCKET_ERROR, recv(link.hServer, aBytes, sizeof(aBytes), 0));
    EXPECT_EQ(WSAECONNRESET, WSAGetLastError());
    receiver.join();
    EXPECT_EQ(WSAECONNRESET, nError);
    LinkPair later;
    EXPECT_EQ(10, send(later.hClient, "0123456789", 10, 0));
    EXPECT_EQ(10, recv(later.hServer, aBytes, sizeof(aBytes), 0));
}
