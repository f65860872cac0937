// Several files on the way: whose word is whose, what a walk makes of the outcomes, and that it all ends as it does
// with one file at a time.
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "tests/transfer/transfer_fixture.h"
#include "transfer/answer_queue.h"
#include "transfer/destination_limits.h"
#include "transfer/folder_tree.h"
#include "transfer/network_send.h"
#include "transfer/prepared_file.h"
#include "transfer/send_window.h"
#include <map>

using namespace platform;

namespace {

// What two machine infos agree on.
void Agree(uint32_t nFiles)
{
    WritePrivateProfileStringA("Link", "SendWindow", std::to_string(nFiles).c_str(), g_szConfigPath);
    ReadOwnWindow();
    NoteInfoSent();
    NoteInfoAnswer(true);
    NotePeerWindow(64);
}

class SendWindowTest : public TransferTest, public ::testing::WithParamInterface<uint32_t> {
  protected:
    void SetUp() override
    {
        static uint32_t s_nLinks = 0;
        TransferTest::SetUp();
        g_dwLinkGeneration = s_nLinks += 100; // what an earlier test's peer still owes is not this one's
        GetConfigPath();
        ResetStateFiles();
        CloseRecordStore();
        m_Send.pbSpaceExhausted = &m_bSpaceExhausted;
        m_Send.pbFatal          = &m_bFatal;
        m_Send.pLimits          = &m_Limits;
    }
    void TearDown() override
    {
        CloseRecordStore();
        FreeDestinationLimits(&m_Limits);
        TransferTest::TearDown();
    }
    // A link whose peer answers by name ("FileDone" where nothing is said), once nHeld items have come.
    void Link(uint32_t nWindow, uint32_t nHeld = 0)
    {
        m_nHeld = nHeld;
        m_pPeer = std::make_unique<FakePeer>([this, nWindow](uint32_t, const std::string &sPath) -> std::string {
            const auto  it   = m_Answers.find(sPath.substr(sPath.rfind('\\') + 1));
            std::string sAll = it == m_Answers.end() ? "FileDone" : it->second;
            if (sAll == "<gone>") return sAll;
            if (!sAll.empty() && nWindow > 1 && sAll != "FileDone") sAll += " FileNone";
            m_sHeld += " " + sAll;
            if (m_nHeld > 0 && --m_nHeld > 0) return "";
            return std::exchange(m_sHeld, "");
        });
        Agree(nWindow);
        ASSERT_EQ(nWindow, GetLinkWindow());
    }
    uint32_t Walk()
    {
        const std::u16string sBase = m_sFolder + u"\\";
        m_Send.pszRecordBase       = sBase.c_str();
        return SendNetworkFileEx(m_sFolder.c_str(), &m_Send);
    }
    void MakeFiles(const std::vector<std::pair<const char16_t *, size_t>> &files)
    {
        for (const auto &[pszName, cb] : files) WriteTestFile(m_sFolder + u"\\" + pszName, Content(cb));
    }
    // The names that are recorded, and what was reported, each in order.
    std::string Recorded(const std::vector<const char16_t *> &names)
    {
        std::string s;
        for (const char16_t *pszName : names)
            if (ReadRecordState((m_sFolder + u"\\").c_str(), (m_sFolder + u"\\" + pszName).c_str()) == RECORD_FILE_SENT)
                s += Utf8(pszName);
        return s;
    }
    std::string Arrived(const char *pszKind)
    {
        std::string s;
        IpcMessage  marker = {};
        SendNetworkCommand(&marker, 0, 0);
        EXPECT_TRUE(Eventually([&] {
            for (const std::string &sLine : m_pPeer->Take()) {
                if (sLine.starts_with("record 0 ")) return true;
                if (!sLine.starts_with(pszKind)) continue;
                const std::string sName = sLine.substr(sLine.rfind('\\') + 1);
                s += sName.substr(0, sName.find(' '));
            }
            return false;
        }));
        return s;
    }

    FolderTreeSend                     m_Send            = {};
    DestinationLimits                  m_Limits          = {};
    uint32_t                           m_bSpaceExhausted = 0;
    uint32_t                           m_bFatal          = 0;
    uint32_t                           m_nHeld           = 0; // peer's thread
    std::string                        m_sHeld;
    std::map<std::string, std::string> m_Answers;
};

struct Queue : TransferTest {
    FileTicket Sent()
    {
        FileTicket ticket = {};
        EXPECT_TRUE(OpenAnswer(&ticket));
        EndStream(&ticket, true);
        return ticket;
    }
    static void        Say(AnswerWord eWord) { EXPECT_TRUE(NoteAnswer(eWord)); }
    static AnswerState State(const FileTicket &ticket)
    {
        FileOutcome outcome;
        return LookAtAnswer(&ticket, nullptr, &outcome);
    }
};

} // namespace

