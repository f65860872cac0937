// Requests that overlap, as people make them when a link does not come up at once: what an older one still has under
// way leaves the newer one's search, link, PIN and announcement alone.
#include "net/client_discovery.h"
#include "tests/net/session_fixture.h"

class OverlappingRequests : public SessionControl {
  protected:
    // A search that waits for a mute server's answer.
    static void BeginHangingSearch(AdmittingServer &mute)
    {
        DiscoveryProgram program(mute.Found());
        hosted::SetClockRate(2); // without a password it searches for two seconds, and the program takes its time
        EXPECT_EQ(1, StartNetworkConnect(2, 0));
        EXPECT_TRUE(Eventually([&] { return mute.Served() == 1; }));
        hosted::SetClockRate(20);
    }
    static bool IsAlive(Peer peer)
    {
        peer.Send(Field("KeepAlive"));
        return peer.Receive(10) == Field("AckAlive");
    }
};

TEST_F(OverlappingRequests, AnOlderSearchLeavesTheNewerOnesLinkAlone)
{
    hosted::SetSocketTimeout(2000); // as long as the older one hangs, longer than the newer one waits for it
    for (const bool bCancelled : {true, false}) {
        AdmittingServer mute(true), server;
        BeginHangingSearch(mute);
        if (bCancelled) {
            EXPECT_EQ(1, StartNetworkConnect(3, 0));
        }
        DiscoveryProgram program(server.Found());
        m_aSeen.clear();
        Request(2337, 5);
        EXPECT_TRUE(Reported(2337, 2)) << bCancelled;
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 1; })) << "the listener alone";
        EXPECT_TRUE(Eventually([&] { return server.Served() > 0; })) << "its side may hear the last word later";
        EXPECT_TRUE(IsAlive(server.Last())) << bCancelled;
        EXPECT_EQ(1u, server.Served()) << "nobody else has connected";
        EXPECT_EQ(0, g_bClientEnuming);
        EndLink();
    }
}

TEST_F(OverlappingRequests, APinAskedForAtADisconnectIsServed)
{
    hosted::SetClockRate(5);
    for (const uint32_t dwOption : {0u, 1u}) { // without and with half a second of notice
        for (const bool bEnded : {false, true}) {
            const std::string sFormer = RequestPin();
            NextListeningPort();
            EXPECT_EQ(1, StartNetworkConnect(3, dwOption));
            EXPECT_TRUE(!bEnded || Eventually([] { return g_bServer == 0; }));
            const std::string sPin = RequestPin();
            Peer              peer = JoinAsClient(NextListeningPort(), sPin);
            EXPECT_TRUE(Reported(2336, 2)) << dwOption << bEnded;
            for (const IpcMessage &record : m_aSeen) // the former one's end may be told, as its own
                EXPECT_TRUE(static_cast<int32_t>(record.dwParam1) != -4 || std::to_string(record.dwParam2) == sFormer);
            EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
            EXPECT_TRUE(IsAlive(peer));
            EndLink();
            WriteSetting("ServerMDNS", "Port", "");
        }
    }
}

TEST_F(OverlappingRequests, ABreakOfTheFormerLinkEndsNoNewSearch)
{
    hosted::SetClockRate(5);
    AdmittingServer  former, next;
    DiscoveryProgram first(former.Found());
    Request(2337, 1);
    EXPECT_TRUE(Reported(2337, 2));
    former.Last().Send(Field("KeepAlive")); // its answer stays unread, so that the close below is a reset
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    DiscoveryProgram second(next.Found());
    m_aSeen.clear();
    Request(2337, 2);
    EXPECT_TRUE(Eventually([] { return g_bClientEnuming != 0 && g_bClient != 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it has begun its first round
    former.Last().Close();
    EXPECT_TRUE(Reported(2337, 2));
    EXPECT_TRUE(IsAlive(next.Last()));
    EXPECT_EQ(0, CountSeen(818, 102)) << "the new search had ended that link already";
}

TEST_F(OverlappingRequests, ARequestBeforeTheRoleIsTakenIsNotMissed)
{
    hosted::SetClockRate(5);
    WriteSetting("LastServer", "PW", "stored");
    hosted::FailCall("bind", 1, WSAEADDRINUSE); // the PIN's server fails and waits for its next try
    RequestPin();
    EXPECT_TRUE(Reported(2336, -4));
    WriteSetting("ServerMDNS", "Port", "");
    EXPECT_EQ(1, StartNetworkConnect(1, 0)); // meanwhile the service links by the stored password
    Peer peer = JoinAsClient(NextListeningPort(), "stored");
    EXPECT_TRUE(Reported(2080, 2));
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; })) << "a link that stands ends the tries";
    EXPECT_TRUE(IsAlive(peer));
}

TEST_F(OverlappingRequests, ALinkThatStandsEndsTheTriesOfAPin)
{
    uint16_t          nPort   = 0;
    const SOCKET      hListen = ListenOnLoopback(&nPort);
    std::future<Peer> server  = std::async(std::launch::async, [hListen] {
        Peer peer(accept(hListen, nullptr, nullptr));
        peer.Receive(10);
        peer.Send(Field("PWACK=1"));
        return peer;
    });
    hosted::SetClockRate(2);
    hosted::FailCall("bind", 1, WSAEADDRINUSE, true);
    RequestPin();
    EXPECT_TRUE(Reported(2336, -4));
    m_aSeen.clear(); // and before its next try
    EXPECT_EQ(0, ClientInit("127.0.0.1", "7", std::to_string(ntohs(nPort)).c_str()));
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
    for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
    EXPECT_EQ(0, CountSeen(2336, -4)) << "no further try has been made";
    EXPECT_TRUE(IsAlive(server.get()));
    closesocket(hListen);
}

