// The send interface: its checks, the line among senders, the answers, and the result codes.
#include "tests/transfer/transfer_fixture.h"
#include "transfer/network_send.h"
#include "transfer/socket_io.h"

using namespace platform;

class NetworkSendTest : public TransferTest {
  protected:
    void SetUp() override
    {
        TransferTest::SetUp();
        m_sFile = m_sFolder + u"\\source.txt";
        WriteTestFile(m_sFile, "content");
    }
    int32_t Send(const char16_t *pszDestination = u"D:\\x.txt")
    {
        return SendNetworkFile(m_sFile.c_str(), pszDestination, 0, 0, 1, nullptr);
    }
    std::u16string m_sFile;
};

TEST_F(NetworkSendTest, ChecksComeFirstAndInOrder)
{
    IpcMessage record = {};
    EXPECT_EQ(-1004, SendNetworkCommand(&record, 0, 0));
    EXPECT_EQ(-1004, Send());
    g_bServer = g_bClient = 1;
    g_ServerSendSocket    = m_pLink->hServer;
    EXPECT_EQ(-1003, SendNetworkCommand(&record, 0, 0));
    EXPECT_EQ(-1003, Send());
    EXPECT_EQ(-1002, Send(u"x.txt"));
    EXPECT_EQ(-1002, Send(nullptr));
    EXPECT_EQ(-1001, SendNetworkFile(u"source.txt", u"x.txt", 0, 0, 1, nullptr));
    EXPECT_EQ(-1001, SendNetworkFile(u"", u"D:\\x.txt", 0, 0, 1, nullptr));
    g_bServer = 0; // the client's socket counts now, and there is none
    EXPECT_EQ(-1005, SendNetworkCommand(&record, 0, 0));
    EXPECT_EQ(-1005, Send());
    g_ClientRecvSocket = m_pLink->hServer;
    EXPECT_EQ(-1006, SendNetworkFile(u"C:\\missing", u"D:\\x.txt", 0, 0, 1, nullptr));
    EXPECT_EQ(0, hosted::CallCount("send"));
    g_bClient          = 0;
    g_ClientRecvSocket = INVALID_SOCKET;
}

TEST_F(NetworkSendTest, TheAnswerDecidesTheResult)
{
    static const struct {
        std::vector<std::atomic<uint8_t> *> apFlags;
        int32_t                             nExpected;
    } aCases[] = {
        {{&g_bRemoteFileDone}, 1},
        {{&g_bRemoteFileFull}, 107},
        {{&g_bRemoteFileAllFull, &g_bRemoteFileFull}, 108},
        {{&g_bRemoteFileTypeUnknown, &g_bRemoteFileError}, 2001},
        {{&g_bRemoteFileError}, 1001},
        {{&g_bRemoteFileDone, &g_bRemoteFileError}, 1},
    };
    size_t i = 0;
    m_pPeer  = std::make_unique<FakePeer>([&](uint32_t, const std::string &) {
        for (std::atomic<uint8_t> *pFlag : aCases[i].apFlags) *pFlag = 1; // the listener's words set one each
        SetEvent(GetFileOutcomeEvent());
        return "";
    });
    for (i = 0; i < std::size(aCases); i++) {
        EXPECT_EQ(aCases[i].nExpected, Send()) << i;
        EXPECT_EQ(0, g_bSendingFile);
    }
    EXPECT_EQ("file 0 D:\\x.txt 7", m_pPeer->Take().front());
    m_pPeer.reset();
}

