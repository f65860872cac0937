// What the service asks and hears: PINs, roles, the exchange of machine info, release.
#include "net/client_discovery.h"
#include "net/session_start.h"
#include "tests/net/session_fixture.h"

using namespace platform;

TEST_F(SessionControl, APinStartsTheServerAndAPeerCompletesTheSession)
{
    hosted::SetClockRate(5);
    TraceSession      trace;
    const std::string sPin = RequestPin();
    EXPECT_LE(sPin.size(), 6u);
    Peer peer = JoinAsClient(NextListeningPort(), sPin);
    ASSERT_TRUE(Reported(2336, 2));
    EXPECT_EQ(sPin, std::to_string(m_aSeen.back().dwParam2));
    EXPECT_EQ(u"OLDPC", std::u16string(m_aSeen.back().szText1));
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; })) << "served: the thread ends";
    EXPECT_EQ(u"D:\\peer map", std::u16string(GetSpecialFolders().szSecondAppDataRoot));
    EXPECT_EQ(u"C:\\ProgramData\\VORN\\VORN Qelvane\\VornTramsa\\uapmap",
              std::u16string(GetSpecialFolders().szProgramDataRoot));
    EXPECT_EQ(1u, g_Session.bPeerAtLeast1040);
    EXPECT_EQ(0u, g_Session.bPeerAtLeast1050);
    for (const char *pszText :
         {"CallPinCodeThread", "random generated code", "NetInitializationThread timeout",
          "call SetNetworkServerClient server", "ServerInit success", "SpecialReadyEvent is signal"})
        EXPECT_TRUE(trace.Saw(pszText)) << pszText;
    EXPECT_EQ(1, StartNetworkConnect(3, 1));
    EXPECT_TRUE(Reported(821, 1));
    EXPECT_TRUE(Eventually([] { return g_nListeners == 0 && g_Session.bServerStarted == 0; }));
    EXPECT_TRUE(Eventually([] { return GetSpecialFolders().szProgramDataRoot[0] == u'\0'; }));
    EXPECT_EQ(0, CountSeen(818, 102)) << "an own disconnect is no broken link";
}

TEST_F(SessionControl, APinThatComesWhileAPeerConnectsDoesNotCountYet)
{
    hosted::SetClockRate(5);
    DebugLog          log;
    const std::string sFirst   = RequestPin();
    const uint16_t    nPort    = NextListeningPort();
    Peer              stranger = Peer::Connect(nPort);
    stranger.Send(Field("wrong"));
    EXPECT_EQ(Field("PWACK=0"), stranger.Receive(10)); // from here on a peer counts as connecting
    const std::string sSecond = RequestPin();
    EXPECT_TRUE(Eventually([&] { return log.Has("[UpdateServerPW] g_bConnecting true. Exit.\n"); }));
    EXPECT_TRUE(log.Has("[UpdateServerPW] old[" + sFirst + "], new[" + sSecond + "]\n")) << log.Text();
    EXPECT_EQ(sFirst, ServerPin());
    Peer peer = JoinAsClient(nPort, sFirst);
    EXPECT_TRUE(Reported(2336, 2));
    EXPECT_EQ(sSecond, std::to_string(m_aSeen.back().dwParam2));
}

TEST_F(SessionControl, APinReplacedWhileTheServerStartsIsTheOneThatAdmits)
{
    hosted::SetClockRate(5);
    for (const uint32_t dwPause : {0u, 1u, 2u, 4u, 8u, 16u}) { // between announcement and first accept
        ResetSessionState();
        RequestPin();
        const uint16_t nPort = NextListeningPort();
        std::this_thread::sleep_for(std::chrono::milliseconds(dwPause));
        const std::string sSecond = RequestPin();
        EXPECT_TRUE(Eventually([&] { return ServerPin() == sSecond; })) << dwPause;
        Peer peer = JoinAsClient(nPort, sSecond);
        EXPECT_TRUE(Reported(2336, 2));
        EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
        EndLink();
    }
}

