// The listener: words and their effects, the test of a silent line, and who reports that a link has ended.
#include "platform/hosted/control.h"
#include "tests/net/peer_reset_hosted.h"

using namespace platform;

using Listener = NetTest;

TEST_F(Listener, WordsSetTheirFlagsWhateverTheirCase)
{
    static const struct {
        const char           *pszWord;
        std::atomic<uint8_t> *pFlag;
    } aCases[] = {
        {"FileDone", &g_bRemoteFileDone},         {"filedone", &g_bRemoteFileDone},
        {"FileError", &g_bRemoteFileError},       {"FileErrDF", &g_bRemoteFileFull},
        {"FILEERRDF", &g_bRemoteFileFull},        {"TypeWrong", &g_bRemoteFileTypeUnknown},
    };
    std::atomic<uint8_t> *const aFlags[] = {&g_bRemoteFileDone, &g_bRemoteFileError, &g_bRemoteFileFull,
                                            &g_bRemoteFileAllFull, &g_bRemoteFileTypeUnknown};
    Peer peer = OpenServedLink();
    for (const auto &c : aCases) {
        for (auto *p : aFlags) *p = 0;
        WaitForSingleObject(GetFileOutcomeEvent(), 0);
        peer.Send(Field(c.pszWord));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(GetFileOutcomeEvent(), 20000)) << c.pszWord;
        for (auto *p : aFlags) EXPECT_EQ(p == c.pFlag, *p != 0) << c.pszWord << " flag " << p - *aFlags;
    }
    for (auto *p : aFlags) *p = 0;
    peer.Send(Field("FILERRDF") + "no command" + Field("AckAlive") + Field("") + Field("keepalive"));
    EXPECT_EQ(Field("AckAlive"), peer.Receive(10)) << "skipped words leave the channel in step";
    for (auto *p : aFlags) EXPECT_EQ(0, *p);
}

TEST_F(Listener, ARecordReachesTheService)
{
    Peer peer = OpenServedLink();
    peer.Send(Field("senddata") + Bytes(MakeRecord(0x1120, 1, 7, 8, u"one", u"two")));
    ASSERT_TRUE(Reported(0x1130, 1));
    EXPECT_EQ(u"two", std::u16string(m_aSeen.back().szText2));
}

TEST_F(Listener, ASilentLineIsTestedAfterFiveTimeOutsThenEveryFour)
{
    hosted::SetSocketTimeout(150);
    hosted::KeepDebugOutput(true);
    g_bSocketDebug = 1;
    Peer        peer = OpenServedLink();
    std::string sLog;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(Field("KeepAlive"), peer.Receive(10));
        peer.Send(Field(i == 0 ? "ACKALIVE" : "FileDone")); // a command sent at the same moment counts as one
    }
    EXPECT_TRUE(Eventually([] { return g_bRemoteFileDone != 0; }));
    g_bSocketDebug = 0;
    sLog           = hosted::TakeDebugOutput();
    hosted::KeepDebugOutput(false);
    std::vector<int> aRounds;
    int              nRounds = 0;
    for (size_t n = 0; n < sLog.size();) {
        const size_t nEnd  = std::min(sLog.find('\n', n), sLog.size());
        const auto   sLine = sLog.substr(n, nEnd - n);
        if (sLine == "[ServerListenThread] == wait client cmd begin ==") nRounds++;
        if (sLine == "[ServerListenThread] KeepAliveTest - Be4 CS") aRounds.push_back(std::exchange(nRounds, 0));
        n = nEnd + 1;
    }
    ASSERT_EQ(2u, aRounds.size()) << sLog;
    EXPECT_EQ(5, aRounds[0]);
    EXPECT_EQ(4, aRounds[1]);
    EXPECT_NE(std::string::npos, sLog.find("[ServerListenThread] KeepAliveTest - After CS. nRet[-2003]\n"));
    EXPECT_NE(std::string::npos, sLog.find("[ServerListenThread] == get client cmd == [FileDone]\n"));
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

TEST_F(Listener, ABrokenLinkIsReportedOnceAndReleased)
{
    static const struct {
        const char *pszHow;
        void (*pBreak)(Peer &peer);
    } aCases[] = {
        {"reset", [](Peer &peer) { MakeCloseAReset(peer); peer.Close(); }},
        {"orderly close", [](Peer &peer) { peer.Close(); }},
        {"no answer to the probe", [](Peer &) { hosted::SetSocketTimeout(10); }},
    };
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles();
        m_aSeen.clear();
        {
            hosted::SetClockRate(100);
            Peer peer = OpenServedLink();
            MarkRoleStarted(&g_Session, true);
            const uint32_t dwGeneration = g_dwLinkGeneration;
            c.pBreak(peer);
            EXPECT_TRUE(Reported(818, 102)) << c.pszHow;
            EXPECT_TRUE(Eventually([] { return g_nListeners == 0 && hosted::LiveThreads() == 0; })) << c.pszHow;
            for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
            EXPECT_EQ(1u, m_aSeen.size()) << c.pszHow;
            EXPECT_EQ(0, g_bServer) << c.pszHow;
            EXPECT_EQ(INVALID_SOCKET, g_ServerSendSocket) << c.pszHow;
            EXPECT_LT(dwGeneration, g_dwLinkGeneration) << c.pszHow;
            hosted::SetSocketTimeout(0);
        }
        g_Session.bServerStarted = 0;
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << c.pszHow;
    }
}

TEST_F(Listener, AnOwnTeardownIsSilent)
{
    for (int i = 0; i < 50; i++) {
        Peer peer = OpenServedLink();
        if (i % 2) peer.Send(Field("SendFile") + "half a field");
        if (i % 3 == 0) peer.Close();
        ServerUninit();
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0; }));
    }
    EXPECT_TRUE(Queued().empty());
}

TEST_F(Listener, ALateBreakNeverTouchesTheNextLink)
{
    Peer first = OpenServedLink();
    MarkRoleStarted(&g_Session, true);
    const LinkRelease former = {true, GetRoleStart(true), g_dwLinkGeneration};
    ServerUninit();
    EXPECT_TRUE(Eventually([] { return g_nListeners == 0; }));
    Peer second = OpenServedLink();
    MarkRoleStarted(&g_Session, true);
    ReleaseNetworkThread(new LinkRelease(former));
    ServerUninitLink(former.dwGeneration);
    EXPECT_EQ(0u, ClaimBrokenLink(former.dwGeneration));
    second.Send(Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), second.Receive(10));
    EXPECT_EQ(1u, g_Session.bServerStarted);
    BindThreadToLink(former.dwGeneration);
    EXPECT_FALSE(IsThreadLinkCurrent());
    BindThreadToLink(0);
    EXPECT_TRUE(IsThreadLinkCurrent());
}

TEST_F(Listener, GarbageNeverStopsTheListener)
{
    hosted::SetSocketTimeout(150);
    Peer        peer = OpenServedLink();
    std::string sGarbage;
    for (uint32_t n = 1, i = 0; i < 10 * 500; i++, n = n * 1664525 + 1013904223) sGarbage += static_cast<char>(n >> 24);
    peer.Send(sGarbage);
    peer.Send("half"); // lost with its time-out
    EXPECT_EQ(Field("KeepAlive"), peer.Receive(10));
    peer.Send(Field("AckAlive") + Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), peer.Receive(10));
}