TEST_F(NetworkSendTest, TheElapsedTimeIsThatOfTheStreamAlone)
{
    WriteTestFile(m_sFile, std::string(16 << 20, 'x')); // more than the sockets hold
    g_bServer                    = 1;
    g_ServerSendSocket           = m_pLink->hServer;
    g_bSendingFile               = 1; // of another sender
    uint64_t          ullElapsed = 99999;
    std::atomic<bool> bLeft{false};
    const WaitingWork work = {[](void *p) { *static_cast<std::atomic<bool> *>(p) = true; }, &bLeft};
    const NetworkFile file = {m_sFile.c_str(), u"D:\\x.txt", 0, 0, 0, nullptr};
    hosted::KeepDebugOutput(true);
    g_bSocketDebug = 1;
    std::string sLines;
    auto sent = std::async(std::launch::async, [&] { return SendPreparedNetworkFile(&file, &work, &ullElapsed); });
    const auto Says = [&](const char *psz) {
        sLines += hosted::TakeDebugOutput();
        return sLines.find(psz) != std::string::npos;
    };
    EXPECT_TRUE(Eventually([&] { return Says("wait sending begin"); }));
    hosted::AdvanceClock(7000); // in the line
    g_bSendingFile = 0;
    EXPECT_TRUE(Eventually([&] { return Says("send bEncrypt done"); }));
    g_bSocketDebug = 0;
    hosted::AdvanceClock(3000); // while the peer reads nothing
    auto drain = Drain(m_pLink->hClient);
    EXPECT_TRUE(Eventually([&] { return bLeft.load(); }));
    hosted::AdvanceClock(4000); // until the peer answers
    g_bRemoteFileDone = 1;
    SetEvent(GetFileOutcomeEvent());
    EXPECT_EQ(1, sent.get());
    EXPECT_GE(ullElapsed, 3000u);
    EXPECT_LT(ullElapsed, 7000u);
    LinkPair::Close(&m_pLink->hServer);
    drain.get();
}

TEST_F(NetworkSendTest, OnlyABrokenLinkIsALinkError)
{
    static const struct {
        const char *pszCall;
        int         nth;
        uint32_t    dwError;
        int32_t     nExpected;
    } aCases[] = {{"send", 1, WSAECONNRESET, 102},
                  {"send", 1, WSAETIMEDOUT, -21},
                  {"_waccess", 1, ERROR_FILE_NOT_FOUND, -301},
                  {"BCryptExportKey", 1, 0xC0000001, 1001}};
    for (const auto &c : aCases) {
        m_pPeer = std::make_unique<FakePeer>();
        hosted::ClearFaults();
        // what cannot be prepared shows what it is when it is sent
        hosted::FailCall("ReadFile", 1, ERROR_LOCK_VIOLATION);
        hosted::FailCall(c.pszCall, c.nth, c.dwError);
        EXPECT_EQ(c.nExpected, Send()) << c.pszCall << c.dwError;
        EXPECT_EQ(0, g_bSendingFile);
        m_pPeer.reset();
    }
    IpcMessage record = {};
    m_pPeer           = std::make_unique<FakePeer>();
    EXPECT_EQ(1, SendNetworkCommand(&record, 0, 0));
    hosted::FailCall("send", 1, WSAETIMEDOUT);
    EXPECT_EQ(-1, SendNetworkCommand(&record, 0, 0));
    hosted::FailCall("send", 1, WSAECONNABORTED);
    EXPECT_EQ(102, SendNetworkCommand(&record, 0, 0));
    g_nWSAErr = WSAECONNRESET; // saved by the listener of this link
    hosted::FailCall("send", 1, WSAETIMEDOUT);
    EXPECT_EQ(102, SendNetworkCommand(&record, 0, 0));
    ++g_dwLinkGeneration; // of a former one
    hosted::FailCall("send", 1, WSAETIMEDOUT);
    EXPECT_EQ(-1, SendNetworkCommand(&record, 0, 0));
}