TEST_F(SessionControl, AFailedServerStartIsReportedAndTriedAgain)
{
    hosted::SetClockRate(5);
    hosted::FailCall("bind", 1, WSAEADDRINUSE);
    const std::string sPin = RequestPin();
    EXPECT_TRUE(Reported(2336, -4));
    WriteSetting("ServerMDNS", "Port", "");
    Peer peer = JoinAsClient(NextListeningPort(), sPin);
    EXPECT_TRUE(Reported(2336, 2));
}

TEST_F(SessionControl, APeerWithoutMachineInfoIsTurnedAway)
{
    for (const bool bStop : {true, false}) { // what ends the wait for it: the stop signal or its time
        hosted::SetClockRate(bStop ? 1 : 100);
        const uint64_t       ullBegin = GetTickCount64();
        std::future<int32_t> status   = std::async(std::launch::async, [] {
            char16_t szName[260];
            return SetNetworkServerClient(&g_Session, 1, 1, "12", szName, 260);
        });
        Peer                 peer     = JoinAsClient(NextListeningPort(), "12", false);
        if (bStop) SetEvent(g_hAppEvent);
        TakeMachineInfo(peer); // it follows the server's wait, however that ended
        EXPECT_EQ(-1, status.get());
        EXPECT_EQ(bStop, GetTickCount64() - ullBegin < 10000u);
        ResetEvent(g_hAppEvent);
        EXPECT_EQ(0, g_bServer);
        EXPECT_EQ(0u, g_Session.bServerStarted);
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0; }));
        EXPECT_TRUE(Queued().empty()) << "the own teardown is no broken link";
    }
}

TEST_F(SessionControl, AClientHearsWhetherItsPinWasRight)
{
    static const struct {
        bool    bRight, bOvertaken; // its link is ended while it waits, and a later one's machine info arrives
        int32_t nAnswer;
    } aCases[] = {{false, false, -3}, {true, false, 2}, {true, true, -4}};
    for (const auto &c : aCases) {
        hosted::SetClockRate(20);
        uint16_t         nPort   = 0;
        const SOCKET     hListen = ListenOnLoopback(&nPort);
        DiscoveryProgram program("Count=1\\r\\n1=127.0.0.1\\r\\n1_port=" + std::to_string(ntohs(nPort)) + "\\r\\n");
        Peer             peer;
        std::thread      server([&] {
            while ((peer = Peer(accept(hListen, nullptr, nullptr))).Socket() != INVALID_SOCKET) {
                EXPECT_EQ(Field("77"), peer.Receive(10));
                peer.Send(Field(c.bRight ? "PWACK=1" : "PWACK=0"));
                if (!c.bRight) continue;
                TakeMachineInfo(peer); // the client sends first
                peer.Send(c.bOvertaken ? Field("KeepAlive") : FileCommand(u"C:\\x", 10, PeerInfo));
                EXPECT_EQ(Field(c.bOvertaken ? "AckAlive" : "FileDone"), peer.Receive(10));
                if (!c.bOvertaken) break;
                disconnect();
                SignalSpecialReady();
            }
        });
        Request(2337, 77);
        EXPECT_TRUE(Reported(2337, c.nAnswer));
        EXPECT_EQ(77u, m_aSeen.back().dwParam2);
        EXPECT_EQ(c.nAnswer == 2 ? u"OLDPC" : u"", std::u16string(m_aSeen.back().szText1));
        EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
        closesocket(hListen);
        server.join();
        EndLink();
    }
}

TEST_F(SessionControl, FurtherRequestsRestartTheWaitAndTheLastOneCounts)
{
    hosted::SetClockRate(5);
    TraceSession trace;
    Request(2337, 1);
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent != nullptr; }));
    const std::string sPin = RequestPin();
    EXPECT_TRUE(Eventually([&] {
        return trace.Saw("CallPinCodeThread Reset timer") && trace.Saw("NetInitializationThread reset timer");
    }));
    Peer peer = JoinAsClient(NextListeningPort(), sPin);
    EXPECT_TRUE(Reported(2336, 2));
    EXPECT_FALSE(trace.Saw("call SetNetworkServerClient client"));
}

