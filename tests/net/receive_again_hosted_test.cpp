// Files that come a second time: known after an interruption, told apart in every other case, whatever died in between.
#include "migration/receipt_journal.h"
#include "platform/profile.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

namespace {

class ReceiveAgain : public NetTest {
  protected:
    void SetUp() override
    {
        NetTest::SetUp();
        m_sFolder = TestFolder();
        Link(u"OLDPC");
    }
    void TearDown() override
    {
        EndLink();
        NetTest::TearDown();
    }
    void Link(const std::u16string &sComputer)
    {
        EndLink();
        m_peer = OpenServedLink();
        const std::u16string sInfo =
            u"\xFEFF[SourceMachine]\r\n\"ComputerName\"=\"" + sComputer + u"\"\r\n\"CurrentUser\"=\"S-1-5-21-7\"\r\n";
        const std::string sBytes(reinterpret_cast<const char *>(sInfo.data()), sInfo.size() * 2);
        EXPECT_EQ("FileDone", Answer(u"C:\\localinfo.ini", 10, sComputer.empty() ? "\xFF\xFE" : sBytes));
    }
    std::string Answer(const std::u16string &sPath, uint32_t dwType, const std::string &sContent)
    {
        m_peer.Send(FileCommand(sPath, dwType, sContent));
        return m_peer.Receive(10).c_str();
    }
    std::string Send(const std::u16string &sName, const std::string &sContent)
    {
        const std::string sWord = Answer(m_sFolder + u"\\" + sName, 3, sContent);
        m_peer.Send(Field("KeepAlive")); // what follows the answer is over
        EXPECT_EQ(Field("AckAlive"), m_peer.Receive(10));
        return sWord;
    }
    void Report(uint32_t dwOutcome)
    {
        m_peer.Send(Field("SendData") + Bytes(MakeRecord(8480, dwOutcome, 0, 0, u"")));
        m_peer.Send(Field("KeepAlive"));
        EXPECT_EQ(Field("AckAlive"), m_peer.Receive(10));
    }
    void DeleteAll()
    {
        for (const std::u16string &sName : NamesOf(m_sFolder + u"\\*"))
            if (sName[0] != u'.') DeleteFileW((m_sFolder + u"\\" + sName).c_str());
    }
    // "name=content|" of each file.
    std::string Files()
    {
        std::string s;
        for (const std::u16string &sName : NamesOf(m_sFolder + u"\\*"))
            if (sName[0] != u'.')
                s += std::string(sName.begin(), sName.end()) + "=" + ReadTestFile(m_sFolder + u"\\" + sName) + "|";
        return s;
    }
    static std::u16string ProgressFile(const char16_t *pszName)
    {
        char16_t szFile[MAX_PATH];
        EXPECT_EQ(1, GetProgressFile(pszName, szFile));
        return szFile;
    }
    static std::u16string Journal() { return ProgressFile(u"receipts.dat"); }
    static void           SetProgress(const char16_t *pszKey, const char16_t *pszValue)
    {
        const std::u16string sFile = ProgressFile(PROGRESS_INFO_FILE);
        EXPECT_TRUE(WritePrivateProfileStringW(u"Collection", pszKey, pszValue, sFile.c_str()));
    }
    Peer           m_peer;
    std::u16string m_sFolder;
};

} // namespace

TEST_F(ReceiveAgain, KnownAfterAnInterruptionAndNotOtherwise)
{
    const struct {
        const char     *pszBefore; // what happens first
        const char16_t *pszName;
        const char     *pszContent;
        const char     *pszFiles;
    } aSteps[] = {
        {"", u"a.txt", "one", "a.txt=one|"},
        {"", u"a.txt", "one", "a (2).txt=one|a.txt=one|"}, // two sources of one request
        {"cut", u"a.txt", "one", "a (2).txt=one|a.txt=one|"},
        {"", u"a.txt", "one", "a (2).txt=one|a.txt=one|"},
        {"", u"a.txt", "one", "a (2).txt=one|a (3).txt=one|a.txt=one|"}, // each of the two has come again already
        {"delete", u"b.txt", "two", "b.txt=two|"},
        {"cut", u"b.txt", "TWO", "b (2).txt=TWO|b.txt=two|"},               // changed at its source, or another source
        {"cut", u"B.txt", "two", "b (2).txt=TWO|B (3).txt=two|b.txt=two|"}, // another file of a folder that knows case
        {"edit", u"b.txt", "two", "b (2).txt=TWO|B (3).txt=two|b (4).txt=two|b.txt=my|"},
        {"delete", u"c.txt", "", "c.txt=|"},
        {"cut", u"c.txt", "", "c.txt=|"},
        {"failed", u"c.txt", "", "c.txt=|"},          // a request of this link ended, this is its successor
        {"peer", u"c.txt", "", "c (2).txt=|c.txt=|"}, // another machine's
        {"delete", u"d.txt", "four", "d.txt=four|"},
        {"done", u"d.txt", "four", "d (2).txt=four|d.txt=four|"}, // asked for again by somebody who has all of it
        {"cut", u"d.txt", "four", "d (2).txt=four|d.txt=four|"},
        {"nobody", u"d.txt", "four", "d (2).txt=four|d (3).txt=four|d.txt=four|"}, // a peer that does not say who it is
    };
    std::u16string sComputer = u"OLDPC";
    for (const auto &step : aSteps) {
        const std::string sBefore = step.pszBefore;
        const std::string sStep   = "step " + std::to_string(&step - aSteps);
        if (sBefore == "delete") DeleteAll();
        if (sBefore == "cut" || sBefore == "edit") Link(sComputer);
        if (sBefore == "edit") WriteTestFile(m_sFolder + u"\\b.txt", "my");
        if (sBefore == "peer") Link(sComputer = u"OTHERPC");
        if (sBefore == "nobody") Link(u"");
        if (sBefore == "failed") Report(0xFFFFFFFE);
        if (sBefore == "done") Report(2);
        EXPECT_EQ("FileDone", Send(step.pszName, step.pszContent)) << sStep;
        EXPECT_EQ(step.pszFiles, Files()) << sStep;
    }
}