TEST_F(OverlappingRequests, PinsAreToldInTheOrderInWhichTheyCount)
{
    hosted::SetClockRate(5);
    for (int i = 0; i < 10; i++) {
        m_aSeen.clear();
        for (int n = 0; n < 4; n++) {
            hosted::AdvanceClock(12345);
            Request(2336);
        }
        EXPECT_TRUE(Eventually([&] {
            for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
            return CountSeen(2336, 3) == 4;
        }));
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 1; }));
        EXPECT_EQ(std::to_string(m_aSeen.back().dwParam2), g_szServerPin);
        EXPECT_EQ(1, StartNetworkConnect(3, 0));
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() <= 1 && g_ullLastPinRequest == 0; }));
        Request(2337, 1); // and the next begins anew
        EXPECT_EQ(1, StartNetworkConnect(3, 0));
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    }
}

TEST_F(OverlappingRequests, AConnectThatHangsIsCancelledAtOnce)
{
    // A queue of one that is full: what else connects hears nothing.
    uint16_t            nPort   = 0;
    const SOCKET        hListen = ListenOnLoopback(&nPort);
    std::vector<SOCKET> aFill;
    EXPECT_EQ(0, listen(hListen, 0));
    std::vector<std::thread> aThreads;
    for (int i = 0; i < 4; i++) {
        const SOCKET h = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        aFill.push_back(h);
        aThreads.emplace_back([h, nPort] { ConnectToLoopback(h, nPort); });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    DiscoveryProgram program("Count=1\\r\\n1=127.0.0.1\\r\\n1_port=" + std::to_string(ntohs(nPort)) + "\\r\\n");
    hosted::ClearFaults();
    std::future<int32_t> status = std::async(std::launch::async, [] { return ClientInitEnum("9"); });
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("connect") == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(std::future_status::timeout, status.wait_for(std::chrono::seconds(0))) << "it hangs";
    const auto begin = std::chrono::steady_clock::now();
    ClientUninit();
    EXPECT_EQ(9999, status.get());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(600)) << "100 ms, and a busy machine";
    for (SOCKET h : aFill) closesocket(h);
    closesocket(hListen);
    for (std::thread &thread : aThreads) thread.join();
}

TEST_F(OverlappingRequests, AStoredPortThatCannotBeBoundIsNoReasonToFail)
{
    for (const int nFailing : {1, 2}) { // the second time the free port fails, too
        hosted::ClearFaults();
        WriteSetting("LastServer", "Port", "50123");
        WriteSetting("ServerMDNS", "Port", "");
        hosted::FailCall("bind", 1, WSAEACCES, nFailing == 2);
        std::future<int32_t> status = std::async(std::launch::async, [] { return ServerInit("12"); });
        if (nFailing == 1) {
            EXPECT_TRUE(Eventually([] { return hosted::CallCount("bind") == 2 || g_bServer == 0; }));
            EXPECT_TRUE(Eventually([&] {
                return hosted::CallCount("accept") == 1 ||
                       status.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            }));
            EXPECT_NE("50123", Setting("ServerMDNS", "Port"));
            ServerUninit();
        }
        EXPECT_EQ(nFailing == 1 ? -1001 : -3, status.get());
        EXPECT_EQ(2, hosted::CallCount("bind"));
    }
}

// What a thread of the former link has still to say waits for its turn while the link ends, and the next sockets have
// the values of those that were closed.
TEST_F(OverlappingRequests, ALateWordNeverReachesALaterSocket)
{
    const struct {
        const char *pszSaid;    // when the server is still being started, as the first word of its peer
        std::string sCommand;   // otherwise, on a link
        const char *pszWaiting; // logged before the lock
    } aCases[] = {{"34", "", "Connected, send PWACK ["},
                  {"12", "", "Connected, send PWACK ["},
                  {"", Field("KeepAlive"), "Be4 CS (ack alive)"},
                  {"", FileCommand(u"C:\\late.bin", 0, "content"), "Be4 CS (done)"}};
    hosted::ReuseSocketValues(true);
    for (const auto &c : aCases) {
        DebugLog             log;
        std::future<int32_t> status;
        if (c.sCommand.empty()) status = std::async(std::launch::async, [] { return ServerInit("12"); });
        Peer peer = c.sCommand.empty() ? Peer::Connect(NextListeningPort()) : OpenServedLink();
        EnterCriticalSection(&g_csNetSocket);
        peer.Send(c.sCommand.empty() ? Field(c.pszSaid) : c.sCommand);
        EXPECT_TRUE(Eventually([&] { return log.Has(c.pszWaiting); })) << log.Text();
        ServerUninit();
        LinkPair aLater[3];
        LeaveCriticalSection(&g_csNetSocket);
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0 && g_nAttempts == 0; })) << c.pszWaiting;
        for (const LinkPair &pair : aLater)
            for (const bool bBack : {false, true}) {
                const SOCKET hFrom = bBack ? pair.hServer : pair.hClient, hTo = bBack ? pair.hClient : pair.hServer;
                char         szGot[20] = "";
                EXPECT_EQ(4, send(hFrom, "mine", 4, 0));
                LinkPair::SetTimeout(hTo, SO_RCVTIMEO, 20000);
                EXPECT_EQ(4, recv(hTo, szGot, sizeof szGot, 0)) << c.pszWaiting;
                EXPECT_STREQ("mine", szGot) << c.pszWaiting;
            }
        EXPECT_TRUE(!status.valid() || status.get() != 0) << c.pszWaiting;
    }
}
