// The server's side of the handshake, its status codes, and that a role which ends leaves nothing.
#include "platform/hosted/control.h"
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/net_fixture.h"

using namespace platform;

namespace {

std::future<int32_t> StartServer(const char *pszPassword)
{
    return std::async(std::launch::async, [pszPassword] { return ServerInit(pszPassword); });
}

std::string ReadText(const char *pszSection, const char *pszKey)
{
    char szValue[PORT_BYTES];
    ReadSetting(pszSection, pszKey, szValue, sizeof szValue);
    return szValue;
}

} // namespace

using ServerRole = NetTest;

TEST_F(ServerRole, AdmitsThePeerWithTheRightPasswordAfterWrongAndSilentOnes)
{
    hosted::SetSocketTimeout(400);
    std::future<int32_t> status = StartServer("aBc123");
    const uint16_t       nPort  = ListeningPort();
    Peer                 silent = Peer::Connect(nPort);
    EXPECT_EQ("", silent.Receive(10)) << "dropped after its time";
    Peer half = Peer::Connect(nPort);
    half.Send("aBc");
    EXPECT_EQ("", half.Receive(10));
    static const char *const aWrong[] = {"aBc12", "aBc1234", "aBc1239999", ""};
    for (const char *pszWrong : aWrong) {
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
    EXPECT_EQ("AbC123", ReadText("LastServer", "PW"));
    EXPECT_EQ(std::to_string(nPort), ReadText("LastServer", "Port"));
    EXPECT_EQ(2 + 3, hosted::OpenSockets())
        << "listening and connected; silent, half and right: no refused peer's stays";
    right.Send(Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), right.Receive(10)) << "the listener runs";
}

TEST_F(ServerRole, KeepsItsPortAndPasswordOverSessions)
{
    DiscoveryProgram     program;
    std::future<int32_t> status = StartServer("4711");
    const uint16_t       nPort  = ListeningPort();
    Peer                 first  = Peer::Connect(nPort);
    first.Send(Field("4711"));
    EXPECT_EQ(0, status.get());
    EndLink();
    // at the start, when the peer is admitted, at the end; the runs themselves may overtake each other
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("stop") >= 3 && program.RunsOf("server") == 1; }))
        << program.Runs();
    WriteSetting("ServerMDNS", "Port", "");
    status = StartServer(""); // no password: the last one
    EXPECT_EQ(nPort, ListeningPort());
    Peer second = Peer::Connect(nPort);
    second.Send(Field("4711"));
    EXPECT_EQ(0, status.get());
    EndLink();
    WriteSetting("ServerMDNS", "Port", "");
    WriteSetting("LastServer", "Port", "no port");
    hosted::ClearFaults();
    status = StartServer("1");
    EXPECT_NE(0, ListeningPort());
    Peer stranger = Peer::Connect(ListeningPort());
    stranger.Send(Field("2"));
    EXPECT_EQ(Field("PWACK=0"), stranger.Receive(10));
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("accept") == 2; }));
    ServerUninit();
    EXPECT_EQ(-1001, status.get());
    EXPECT_EQ(0, g_bServer);
    EXPECT_EQ(0, g_bConnecting);
}

TEST_F(ServerRole, EachFailingStepHasItsStatusAndLeavesNothing)
{
    static const struct {
        const char *pszCall;
        int         nth;
        uint32_t    dwError;
        int32_t     nExpected;
    } aCases[] = {
        {"CreateEventW", 1, ERROR_ACCESS_DENIED, -300}, {"getaddrinfo", 1, WSAHOST_NOT_FOUND, -1},
        {"socket", 1, WSAEMFILE, -2},                   {"bind", 1, WSAEADDRINUSE, -3},
        {"listen", 1, WSAEINVAL, -4},                   {"accept", 1, WSAEMFILE, -1001},
    };
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles(), nSockets = hosted::OpenSockets(), nStarts = hosted::WinsockStarts();
        hosted::ClearFaults();
        hosted::FailCall(c.pszCall, c.nth, c.dwError);
        EXPECT_EQ(c.nExpected, ServerInit("1")) << c.pszCall;
        ServerUninit(); // -300 leaves the role set
        EXPECT_EQ(0, g_bServer) << c.pszCall;
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << c.pszCall;
        EXPECT_EQ(nSockets, hosted::OpenSockets()) << c.pszCall;
        EXPECT_EQ(nStarts, hosted::WinsockStarts()) << c.pszCall;
    }
    g_bClient = 1;
    EXPECT_EQ(-201, ServerInit("1"));
    EXPECT_EQ(0, g_bServer);
    g_bClient = 0;
}

TEST_F(ServerRole, FailuresOfTheHandshakeEndTheRole)
{
    static const struct {
        const char *pszCall;
        uint32_t    dwError;
        int32_t     nExpected;
    } aCases[] = {
        {"recv", WSAECONNRESET, -5}, {"send", WSAECONNRESET, -6}, {"CreateThread", ERROR_NOT_ENOUGH_MEMORY, -300}};
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles(), nSockets = hosted::OpenSockets();
        WriteSetting("ServerMDNS", "Port", "");
        std::future<int32_t> status = StartServer("22");
        {
            const uint16_t nPort = ListeningPort();
            hosted::ClearFaults();
            // the first send is the peer's
            hosted::FailCall(c.pszCall, std::string(c.pszCall) == "send" ? 2 : 1, c.dwError);
            Peer peer = Peer::Connect(nPort);
            peer.Send(Field("22"));
            EXPECT_EQ(c.nExpected, status.get()) << c.pszCall;
        }
        hosted::ClearFaults();
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0; }));
        EXPECT_EQ(0, g_bServer);
        EXPECT_EQ(0, g_bConnecting);
        EXPECT_TRUE(Eventually([&] { return nHandles == hosted::OpenHandles(); })) << c.pszCall;
        EXPECT_EQ(nSockets, hosted::OpenSockets()) << c.pszCall;
    }
    EXPECT_TRUE(Queued().empty()) << "an own teardown reports no broken link";
}

TEST_F(ServerRole, AnExitSignalDuringTheHandshakeIsHeeded)
{
    std::future<int32_t> status = StartServer("33");
    Peer                 peer   = Peer::Connect(ListeningPort());
    EXPECT_TRUE(Eventually([] { return g_bConnecting != 0; }));
    SetEvent(g_hServerExitEvent);
    peer.Send(Field("wrong")); // no listener yet that could consume the signal
    EXPECT_EQ(-1000, status.get());
}

TEST_F(ServerRole, ALaterStartTakesOverAndTheEarlierOneHarmsNothing)
{
    hosted::ClearFaults();
    std::future<int32_t> first = StartServer("44");
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("accept") == 1; }));
    WriteSetting("ServerMDNS", "Port", "");
    std::future<int32_t> second = StartServer("55");
    EXPECT_EQ(-1001, first.get());
    Peer peer = Peer::Connect(ListeningPort());
    peer.Send(Field("55"));
    EXPECT_EQ(Field("PWACK=1"), peer.Receive(10));
    EXPECT_EQ(0, second.get());
    EXPECT_EQ(1, g_bServer);
}

TEST_F(ServerRole, APasswordThatDoesNotFitLeavesTheFieldEmpty)
{
    char szPassword[10];
    errno = 0;
    SetPassword("1234567890");
    GetPassword(szPassword);
    EXPECT_STREQ("", szPassword);
    EXPECT_NE(0, errno);
    SetPassword("123456789");
    GetPassword(szPassword);
    EXPECT_STREQ("123456789", szPassword);
}
