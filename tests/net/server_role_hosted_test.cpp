// The server's role with peers that keep it waiting, and what it asks of the discovery program.
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

using ServerRole = NetTest;

TEST_F(ServerRole, SilentPeersAreDroppedAndNobodysSocketStays)
{
    DiscoveryProgram program;
    hosted::SetSocketTimeout(400);
    std::future<int32_t> status = StartServer("aBc123");
    const uint16_t       nPort  = NextListeningPort();
    Peer                 silent = Peer::Connect(nPort);
    EXPECT_EQ("", silent.Receive(10)) << "dropped after its time";
    Peer half = Peer::Connect(nPort);
    half.Send("aBc");
    EXPECT_EQ("", half.Receive(10));
    for (const char *pszSaid : {"wrong", "aBc123"}) {
        Peer peer = Peer::Connect(nPort);
        peer.Send(Field(pszSaid));
        EXPECT_EQ(10u, peer.Receive(10).size());
        if (pszSaid[0] == 'w') continue;
        EXPECT_EQ(0, status.get());
        EXPECT_EQ(2 + 3, hosted::OpenSockets()) << "listening and connected; silent, half and right: no refused peer's";
    }
    EndLink();
    // at the start, when the peer is admitted, at the end; the runs themselves may overtake each other
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("stop") >= 3 && program.RunsOf("server") == 1; }))
        << program.Runs();
}
