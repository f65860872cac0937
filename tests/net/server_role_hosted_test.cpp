// The server's side of the handshake, its status codes, and that a role which ends leaves nothing.
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

using ServerRole = NetTest;

static std::future<int32_t> StartServer(const char *pszPassword)
{
    return std::async(std::launch::async, [pszPassword] { return ServerInit(pszPassword); });
}

TEST_F(ServerRole, AdmitsThePeerWithTheRightPasswordAfterWrongAndSilentOnes)
{
    hosted::SetSocketTimeout(400);
    std::future<int32_t> status = StartServer("aBc123");
    const uint16_t       nPort  = NextListeningPort();
    Peer                 silent = Peer::Connect(nPort);
    EXPECT_EQ("", silent.Receive(10)) << "dropped after its time";
    Peer half = Peer::Connect(nPort);
    half.Send("aBc");
    EXPECT_EQ("", half.Receive(10));
    for (const char *pszWrong : {"aBc12", "aBc1234", "aBc1239999", ""}) {
        Peer wrong = Peer::Connect(nPort);
        wrong.Send(Field(pszWrong));
        EXPECT_EQ(Field("PWACK=0"), wrong.Receive(10)) << pszWrong;
        EXPECT_EQ(1, g_bConnecting);
        EXPECT_NE(INVALID_SOCKET, g_ServerSendSocket) << "not closed from this side";
    }
    Peer right = Peer::Connect(nPort);
    right.Send(Field("AbC123"));
    EXPECT_EQ(Field("PWACK=1"), right.Receive(10));
    EXPECT_EQ(0, status.get());
    EXPECT_EQ("AbC123", Setting("LastServer", "PW"));
    EXPECT_EQ(std::to_string(nPort), Setting("LastServer", "Port"));
    EXPECT_EQ(2 + 3, hosted::OpenSockets())
        << "listening and connected; silent, half and right: no refused peer's stays";
    right.Send(Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), right.Receive(10)) << "the listener runs";
}

TEST_F(ServerRole, KeepsItsPortAndPasswordOverSessions)
{
    DiscoveryProgram program;
    WriteSetting("LastServer", "Port", "no port"); // then the system chooses
    WriteSetting("LastServer", "PW", "4711");
    std::future<int32_t> status = StartServer(""); // the last one
    const uint16_t       nPort  = NextListeningPort();
    Peer                 peer   = Peer::Connect(nPort);
    peer.Send(Field("4711"));
    EXPECT_EQ(0, status.get());
    EndLink();
    // at the start, when the peer is admitted, at the end; the runs themselves may overtake each other
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("stop") >= 3 && program.RunsOf("server") == 1; }))
        << program.Runs();
    hosted::ClearFaults();
    status = StartServer("1");
    EXPECT_EQ(nPort, NextListeningPort());
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("accept") == 1; }));
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