TEST_F(SessionControl, TheNewerConnectRequestWinsAndTheOlderEndsSilently)
{
    hosted::SetClockRate(5);
    WriteSetting("LastServer", "PW", "stored");
    EXPECT_EQ(1, StartNetworkConnect(1, 0));
    NextListeningPort();
    hosted::ClearFaults();
    hosted::FailCall("bind", 1, WSAEADDRINUSE);
    EXPECT_EQ(1, StartNetworkConnect(1, 0)); // ends the first one, fails and pauses
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("bind") == 1; }));
    EXPECT_EQ(1, StartNetworkConnect(1, 0));
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 1; })) << "the newest alone";
    const uint16_t nPort = NextListeningPort();
    EXPECT_EQ(2, hosted::CallCount("bind")) << "no older one has taken the role from it";
    Peer peer = JoinAsClient(nPort, "stored");
    EXPECT_TRUE(Reported(2080, 2));
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 1; })) << "the listener alone";
    for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
    EXPECT_EQ(1u, m_aSeen.size());
    peer.Send(Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), peer.Receive(10)) << "the older request has not torn the link down";
}

TEST_F(SessionControl, AConnectRequestIsTriedForTenSeconds)
{
    hosted::SetClockRate(20);
    hosted::FailCall("socket", 1, WSAEMFILE, true);
    const uint64_t ullStart = GetTickCount64();
    EXPECT_EQ(1, StartNetworkConnect(1, 0));
    EXPECT_TRUE(Reported(2080, -4));
    EXPECT_GE(GetTickCount64() - ullStart, 10000u);
    hosted::ClearFaults();
    hosted::FailCall("socket", 1, WSAEMFILE); // also when its stamp is ahead of the clock, as in one tick with another
    g_ullLastConnectRequest = GetTickCount64() + 400;
    EXPECT_EQ(1, StartNetworkConnect(1, 0));
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("accept") == 1; }));
    EXPECT_EQ(1, StartNetworkConnect(3, 0));
    EXPECT_EQ(1, StartNetworkConnect(0, 0)); // no such mode: nothing happens
    EXPECT_EQ(1, StartNetworkConnect(4, 0));
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    EXPECT_TRUE(Queued().empty());
}

TEST_F(SessionControl, ARoleThatWasEndedBeforeItBeganIsNotTaken)
{
    uint32_t       dwLink  = 0;
    const uint32_t dwStart = NewRoleStart();
    AnnounceRoleStart(true, dwStart);
    AnnounceRoleStart(false, dwStart);
    disconnect();
    EXPECT_EQ(-1001, ServerInitStart("1", dwStart, &dwLink));
    EXPECT_EQ(9999, ClientInitEnumStart("1", dwStart, &dwLink));
    EXPECT_EQ(0, g_bServer | g_bClient | g_bClientEnuming);

    // A search that waits for the former one is ended with it.
    DiscoveryProgram program;
    EXPECT_EQ(1, StartNetworkConnect(2, 0));
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("client") == 1; }));
    EXPECT_EQ(1, StartNetworkConnect(2, 0));
    EXPECT_EQ(1, StartNetworkConnect(3, 0));
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    EXPECT_EQ(1, program.RunsOf("client"));

    hosted::SetClockRate(5);
    Request(2337, 5);
    EXPECT_TRUE(Eventually([] { return g_bClient != 0; }));
    EXPECT_EQ(1, StartNetworkConnect(3, 0));
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr && hosted::LiveThreads() == 0; }));
    EXPECT_TRUE(Queued().empty()) << "what was cancelled is not answered";
}

TEST_F(SessionControl, TheStopSignalEndsEachWait)
{
    TraceSession   trace;
    const uint64_t ullBegin = GetTickCount64();
    Request(2337, 5); // until the requests have settled
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent != nullptr; }));
    SetEvent(g_hAppEvent);
    EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
    EXPECT_FALSE(trace.Saw("call SetNetworkServerClient"));
    ResetEvent(g_hAppEvent);

    hosted::FailCall("socket", 1, WSAEMFILE, true); // between two tries
    EXPECT_EQ(1, StartNetworkConnect(1, 0));
    EXPECT_TRUE(Eventually([] { return hosted::CallCount("socket") > 0; }));
    SetEvent(g_hAppEvent);
    EXPECT_TRUE(Reported(2080, -4));
    hosted::ClearFaults();
    EXPECT_LT(GetTickCount64() - ullBegin, 10000u) << "no wait ran to its end";
}
