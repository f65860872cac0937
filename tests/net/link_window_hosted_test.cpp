// The agreement on a send window: when it holds, for how many files, and the one word that closes each of them.
#include "migration/local_info.h"
#include "platform/profile.h"
#include "tests/net/observed_hosted.h"
#include "transfer/network_send.h"

using namespace platform;

namespace {

class LinkWindow : public NetTest {
  protected:
    static void SetOwn(const char *pszNumber)
    {
        WritePrivateProfileStringA("Link", "SendWindow", pszNumber, g_szConfigPath);
    }
    // The peer's machine info, answered "FileDone".
    static void ReceiveInfo(Peer *pPeer, const std::string &sNumber)
    {
        std::string sText = "[SourceMachine]\r\n\"ComputerName\"=\"PEER\"\r\n";
        if (!sNumber.empty()) sText += "[Link]\r\n\"SendWindow\"=" + sNumber + "\r\n";
        pPeer->Send(FileCommand(u"C:\\x.ini", 10, sText));
        EXPECT_EQ(Field("FileDone"), pPeer->Receive(10));
    }
    // The own machine info goes to the peer, which answers it.
    static int32_t SendInfo(Peer *pPeer, const char *pszAnswer)
    {
        WriteLocalInfo(&g_Session);
        auto sent = std::async(std::launch::async, [] { return SendLocalInfo(); });
        pPeer->Receive(10 + 2050 + 4 + 4 + 1);
        pPeer->Receive(8 + 4 + 20); // size and key; one chunk follows
        pPeer->Receive(pPeer->ReceiveValue<uint32_t>());
        pPeer->Send(Field(pszAnswer));
        return sent.get();
    }
};

} // namespace

TEST_F(LinkWindow, HoldsWhenBothInfosHaveCrossedForTheLowerNumber)
{
    static const struct {
        const char *pszOwn, *pszPeer;
        uint32_t    nWindow;
    } aCases[] = {
        {"64", "\"64\"", 64},    {"8", "\"64\"", 8},  {"64", "\"3\"", 3},           {"1", "\"64\"", 1},
        {"64", "", 1},           {"64", "\"1\"", 1},  {"64", "\"0\"", 1},           {"64", "\"99999999\"", 64},
        {"99999", "\"64\"", 64}, {"-5", "\"64\"", 1}, {"64", "\"-2147483648\"", 1}, {"64", "\"x\"", 1},
        {"", "\"64\"", 64}};
    for (const auto &c : aCases) {
        for (const bool bFirst : {true, false}) { // as the server, whose info goes second, and as the client
            Peer peer = OpenServedLink();
            SetOwn(c.pszOwn);
            if (bFirst) ReceiveInfo(&peer, c.pszPeer);
            EXPECT_EQ(1u, GetLinkWindow()) << "one info is no agreement";
            EXPECT_EQ(SEND_OK, SendInfo(&peer, "FileDone"));
            if (!bFirst) ReceiveInfo(&peer, c.pszPeer);
            EXPECT_TRUE(Eventually([&] { return GetLinkWindow() == c.nWindow; })) << c.pszOwn << " " << c.pszPeer;
            EndLink();
            EXPECT_EQ(1u, GetLinkWindow()) << "not the next link's";
        }
    }
    Peer peer = OpenServedLink();
    SetOwn("64");
    ReceiveInfo(&peer, "\"64\"");
    EXPECT_EQ(SEND_FILE_ERROR, SendInfo(&peer, "FileError"));
    EXPECT_EQ(1u, GetLinkWindow()) << "the peer does not know the own number";
    SetOwn("1");
    WriteLocalInfo(&g_Session);
    char16_t szFile[MAX_PATH], szValue[8];
    GetProgressFile(LOCAL_INFO_FILE, szFile);
    EXPECT_EQ(0u, GetPrivateProfileStringW(u"Link", SEND_WINDOW_KEY, u"", szValue, 8, szFile))
        << "switched off: not a word of it";
}

TEST_F(LinkWindow, EveryFileIsClosedByOneWordAndWithoutAWindowAsEver)
{
    const std::u16string sTo     = TestFolder() + u"\\to";
    std::string          sBroken = FileCommand(sTo + u"4", 0, std::string(100, 'x'));
    const std::string    sCancel = "VnNetSocket_CancelSendFile";
    sBroken.replace(sBroken.size() - 100, sCancel.size(), sCancel);
    const struct {
        std::string sCommand, sWords;
    } aCases[] = {{FileCommand(sTo + u"1", 0, "stored"), "FileDone"},
                  {Field("SendFile") + PathField(sTo) + Bytes(2), "FileDone"},
                  {Field("SendFile") + PathField(u"nowhere") + Bytes(2), "FileError FileNone"},
                  {FileCommand(u"nowhere", 0, "text"), "FileError FileNone"},
                  {FileCommand(sTo + u"2", 9, "text"), "TypeWrong FileNone"},
                  {FileCommand(u"Q:\\none", 0, "text"), "FileError FileNone"},
                  {sBroken, "FileNone"}};
    for (const uint32_t nWindow : {1u, 64u}) {
        Peer peer = OpenServedLink();
        SetOwn("64");
        ReceiveInfo(&peer, nWindow > 1 ? "\"64\"" : "");
        EXPECT_EQ(SEND_OK, SendInfo(&peer, "FileDone")); // from here on
        ASSERT_TRUE(Eventually([&] { return GetLinkWindow() == nWindow; }));
        for (const auto &c : aCases) {
            std::istringstream words(c.sWords);
            std::string        sExpected;
            for (std::string sWord; words >> sWord;)
                if (nWindow > 1 || sWord != "FileNone") sExpected += Field(sWord);
            peer.Send(c.sCommand + Field("KeepAlive"));
            EXPECT_EQ(sExpected + Field("AckAlive"), peer.Receive(sExpected.size() + 10)) << c.sWords << nWindow;
        }
        EndLink();
    }
}

TEST_F(LinkWindow, AnAnswerWaitsForAFileThatIsThereAndForNothingElse)
{
    const std::u16string sTo   = TestFolder() + u"\\to";
    const std::string    sTwo  = FileCommand(sTo + u"1", 3, "a") + FileCommand(sTo + u"2", 3, "b");
    const std::string    sNext = FileCommand(sTo + u"3", 3, std::string(3000, 'x'));
    const std::string    sDone = Field("FileDone");
    Peer                 peer  = OpenServedLink();
    SetOwn("64");
    ReceiveInfo(&peer, "\"64\"");
    EXPECT_EQ(SEND_OK, SendInfo(&peer, "FileDone"));
    ASSERT_TRUE(Eventually([] { return GetLinkWindow() == 64; }));
    for (const size_t cb : {size_t{0}, size_t{9}, size_t{10}, size_t{2000}, size_t{2100}, sNext.size() - 1}) {
        peer.Send(sTwo + sNext.substr(0, cb));
        EXPECT_EQ(sDone + sDone, peer.Receive(20)) << "while the next file breaks off after " << cb;
        peer.Send(sNext.substr(cb));
        EXPECT_EQ(sDone, peer.Receive(10)) << cb;
    }
    std::string sMany, sWords;
    for (int i = 0; i < 20; i++) {
        sMany += sTwo + FileCommand(u"nowhere", 3, "c");
        sWords += sDone + sDone + Field("FileError") + Field("FileNone");
    }
    peer.Send(sMany);
    EXPECT_EQ(sWords, peer.Receive(sWords.size())) << "in their order";
}
