// The listener: the test of a silent line, and who reports that a link has ended.
#include "tests/net/observed_hosted.h"

using namespace platform;

using Listener = NetTest;

TEST_F(Listener, ASilentLineIsTestedAfterFiveTimeOutsThenEveryFour)
{
    hosted::SetSocketTimeout(150);
    DebugLog log;
    Peer     peer = OpenServedLink();
    peer.Send("half");                                       // lost with its time-out
    for (const char *pszAnswer : {"ACKALIVE", "FileDone"}) { // a command sent at the same moment counts as one
        EXPECT_EQ(Field("KeepAlive"), peer.Receive(10));
        peer.Send(Field(pszAnswer));
    }
    EXPECT_TRUE(Eventually([] { return g_bRemoteFileDone != 0; }));
    std::string        sRounds;
    std::istringstream lines(log.Text());
    for (std::string sLine; std::getline(lines, sLine);) {
        if (sLine == "[ServerListenThread] == wait client cmd begin ==") sRounds += '.';
        if (sLine == "[ServerListenThread] KeepAliveTest - Be4 CS") sRounds += '!';
        if (sLine == "[ServerListenThread] KeepAliveTest - After CS. nRet[-2003]") sRounds += '?';
        if (sLine == "[ServerListenThread] == get client cmd == [FileDone]") break;
    }
    EXPECT_EQ(".....!....!?", sRounds) << log.Text();
    EXPECT_TRUE(Queued().empty());
}

TEST_F(Listener, WhileAFileIsSentTheLineIsNotTested)
{
    hosted::SetSocketTimeout(5);
    Peer peer      = OpenServedLink();
    g_bSendingFile = 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    g_bSendingFile = 0;
    EXPECT_EQ(0, hosted::CallCount("send"));
    EXPECT_EQ(Field("KeepAlive"), peer.Receive(10));
}

TEST_F(Listener, APeerThatHangsWhileItOwesAnAnswerIsNoticed)
{
    static const struct {
        const char *pszHow;
        void (*pOwe)(FileTicket *pTicket);
    } aCases[] = {
        {"stop-and-wait", [](FileTicket *) { g_bSendingFile = g_bAwaitingAnswer = 1; }},
        {"window",
         [](FileTicket *pTicket) {
             ASSERT_TRUE(OpenAnswer(pTicket));
             EndStream(pTicket, true);
         }},
    };
    for (const auto &c : aCases) {
        FileTicket ticket = {};
        hosted::SetSocketTimeout(10);
        Peer peer = OpenServedLink();
        c.pOwe(&ticket);
        EXPECT_EQ(Field("KeepAlive"), peer.Receive(10)) << c.pszHow; // and hears nothing
        EXPECT_TRUE(Reported(818, 102)) << c.pszHow;
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0; })) << c.pszHow;
        g_bSendingFile = g_bAwaitingAnswer = 0;
        hosted::SetSocketTimeout(0);
    }
}

TEST_F(Listener, ABrokenLinkIsReportedOnceAndReleased)
{
    static const struct {
        const char *pszHow;
        void (*pBreak)(Peer &peer);
    } aCases[] = {
        {"reset",
         [](Peer &peer) {
             hosted::FailCall("recv", 1, WSAECONNRESET);
             peer.Send(Field(""));
         }},
        {"orderly close", [](Peer &peer) { peer.Close(); }},
        {"no answer to the probe", [](Peer &) { hosted::SetSocketTimeout(10); }},
    };
    for (const auto &c : aCases) {
        const Open before = OpenNow();
        m_aSeen.clear();
        {
            hosted::SetClockRate(100);
            Peer           peer         = OpenServedLink();
            const uint32_t dwGeneration = g_dwLinkGeneration;
            c.pBreak(peer);
            EXPECT_TRUE(Reported(818, 102)) << c.pszHow;
            EXPECT_TRUE(Eventually([] { return g_nListeners == 0 && hosted::LiveThreads() == 0; })) << c.pszHow;
            for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
            EXPECT_EQ(1u, m_aSeen.size()) << c.pszHow;
            EXPECT_EQ(0, g_bServer) << c.pszHow;
            EXPECT_EQ(0u, g_Session.bServerStarted) << c.pszHow;
            EXPECT_LT(dwGeneration, g_dwLinkGeneration) << c.pszHow;
            hosted::SetSocketTimeout(0);
        }
        EXPECT_TRUE(IsOpenAsBefore(before)) << c.pszHow;
    }
}