TEST_F(ReceiveAgain, WhateverDiedInBetween)
{
    const std::string sLong(200000, 'l');
    // Noted, and not named: stored as if nothing had been; beside a file that somebody put there meanwhile.
    for (const char *pszMeanwhile : {"", "mine"}) {
        hosted::FailCall("MoveFileExW", 1, ERROR_GEN_FAILURE);
        EXPECT_EQ("FileError", Send(u"a", sLong));
        EXPECT_EQ("", Files());
        if (*pszMeanwhile != '\0') WriteTestFile(m_sFolder + u"\\a", pszMeanwhile);
        Link(u"OLDPC");
        EXPECT_EQ("FileDone", Send(u"a", sLong));
        EXPECT_EQ(*pszMeanwhile != '\0' ? "a=mine|a (2)=" + sLong + "|" : "a=" + sLong + "|", Files());
        DeleteAll();
    }
    // The last note is torn: its file is not known, the others are.
    EXPECT_EQ("FileDone", Send(u"b", "1"));
    EXPECT_EQ("FileDone", Send(u"c", "2"));
    EndLink();
    std::string sJournal = ReadTestFile(Journal());
    ASSERT_EQ((RECEIPT_SLOTS + 1) * 64, sJournal.size());
    sJournal[sJournal.find_last_not_of('\0', sJournal.size() - 1) - 20] ^= 1;
    WriteTestFile(Journal(), sJournal);
    Link(u"OLDPC");
    EXPECT_EQ("FileDone", Send(u"b", "1"));
    EXPECT_EQ("FileDone", Send(u"c", "2"));
    EXPECT_EQ("b=1|c=2|c (2)=2|", Files());
    // The peer's report came in, and the process died before the service had it: the service asks for all of it again.
    sJournal = ReadTestFile(Journal());
    Report(2);
    EXPECT_EQ(sJournal, ReadTestFile(Journal()));
    EndLink();
    EXPECT_NE(sJournal, ReadTestFile(Journal())) << "a link that ended in order has told the service before";
    // A journal that is no journal, or cut short, is begun anew and holds from there on.
    for (const std::string &sWrong : {sJournal.substr(0, 1000), std::string(sJournal.size(), 'x')}) {
        EndLink();
        WriteTestFile(Journal(), sWrong);
        Link(u"OLDPC");
        ASSERT_TRUE(DeleteFileW((m_sFolder + u"\\b").c_str()));
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ("FileDone", Send(u"b", "1"));
            Link(u"OLDPC");
        }
        EXPECT_EQ("b=1|c=2|c (2)=2|", Files());
    }
}

TEST_F(ReceiveAgain, ProgressCountsAFileOnce)
{
    SetProgress(u"\"Size\"", u"1000");
    const std::string sContent(100, 'x');
    EXPECT_EQ("FileDone", Send(u"a", sContent));
    EXPECT_EQ("FileDone", Send(u"b", sContent));
    EXPECT_EQ(200u, GetProgressSize(0));
    for (const char16_t *pszDiedWith : {u"200", u"100"}) { // the second time before "b" was counted
        SetProgress(u"\"ProgressSize\"", pszDiedWith);
        for (int i = 0; i < 2; i++) {
            Link(u"OLDPC");
            for (const char16_t *pszName : {u"a", u"b"}) EXPECT_EQ("FileDone", Send(pszName, sContent));
            EXPECT_EQ(200u, GetProgressSize(0));
        }
    }
    // A progress file that cannot be read or written for a moment is no empty one; what could not be counted is counted
    // with the next file.
    hosted::SetClockRate(20);
    for (const char *pszCall : {"GetPrivateProfileStringW", "WritePrivateProfileStringW"}) {
        const uint64_t ullBefore = GetProgressSize(0);
        hosted::FailCall(pszCall, 1, ERROR_SHARING_VIOLATION);
        EXPECT_EQ("FileDone", Send(u"c", sContent));
        EXPECT_EQ(ullBefore + 100, GetProgressSize(0)) << pszCall;
        hosted::ClearFaults();
        hosted::FailCall(pszCall, 1, ERROR_SHARING_VIOLATION, true);
        EXPECT_EQ("FileDone", Send(u"d", sContent));
        hosted::ClearFaults();
        EXPECT_EQ(ullBefore + 100, GetProgressSize(0)) << pszCall;
        EXPECT_EQ("FileDone", Send(u"e", sContent));
        EXPECT_EQ(ullBefore + 300, GetProgressSize(0)) << pszCall;
    }
}

TEST_F(ReceiveAgain, TheRingRemembersTheLastOnes)
{
    constexpr uint32_t FORGOTTEN = 1000;
    StoredReceipt      receipt;
    const auto         NameOf = [](uint32_t i) { return u"C:\\" + std::u16string(1, static_cast<char16_t>(i)); };
    for (uint32_t i = 0; i < RECEIPT_SLOTS + FORGOTTEN; i++) NoteReceipt(NameOf(i).c_str(), 1, i);
    CloseReceiptJournal();
    for (uint32_t i = 0; i < RECEIPT_SLOTS + FORGOTTEN; i++)
        ASSERT_EQ(i < FORGOTTEN ? 0u : 1u, FindStoredReceipts(NameOf(i).c_str(), i, &receipt, 1)) << i;
}
