// The server's side of the handshake, on every backend.
#include "tests/net/net_fixture.h"

using namespace platform;

using ServerRole = NetTest;

TEST_F(ServerRole, AdmitsThePeerWithTheRightPasswordAndKeepsPortAndPassword)
{
    WriteSetting("LastServer", "Port", "no port"); // then the system chooses
    std::future<int32_t> status = StartServer("aBc123");
    const uint16_t       nPort  = NextListeningPort();
    for (const char *pszWrong : {"aBc12", "aBc1234", "aBc1239999", ""}) {
        Peer wrong = Peer::Connect(nPort);
        wrong.Send(Field(pszWrong));
        EXPECT_EQ(Field("PWACK=0"), wrong.Receive(10)) << pszWrong;
        EXPECT_EQ(1, g_bConnecting);
        EXPECT_NE(INVALID_SOCKET, g_ServerSendSocket) << "not closed from this side";
    }
    for (const char *pszRight : {"AbC123", "abc123"}) { // by PIN, and in the next session by what is stored
        Peer right = Peer::Connect(nPort);
        right.Send(Field(pszRight));
        EXPECT_EQ(Field("PWACK=1"), right.Receive(10));
        EXPECT_EQ(0, status.get());
        EXPECT_EQ(pszRight, Setting("LastServer", "PW"));
        EXPECT_EQ(std::to_string(nPort), Setting("LastServer", "Port"));
        right.Send(Field("KeepAlive"));
        EXPECT_EQ(Field("AckAlive"), right.Receive(10)) << "the listener runs";
        EndLink();
        status = StartServer("");
        EXPECT_EQ(nPort, NextListeningPort());
    }
    Peer::Connect(nPort).Close(); // it waits for peers by now
    ServerUninit();
    EXPECT_EQ(-1001, status.get());
}

TEST_F(ServerRole, APasswordThatDoesNotFitLeavesTheFieldEmpty)
{
    char szPassword[10];
    SetPassword("123456789");
    GetPassword(szPassword);
    EXPECT_STREQ("123456789", szPassword);
    errno = 0;
    SetPassword("1234567890");
    GetPassword(szPassword);
    EXPECT_STREQ("", szPassword);
    EXPECT_NE(0, errno);
}

TEST_F(ServerRole, AnEmptyPasswordAdmitsNobody)
{
    for (const char *pszPassword : {"", "0123456789"}) { // none was ever stored; one that does not fit
        WriteSetting("ServerMDNS", "Port", "");
        std::future<int32_t> status = std::async(std::launch::async, [pszPassword] { return ServerInit(pszPassword); });
        Peer                 peer   = Peer::Connect(NextListeningPort());
        peer.Send(Field(""));
        EXPECT_EQ(Field("PWACK=0"), peer.Receive(10)) << pszPassword;
        EXPECT_EQ(0, g_nListeners);
        EndLink();
        EXPECT_EQ(peer.Receive(10).size(), 0u);
        status.wait();
    }
}
