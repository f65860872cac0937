// sockets_test.cpp: Winsock as this system uses it.
#include "platform/errors.h"
#include "platform/kernel.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

using namespace platform;

namespace {

class Sockets : public MachineTest {
  protected:
    WinsockStarted m_Winsock;
};

std::string Pattern(size_t cb)
{
    std::string sBytes(cb, '\0');
    uint32_t    nState = 12345;
    for (char &ch : sBytes) ch = static_cast<char>((nState = nState * 1664525 + 1013904223) >> 24);
    return sBytes;
}

// Everything up to the orderly close.
std::string ReceiveAll(SOCKET s)
{
    std::string sAll;
    char        aPiece[4096];
    for (int32_t cb; (cb = recv(s, aPiece, sizeof(aPiece), 0)) > 0;) sAll.append(aPiece, static_cast<size_t>(cb));
    return sAll;
}

bool SendAll(SOCKET s, const std::string &sBytes)
{
    for (size_t i = 0; i < sBytes.size();) {
        const int32_t cb =
            send(s, sBytes.data() + i, static_cast<int32_t>(std::min<size_t>(4096, sBytes.size() - i)), 0);
        if (cb <= 0) return false;
        i += static_cast<size_t>(cb);
    }
    return true;
}

} // namespace

TEST_F(Sockets, AddressesAreResolved)
{
    static const struct {
        const char *pszNode, *pszService;
        int32_t     nFlags, nExpected;
        uint32_t    nAddress; // as bytes in memory
        uint16_t    nPort;
    } aCases[] = {
        {nullptr, "0", AI_PASSIVE, 0, 0, 0},
        {nullptr, "65535", 0, 0, 0x0100007F, 65535},
        {"localhost", "9001", 0, 0, 0x0100007F, 9001},
        {"10.1.2.3", "80", 0, 0, 0x0302010A, 80},
        {"127.0.0.1", "no such service", 0, WSATYPE_NOT_FOUND, 0, 0},
        {nullptr, "9x", AI_PASSIVE, WSATYPE_NOT_FOUND, 0, 0},
    };
    for (const auto &c : aCases) {
        const std::string sCase = std::string(c.pszNode ? c.pszNode : "-") + " " + (c.pszService ? c.pszService : "-");
        addrinfo          hints = {};
        addrinfo         *pResult = nullptr;
        hints.ai_family           = AF_INET;
        hints.ai_socktype         = SOCK_STREAM;
        hints.ai_protocol         = IPPROTO_TCP;
        hints.ai_flags            = c.nFlags;
        EXPECT_EQ(c.nExpected, getaddrinfo(c.pszNode, c.pszService, &hints, &pResult)) << sCase;
        if (c.nExpected != 0) continue;
        ASSERT_NE(nullptr, pResult) << sCase;
        sockaddr_in address;
        std::memcpy(&address, pResult->ai_addr, sizeof(address));
        EXPECT_EQ(c.nAddress, address.sin_addr) << sCase;
        EXPECT_EQ(c.nPort, ntohs(address.sin_port)) << sCase;
        freeaddrinfo(pResult);
    }
}