TEST_F(NetworkSendTest, AThreadOfAFormerLinkSendsNothing)
{
    m_pPeer = std::make_unique<FakePeer>();
    BindThreadToLink(g_dwLinkGeneration);
    EXPECT_EQ(1, Send());
    EnterCriticalSection(&g_csNetSocket);
    int32_t     nFile = 0, nCommand = 0;
    std::thread waiting([&] {
        IpcMessage record = {};
        BindThreadToLink(g_dwLinkGeneration);
        nFile    = Send();
        nCommand = SendNetworkCommand(&record, 0, 0);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // past its first check, or it finds the same there
    const int nSends = hosted::CallCount("send");
    ++g_dwLinkGeneration;
    LeaveCriticalSection(&g_csNetSocket);
    waiting.join();
    EXPECT_EQ(-1005, nFile);
    EXPECT_EQ(-1005, nCommand);
    EXPECT_EQ(-1005, Send());
    EXPECT_EQ(nSends, hosted::CallCount("send"));
    EXPECT_EQ(0, g_bSendingFile);
    BindThreadToLink(0);
}

TEST_F(NetworkSendTest, ASenderThatWaitsForTheLineLeavesTheLockToOthers)
{
    std::atomic<bool> bAnswer{false};
    m_pPeer            = std::make_unique<FakePeer>([&](uint32_t, const std::string &sPath) {
        if (sPath == "D:\\first") Eventually([&] { return bAnswer.load(); });
        return "FileDone";
    });
    int32_t     nFirst = 0, nSecond = 0;
    std::thread first([&] { nFirst = Send(u"D:\\first"); });
    EXPECT_TRUE(Eventually([&] { return g_bSendingFile == 1; }));
    std::thread second([&] { nSecond = Send(u"D:\\second"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EnterCriticalSection(&g_csNetSocket); // as the listener does for its own answers
    LeaveCriticalSection(&g_csNetSocket);
    EXPECT_EQ(1, g_bSendingFile);
    bAnswer = true;
    first.join();
    second.join();
    EXPECT_EQ(1, nFirst);
    EXPECT_EQ(1, nSecond);
    EXPECT_EQ(2u, m_pPeer->Take().size());
    m_pPeer.reset();
}

TEST_F(NetworkSendTest, WaitsAreBoundedByFourHundredPolls)
{
    const auto pSilent = [](uint32_t, const std::string &) { return ""; };
    m_pPeer            = std::make_unique<FakePeer>(pSilent);
    hosted::SetClockRate(50);
    uint64_t ullBegin = GetTickCount64();
    EXPECT_EQ(0, Send()) << "no answer: the command layer's result";
    EXPECT_GE(GetTickCount64() - ullBegin, 10000u);
    EXPECT_EQ(0, g_bSendingFile);

    m_pPeer.reset(); // what the former link owes is nobody's
    m_pPeer        = std::make_unique<FakePeer>(pSilent);
    g_bSendingFile = 1; // of a sender that never ends
    ullBegin       = GetTickCount64();
    EXPECT_EQ(0, Send());
    EXPECT_GE(GetTickCount64() - ullBegin, 20000u) << "the line's limit, then the answer's";
    EXPECT_EQ(1u, m_pPeer->Take().size());
}

TEST_F(NetworkSendTest, ALateAnswerIsNotTakenForTheNextFiles)
{
    std::atomic<bool> bLate{false};
    m_pPeer             = std::make_unique<FakePeer>([&](uint32_t, const std::string &sPath) {
        if (sPath != "D:\\second") return "";
        Eventually([&] { return bLate.load(); }); // a sender that did not wait for it has the wrong answer by now
        return "FileError";
    });
    const auto lateDone = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        g_bRemoteFileDone = 1; // for the file before
        SetEvent(GetFileOutcomeEvent());
        bLate = true;
    };
    hosted::SetClockRate(50);
    EXPECT_EQ(0, Send(u"D:\\first"));
    hosted::SetClockRate(1);
    std::thread late(lateDone);
    EXPECT_EQ(1001, Send(u"D:\\second"));
    late.join();

    // A source that cannot be opened travels as an empty file, which the peer stores and answers.
    hosted::FailCall("ReadFile", 1, ERROR_LOCK_VIOLATION);
    hosted::FailCall("CreateFileW", 3, ERROR_ACCESS_DENIED);
    EXPECT_EQ(-102, Send(u"D:\\third"));
    bLate = false;
    late  = std::thread(lateDone);
    EXPECT_EQ(1001, Send(u"D:\\second"));
    late.join();
    m_pPeer.reset();
}