TEST_F(Queue, AWordBelongsToTheOldestOpenFileAndOnlyItsOwnErrorAbortsAStream)
{
    EXPECT_FALSE(NoteAnswer(AnswerWord::Done)) << "nothing is owed";
    const FileTicket first  = Sent();
    FileTicket       second = {};
    ASSERT_TRUE(OpenAnswer(&second)); // its stream goes on
    Say(AnswerWord::Error);
    EXPECT_FALSE(GetCurrentOutcome().bError) << "said of the first";
    Say(AnswerWord::None);
    EXPECT_EQ(AnswerState::Closed, State(first));
    Say(AnswerWord::Full);
    EXPECT_TRUE(GetCurrentOutcome().bFull);
    EndStream(&second, true);
    Say(AnswerWord::None);
    EXPECT_EQ(AnswerState::Closed, State(second));
    EXPECT_FALSE(IsAnswerOwed());
    const FileTicket unsent = [] {
        FileTicket ticket = {};
        OpenAnswer(&ticket);
        EndStream(&ticket, false);
        return ticket;
    }();
    EXPECT_EQ(AnswerState::Closed, State(unsent)) << "of what was not sent nobody speaks";
    const FileTicket last = Sent();
    EnterRoleChange();
    NextLinkGeneration(); // the link's end
    LeaveRoleChange();
    EXPECT_EQ(AnswerState::LinkGone, State(last));
    EXPECT_FALSE(NoteAnswer(AnswerWord::Done));
}

TEST_F(Queue, TenSecondsBeginWithAFilesTurnAndALateWordStaysItsOwn)
{
    const FileTicket first = Sent(), second = Sent();
    hosted::AdvanceClock(9000);
    Say(AnswerWord::Done);
    hosted::AdvanceClock(9000);
    EXPECT_EQ(AnswerState::Owed, State(second)) << "its time began with the first one's word";
    const FileTicket third = Sent();
    hosted::AdvanceClock(1000);
    EXPECT_EQ(AnswerState::Overdue, State(second));
    EXPECT_EQ(AnswerState::Owed, State(third));
    DropTicket(&first);
    DropTicket(&second);
    hosted::AdvanceClock(9000);
    Say(AnswerWord::Done); // late: the second's
    EXPECT_EQ(AnswerState::Owed, State(third));
    Say(AnswerWord::Done);
    EXPECT_EQ(AnswerState::Closed, State(third));
    DropTicket(&third);
    for (int i = 0; i < 1000; i++) { // places are used again, however often
        const FileTicket ticket = Sent();
        Say(AnswerWord::Done);
        DropTicket(&ticket);
    }
    FileTicket ticket = {};
    int        nOpen  = 0;
    while (OpenAnswer(&ticket)) nOpen++;
    EXPECT_EQ(256, nOpen) << "a peer that answers nothing is not given more";
}

TEST_P(SendWindowTest, OutcomesAreTakenInOrderWhateverIsOnTheWay)
{
    MakeFiles({{u"a", 10}, {u"b", 5000}, {u"c", 200000}, {u"d", 10}, {u"e", 0}, {u"f", 10}, {u"g", 70000}});
    m_Answers = {{"b", "FileErrDF"}, {"c", "FILEERRDF"}, {"d", "TypeWrong"}, {"e", "FileError"}, {"g", "FILEERRDF"}};
    const bool bAllAtOnce = GetParam() >= 8; // then nothing is answered before the folder and its seven files have come
    Link(GetParam(), bAllAtOnce ? 8 : 0);
    EXPECT_EQ(2u, Walk());
    EXPECT_EQ("af", Recorded({u"a", u"b", u"c", u"d", u"e", u"f", u"g"}));
    EXPECT_EQ(1u, m_bSpaceExhausted);
    EXPECT_EQ(0u, m_bFatal);
    ASSERT_NE(nullptr, FindDestinationLimit(&m_Limits, u"C:"));
    EXPECT_EQ(5000, FindDestinationLimit(&m_Limits, u"C:")->llLimit);
    EXPECT_EQ("bcdeg", Arrived("record 333 1 1")) << "one report for each, also where a known full disk refused it";
    FreeDestinationLimits(&m_Limits);
    m_Answers.clear();
    EXPECT_EQ(7u, Walk());
    EXPECT_EQ("bcdeg", Arrived("file")) << "what is recorded is not sent again";
}

