// The listener on every backend: words and their effects, and how a link ends.
#include "tests/net/net_fixture.h"

using namespace platform;

using Listener = NetTest;

TEST_F(Listener, WordsSetTheirFlagsWhateverTheirCase)
{
    static const struct {
        const char           *pszWord;
        std::atomic<uint8_t> *pFlag;
    } aCases[] = {
        {"FileDone", &g_bRemoteFileDone},  {"filedone", &g_bRemoteFileDone},  {"FileError", &g_bRemoteFileError},
        {"FileErrDF", &g_bRemoteFileFull}, {"FILEERRDF", &g_bRemoteFileFull}, {"TypeWrong", &g_bRemoteFileTypeUnknown},
    };
    std::atomic<uint8_t> *const aFlags[] = {&g_bRemoteFileDone, &g_bRemoteFileError, &g_bRemoteFileFull,
                                            &g_bRemoteFileAllFull, &g_bRemoteFileTypeUnknown};
    Peer                        peer     = OpenServedLink();
    for (const auto &c : aCases) {
        for (auto *p : aFlags) *p = 0;
        WaitForSingleObject(GetFileOutcomeEvent(), 0);
        peer.Send(Field(c.pszWord));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(GetFileOutcomeEvent(), 20000)) << c.pszWord;
        for (auto *p : aFlags) EXPECT_EQ(p == c.pFlag, *p != 0) << c.pszWord << " flag " << p - *aFlags;
    }
    for (auto *p : aFlags) *p = 0;
    peer.Send(Field("FILERRDF") + "no command" + "\xFF\x80%s%n%s%n" + Field("AckAlive") + Field("") +
              Field("keepalive"));
    EXPECT_EQ(Field("AckAlive"), peer.Receive(10)) << "skipped words leave the channel in step";
    for (auto *p : aFlags) EXPECT_EQ(0, *p);
}

TEST_F(Listener, APeerThatClosesInGoodOrderIsNoticedAtOnce)
{
    for (const char *pszState : {"idle", "inside a file", "while a file is sent", "half closed"}) {
        m_aSeen.clear();
        Peer peer      = OpenServedLink();
        g_bSendingFile = pszState == std::string("while a file is sent");
        if (pszState == std::string("inside a file")) {
            const std::string sCommand = FileCommand(u"C:\\half.bin", 0, std::string(100000, 'x'));
            peer.Send(sCommand.substr(0, sCommand.size() - 50000));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const uint64_t ullBegin = GetTickCount64();
        if (pszState == std::string("half closed")) {
            EXPECT_EQ(0, shutdown(peer.Socket(), 1));
            EXPECT_EQ(Field("KeepAlive"), peer.Receive(10)) << "it is asked once";
        } else {
            peer.Close();
        }
        EXPECT_TRUE(Reported(818, 102)) << pszState;
        EXPECT_LT(GetTickCount64() - ullBegin, 8000u) << pszState;
        g_bSendingFile = 0;
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0 && g_bServer == 0; })) << pszState;
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
    Peer              first  = OpenServedLink();
    const LinkRelease former = {true, g_dwLinkGeneration};
    ServerUninit();
    EXPECT_TRUE(Eventually([] { return g_nListeners == 0; }));
    Peer second = OpenServedLink();
    ReleaseNetworkThread(new LinkRelease(former));
    ServerUninitLink(former.dwLink);
    EXPECT_EQ(0u, ClaimBrokenLink(former.dwLink));
    second.Send(Field("KeepAlive"));
    EXPECT_EQ(Field("AckAlive"), second.Receive(10));
    EXPECT_EQ(1u, g_Session.bServerStarted);
}
