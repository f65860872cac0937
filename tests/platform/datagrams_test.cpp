// datagrams_test.cpp: UDP and multicast as discovery uses them. The loopback interface takes part in multicast on every
// system here, so that nothing leaves this machine.
#include "platform/datagrams.h"
#include "platform/errors.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include <string>
#include <vector>

using namespace platform;

namespace {

constexpr uint32_t LOOPBACK = 0x0100007F, GROUP = 0x4D0000EF; // 127.0.0.1, 239.0.0.77

class Datagrams : public MachineTest {
  protected:
    WinsockStarted m_Winsock;
};

// Bound to the port (network order, 0 any); the port it got in *pnPort.
SOCKET Bound(uint16_t *pnPort, bool bShared)
{
    sockaddr_in    address = {AF_INET, *pnPort, 0, {}};
    int32_t        cb      = sizeof(address);
    const uint32_t dwOn    = 1;
    const SOCKET   s       = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (bShared) {
        EXPECT_EQ(0, setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char *>(&dwOn), 4));
    }
    EXPECT_EQ(0, bind(s, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << WSAGetLastError();
    EXPECT_EQ(0, getsockname(s, reinterpret_cast<sockaddr *>(&address), &cb));
    *pnPort = address.sin_port;
    return s;
}

int32_t SendTo(SOCKET s, uint32_t dwAddress, uint16_t nPort, const std::string &sBytes)
{
    const sockaddr_in to = {AF_INET, nPort, dwAddress, {}};
    return sendto(s, sBytes.data(), static_cast<int32_t>(sBytes.size()), 0, reinterpret_cast<const sockaddr *>(&to),
                  sizeof(to));
}

// What arrives within a second; "" when nothing does.
std::string ReceiveFrom(SOCKET s, sockaddr_in *pFrom)
{
    char      aBytes[64];
    int32_t   cbFrom = sizeof(*pFrom);
    WSAPOLLFD wait   = {s, POLLIN, 0};
    if (WSAPoll(&wait, 1, 1000) != 1 || (wait.revents & POLLIN) == 0) return "";
    const int32_t cb = recvfrom(s, aBytes, sizeof(aBytes), 0, reinterpret_cast<sockaddr *>(pFrom), &cbFrom);
    return cb < 0 ? "error " + std::to_string(WSAGetLastError()) : std::string(aBytes, static_cast<size_t>(cb));
}

bool Join(SOCKET s, int32_t nOption)
{
    const ip_mreq member = {GROUP, LOOPBACK};
    return setsockopt(s, IPPROTO_IP, nOption, reinterpret_cast<const char *>(&member), sizeof(member)) == 0;
}

} // namespace

TEST_F(Datagrams, OneArrivesWholeWithItsSender)
{
    uint16_t     nPort = 0, nSender = 0;
    const SOCKET hServer = Bound(&nPort, false), hClient = Bound(&nSender, false);
    sockaddr_in  from = {};
    char         aShort[4];
    int32_t      cbFrom = sizeof(from);
    EXPECT_EQ(5, SendTo(hClient, LOOPBACK, nPort, "hello"));
    EXPECT_EQ("hello", ReceiveFrom(hServer, &from));
    EXPECT_EQ(LOOPBACK, from.sin_addr);
    EXPECT_EQ(nSender, from.sin_port);
    EXPECT_EQ(8, SendTo(hClient, LOOPBACK, nPort, "too long"));
    EXPECT_EQ(SOCKET_ERROR, recvfrom(hServer, aShort, sizeof(aShort), 0, reinterpret_cast<sockaddr *>(&from), &cbFrom));
    EXPECT_EQ(WSAEMSGSIZE, WSAGetLastError());
    EXPECT_EQ(SOCKET_ERROR, listen(hServer, 1)) << "no stream";
    WSAPOLLFD aWaits[2] = {{hServer, POLLIN, 0}, {hClient, POLLIN, 0}};
    EXPECT_EQ(0, WSAPoll(aWaits, 2, 10));
    EXPECT_EQ(0, closesocket(hServer));
    EXPECT_EQ(0, closesocket(hClient));
}

TEST_F(Datagrams, APortIsSharedByThoseThatSaySo)
{
    uint16_t     nShared = 0, nOwn = 0;
    const SOCKET hFirst = Bound(&nShared, true), hSecond = Bound(&nShared, true), hOwn = Bound(&nOwn, false);
    sockaddr_in  address = {AF_INET, nOwn, 0, {}}, from = {};
    const SOCKET hThird = socket(AF_INET, SOCK_DGRAM, 0), hSender = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(SOCKET_ERROR, bind(hThird, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
    EXPECT_EQ(WSAEADDRINUSE, WSAGetLastError());

    // every member gets a copy of a multicast, with the hops asked for or more; who has left gets none
    const uint32_t dwInterface = LOOPBACK, dwHops = 255;
    EXPECT_TRUE(Join(hFirst, IP_ADD_MEMBERSHIP)) << WSAGetLastError();
    EXPECT_TRUE(Join(hSecond, IP_ADD_MEMBERSHIP)) << WSAGetLastError();
    EXPECT_EQ(0, setsockopt(hSender, IPPROTO_IP, IP_MULTICAST_IF, reinterpret_cast<const char *>(&dwInterface), 4));
    EXPECT_EQ(0, setsockopt(hSender, IPPROTO_IP, IP_MULTICAST_TTL, reinterpret_cast<const char *>(&dwHops), 4));
    EXPECT_EQ(4, SendTo(hSender, GROUP, nShared, "both")) << WSAGetLastError();
    EXPECT_EQ("both", ReceiveFrom(hFirst, &from));
    EXPECT_EQ("both", ReceiveFrom(hSecond, &from));
    EXPECT_EQ(LOOPBACK, from.sin_addr);
    EXPECT_TRUE(Join(hFirst, IP_DROP_MEMBERSHIP));
    EXPECT_FALSE(Join(hFirst, IP_DROP_MEMBERSHIP)) << "no member any more";
    for (const SOCKET s : {hFirst, hSecond, hOwn, hThird, hSender}) EXPECT_EQ(0, closesocket(s));
}

TEST_F(Datagrams, AddressesOfThisMachineAreListed)
{
    uint32_t             cb = 0;
    std::vector<uint8_t> aBytes;
    uint32_t             dwError;
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetIpAddrTable(nullptr, &cb, 0));
    do aBytes.resize(cb);
    while ((dwError = GetIpAddrTable(reinterpret_cast<MIB_IPADDRTABLE *>(aBytes.data()), &cb, 1)) ==
           ERROR_INSUFFICIENT_BUFFER);
    ASSERT_EQ(ERROR_SUCCESS, dwError);
    const auto *pTable    = reinterpret_cast<const MIB_IPADDRTABLE *>(aBytes.data());
    bool        bLoopback = false;
    for (uint32_t i = 0; i < pTable->dwNumEntries; i++) {
        const MIB_IPADDRROW &row = pTable->table[i];
        EXPECT_NE(0u, row.dwIndex);
        if (row.dwAddr == LOOPBACK) bLoopback = row.dwMask == 0x000000FF;
    }
    EXPECT_TRUE(bLoopback);
}