TEST_P(SendWindowTest, ACutLinkLeavesNothingRecordedThatWasNotAnswered)
{
    const std::vector<const char16_t *> names = {u"a", u"b", u"c", u"d", u"e"};
    hosted::SetClockRate(200); // a peer that leaves in order is silence
    for (size_t nCut = 0; nCut < names.size(); nCut++) {
        for (const char16_t *pszName : names) MakeFiles({{pszName, 100}});
        CloseRecordStore();
        DeleteRecordStore();
        m_bFatal  = 0;
        m_Answers = {{Utf8(names[nCut]), "<gone>"}};
        m_sHeld.clear();
        m_pLink = std::make_unique<LinkPair>();
        Link(GetParam());
        const uint32_t nSent = Walk();
        EXPECT_TRUE(nSent == nCut || (GetParam() > 1 && nSent < nCut)) << nSent << " answers may be lost with the link";
        EXPECT_EQ(std::string("abcde").substr(0, nSent), Recorded(names));
        m_pPeer.reset();
    }
    hosted::SetClockRate(1);
}

TEST_P(SendWindowTest, ASilentPeerCostsTenSecondsAndACancelledWalkDoesNotWaitForEach)
{
    MakeFiles({{u"a", 10}, {u"b", 10}, {u"c", 10}, {u"d", 10}});
    m_Answers = {{"b", ""}, {"c", ""}, {"d", ""}};
    Link(GetParam());
    m_Send.ullExecution = AddThreadExecution();
    auto        walk    = std::async(std::launch::async, [&] { return Walk(); });
    std::string sSeen;
    EXPECT_TRUE(Eventually([&] {
        for (const std::string &sLine : m_pPeer->Take()) sSeen += sLine;
        return sSeen.find("\\b ") != std::string::npos;
    }));
    const uint64_t ullBegin = GetTickCount64();
    hosted::SetClockRate(50);
    CancelAllThreadExecutions();
    EXPECT_EQ(1u, walk.get());
    EXPECT_LT(GetTickCount64() - ullBegin, 25000u) << "not ten for each file";
    hosted::SetClockRate(1);
    EXPECT_EQ("a", Recorded({u"a", u"b", u"c", u"d"}));
    RemoveThreadExecution(m_Send.ullExecution);
}

TEST_P(SendWindowTest, NothingFollowsAStreamThatDidNotLeaveWhole)
{
    MakeFiles({{u"a", 10}, {u"b", 10}, {u"c", 10}, {u"d", 10}, {u"e", 10}, {u"f", 10}});
    Link(GetParam());
    hosted::SetClockRate(50);                        // what is out is waited for ten seconds in all
    hosted::FailCall("FlushSends", 2, WSAETIMEDOUT); // the folder leaves, what follows does not
    EXPECT_EQ(0u, Walk());
    EXPECT_EQ(1u, m_bFatal);
    EXPECT_EQ("", Recorded({u"a", u"b", u"c", u"d", u"e", u"f"}));
    hosted::SetClockRate(1);
    EXPECT_EQ("", Arrived("file")) << "the one flush that failed, and no other";
}

TEST_P(SendWindowTest, AFileSentBesideAWalkHasItsOwnAnswer)
{
    std::vector<std::pair<std::u16string, int32_t>> aside = {{u"\\x1", SEND_OK}, {u"\\x2", SEND_FILE_ERROR}};
    for (int i = 0; i < 200; i++)
        WriteTestFile(m_sFolder + u"\\" + static_cast<char16_t>(u'A' + i % 26) + static_cast<char16_t>(u'0' + i / 26),
                      Content(500));
    CreateDirectoryW(u"C:\\aside", nullptr);
    for (const auto &[sName, nResult] : aside) WriteTestFile(u"C:\\aside" + sName, "aside");
    m_Answers = {{"x2", "FileError"}};
    Link(GetParam());
    auto walk = std::async(std::launch::async, [&] { return Walk(); });
    for (int i = 0; i < 20; i++)
        for (const auto &[sName, nResult] : aside)
            EXPECT_EQ(nResult,
                      SendNetworkFile((u"C:\\aside" + sName).c_str(), (u"D:" + sName).c_str(), 0, 0, 1, nullptr));
    EXPECT_EQ(200u, walk.get());
}

TEST_P(SendWindowTest, AFileThatChangedAfterItWasPreparedIsSentAsItIsNow)
{
    PreparedFile prepared = {};
    MakeFiles({{u"a", 100}});
    const std::u16string sFile = m_sFolder + u"\\a";
    PrepareFile(sFile.c_str(), &prepared);
    EXPECT_TRUE(IsStillPrepared(sFile.c_str(), &prepared));
    MakeFiles({{u"a", 101}});
    EXPECT_FALSE(IsStillPrepared(sFile.c_str(), &prepared));
    Link(GetParam());
    const NetworkFile file = {sFile.c_str(), u"D:\\a", 0, 0, 1, &prepared};
    EXPECT_EQ(SEND_OK, SendPreparedNetworkFile(&file, nullptr, nullptr));
    EXPECT_EQ(Lines{"file 0 D:\\a 101"}, m_pPeer->TakeUntil("file"));
    ReleasePrepared(&prepared);
}

INSTANTIATE_TEST_SUITE_P(Windows, SendWindowTest, ::testing::Values(1u, 2u, 64u));