TEST_F(Sockets, APortIsTakenWhileBoundAndFreeAfterOldConnections)
{
    sockaddr_in address = {};
    uint16_t    nPort   = 0;
    SOCKET      hListen = ListenOnLoopback(&nPort), hClient = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    SOCKET      hBound = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP), hOther = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    int32_t     cb     = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr   = 0x0100007F;
    ASSERT_EQ(0, bind(hBound, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
    ASSERT_EQ(0, getsockname(hBound, reinterpret_cast<sockaddr *>(&address), &cb));
    EXPECT_EQ(SOCKET_ERROR, bind(hOther, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << "merely bound";
    EXPECT_EQ(WSAEADDRINUSE, WSAGetLastError());
    address.sin_port = nPort;
    EXPECT_EQ(SOCKET_ERROR, bind(hOther, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << "listening";
    EXPECT_EQ(WSAEADDRINUSE, WSAGetLastError());

    // the accepting side ends first, so its end of the connection waits out its time on this port
    ASSERT_EQ(0, ConnectToLoopback(hClient, nPort));
    const SOCKET hServer = accept(hListen, nullptr, nullptr);
    char         aByte[1];
    EXPECT_EQ(0, closesocket(hServer));
    EXPECT_EQ(0, recv(hClient, aByte, 1, 0));
    EXPECT_EQ(0, closesocket(hClient));
    EXPECT_EQ(0, closesocket(hListen));
    EXPECT_EQ(0, bind(hOther, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << WSAGetLastError();
    EXPECT_EQ(0, listen(hOther, SOMAXCONN)) << WSAGetLastError();
    closesocket(hOther);
    closesocket(hBound);
}

TEST_F(Sockets, AReceiveTakesWhatIsThereAndThenTimesOut)
{
    LinkPair link;
    char     aBytes[4096];
    LinkPair::SetTimeout(link.hServer, SO_RCVTIMEO, 100);
    for (int nRound = 0; nRound < 2; nRound++) { // a time-out leaves the socket as it was
        ASSERT_EQ(10, send(link.hClient, "0123456789", 10, 0));
        ASSERT_EQ(4, recv(link.hServer, aBytes, 4, 0)) << WSAGetLastError();
        EXPECT_EQ("0123", std::string(aBytes, 4));
        ASSERT_EQ(6, recv(link.hServer, aBytes, sizeof(aBytes), 0)) << "no wait for the rest of the buffer";
        EXPECT_EQ("456789", std::string(aBytes, 6));
        EXPECT_EQ(SOCKET_ERROR, recv(link.hServer, aBytes, sizeof(aBytes), 0));
        EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
        EXPECT_EQ(10060u, GetLastError());
    }
}

TEST_F(Sockets, AnOrderlyCloseComesAfterTheBytesAndStays)
{
    LinkPair link;
    char     aBytes[16];
    ASSERT_EQ(3, send(link.hClient, "end", 3, 0));
    LinkPair::Close(&link.hClient);
    EXPECT_EQ("end", ReceiveAll(link.hServer));
    for (int i = 0; i < 3; i++) EXPECT_EQ(0, recv(link.hServer, aBytes, sizeof(aBytes), 0));
}

TEST_F(Sockets, ACloseFromAnotherThreadEndsABlockedCall)
{
    // systems and moments differ in which of these a blocked call gets; none of them is a time-out or a success
    const std::set<int32_t> codes = {WSAENOTSOCK, WSAEINTR, WSAECONNABORTED, WSAESHUTDOWN};
    for (const char *pszCall : {"recv", "recv with a time-out", "recv, shut down", "send", "accept"}) {
        LinkPair          link;
        uint16_t          nPort  = 0;
        SOCKET            hInUse = *pszCall == 'a' ? ListenOnLoopback(&nPort) : link.hClient;
        std::atomic<bool> bAbout{false};
        int32_t           nError = 0;
        if (std::string(pszCall).size() > 6) LinkPair::SetTimeout(hInUse, SO_RCVTIMEO, 60000);
        std::thread blocked([&] {
            char              aByte[1];
            const std::string sMuch(65536, 'x');
            bAbout = true;
            switch (*pszCall) {
            case 'r': recv(hInUse, aByte, 1, 0); break;
            case 's':
                while (SendAll(hInUse, sMuch)) {
                }
                break;
            default: accept(hInUse, nullptr, nullptr); break;
            }
            nError = WSAGetLastError();
        });
        while (!bAbout) std::this_thread::yield();
        Sleep(50); // it then blocks; a close that comes first must end it as well
        if (std::string(pszCall) == "recv, shut down") {
            EXPECT_EQ(0, shutdown(hInUse, SD_BOTH)); // the peer is silent, and does not end its side
            blocked.join();
        }
        EXPECT_EQ(0, closesocket(hInUse)) << pszCall;
        if (hInUse == link.hClient) link.hClient = INVALID_SOCKET;
        if (blocked.joinable()) blocked.join();
        EXPECT_TRUE(codes.contains(nError)) << pszCall << " " << nError;
    }
}

TEST_F(Sockets, WhatCanBeReceivedAtOnceIsKnown)
{
    LinkPair link;
    char     aBytes[8];
    EXPECT_FALSE(CanReceive(link.hServer, 1));
    EXPECT_TRUE(SendAll(link.hClient, Pattern(4000)));
    while (!CanReceive(link.hServer, 4000)) std::this_thread::yield();
    EXPECT_FALSE(CanReceive(link.hServer, 4001));
    EXPECT_EQ(8, recv(link.hServer, aBytes, 8, 0)); // a backend may have taken more
    EXPECT_TRUE(CanReceive(link.hServer, 3992));
    EXPECT_FALSE(CanReceive(link.hServer, 3993));
    EXPECT_FALSE(CanReceive(INVALID_SOCKET, 1));
}

TEST_F(Sockets, AFailureBehindAHoldIsReported)
{
    LinkPair          link;
    const std::string sBytes = Pattern(40000);
    LinkPair::Close(&link.hServer);
    // the peer answers the first bytes with a reset, so at some later exchange at the latest it must show
    int32_t nError = 0;
    for (int i = 0; i < 1000 && nError == 0; i++) {
        HoldSends(link.hClient);
        if (!SendAll(link.hClient, sBytes)) nError = WSAGetLastError();
        if (FlushSends(link.hClient) != 0) nError = WSAGetLastError();
    }
    EXPECT_TRUE(nError == WSAECONNRESET || nError == WSAECONNABORTED) << nError;
}

// A dead peer's connection stays broken however often it is asked: a receive that says "closed in good order" after the
// reset would be waited on until the link's own time-outs.
TEST_F(Sockets, ASendThatNobodyTakesTimesOut)
{
    LinkPair          link;
    const std::string sPiece(16384, 'x');
    int32_t           nSent = 0;
    LinkPair::SetTimeout(link.hClient, SO_SNDTIMEO, 200);
    for (int i = 0; i < 10000 && nSent >= 0; i++) nSent = send(link.hClient, sPiece.data(), 16384, 0);
    EXPECT_EQ(SOCKET_ERROR, nSent);
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
}

TEST_F(Sockets, AResetIsSaidByEveryReceiveThatFollows)
{
    for (const bool bWaiting : {false, true}) {
        LinkPair          link;
        std::atomic<bool> bAbout{false}, bClosed{false};
        std::string       sSaid;
        EXPECT_TRUE(SendAll(link.hClient, "unread")); // bytes that nobody read make a close a reset
        std::thread receiver([&] {
            while (!bWaiting && !bClosed) std::this_thread::yield();
            for (int i = 0; i < 3; i++) {
                char ch = 0;
                bAbout  = true;
                if (recv(link.hClient, &ch, 1, 0) != SOCKET_ERROR) sSaid += "closed ";
                else sSaid += WSAGetLastError() == WSAECONNRESET ? "reset " : std::to_string(WSAGetLastError());
                while (!bClosed) std::this_thread::yield(); // the reset comes with the end of the close
            }
        });
        while (bWaiting && !bAbout) std::this_thread::yield();
        Sleep(50); // it then blocks, or what it will ask has happened already
        LinkPair::Close(&link.hServer);
        bClosed = true;
        receiver.join();
        // Who waits may hear of the close itself before the reset comes.
        if (bWaiting && sSaid.rfind("closed ", 0) == 0) sSaid.replace(0, 6, "reset");
        EXPECT_EQ("reset reset reset ", sSaid) << bWaiting;
    }
}
