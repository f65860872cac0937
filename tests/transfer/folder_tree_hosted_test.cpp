// The walk over a tree: what is sent, in which order and as what, and what a second run, a full disk and the lists
// leave out.
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "tests/transfer/transfer_fixture.h"
#include "transfer/folder_listing.h"
#include "transfer/folder_tree.h"
#include "transfer/network_send.h"
#include <map>

using namespace platform;

class FolderTreeTest : public TransferTest
{
  protected:
    void SetUp() override
    {
        TransferTest::SetUp();
        ResetStateFiles();
        CloseRecordStore();
        g_bSendDesktopIni = g_bTypedFiles = 0;
        m_Send.pExcluded                  = &m_Excluded;
        m_Send.pbSpaceExhausted           = &m_bSpaceExhausted;
        m_Send.pbFatal                    = &m_bFatal;
        m_Send.pLimits                    = &m_Limits;
        BecomeServer([this](const PeerFile &file) {
            const auto it = m_Answers.find(file.sPath.substr(file.sPath.rfind(u'\\') + 1));
            return it == m_Answers.end() ? &g_bRemoteFileDone : it->second;
        });
    }
    void TearDown() override
    {
        EndRole();
        CloseRecordStore();
        FreeStringList(&m_Excluded);
        FreeDestinationLimits(&m_Limits);
        g_bSendDesktopIni = g_bTypedFiles = 0;
        TransferTest::TearDown();
    }
    void MakeFolder(const std::u16string &sName, uint32_t dwAttributes = 0)
    {
        ASSERT_TRUE(CreateDirectoryW((m_sFolder + u"\\" + sName).c_str(), nullptr));
        if (dwAttributes != 0) SetFileAttributesW((m_sFolder + u"\\" + sName).c_str(), dwAttributes);
    }
    void MakeFile(const std::u16string &sName, uint32_t dwAttributes = 0, size_t cb = 3)
    {
        WriteTestFile(m_sFolder + u"\\" + sName, Content(cb));
        if (dwAttributes != 0) SetFileAttributesW((m_sFolder + u"\\" + sName).c_str(), dwAttributes);
    }
    uint32_t Walk() { return SendNetworkFileEx(m_sFolder.c_str(), &m_Send); }
    // What arrived since the last call: "type:name" below the folder, with '/' between levels.
    std::string Arrived()
    {
        std::string s;
        const auto  aFiles = m_pPeer->Files();
        for (; m_nSeen < aFiles.size(); m_nSeen++) {
            s += std::to_string(aFiles[m_nSeen].dwType) + ':';
            for (const char16_t ch : aFiles[m_nSeen].sPath.substr(m_sFolder.size()))
                s += ch == u'\\' ? '/' : static_cast<char>(ch);
            s += ' ';
        }
        return s;
    }
    // The paths reported as failed since the last call, '|' behind each.
    std::u16string Failed()
    {
        std::u16string s;
        IpcMessage     marker = {}; // behind everything that was sent
        marker.dwParam1       = ++m_nMarkers;
        SendNetworkCommand(&marker, 0, 0);
        EXPECT_TRUE(Eventually([&] {
            const auto aRecords = m_pPeer->Records();
            return !aRecords.empty() && aRecords.back().dwCommand == 0 && aRecords.back().dwParam1 == m_nMarkers;
        }));
        const auto aRecords = m_pPeer->Records();
        for (; m_nReports < aRecords.size(); m_nReports++) {
            if (aRecords[m_nReports].dwCommand == 0) continue;
            EXPECT_EQ(0x333u, aRecords[m_nReports].dwCommand);
            EXPECT_EQ(1u, aRecords[m_nReports].dwParam1);
            EXPECT_EQ(1u, aRecords[m_nReports].dwParam2);
            s += std::u16string(aRecords[m_nReports].szText1).substr(m_sFolder.size() + 1) + u"|";
        }
        return s;
    }

    FolderTreeSend                                   m_Send            = {};
    StringList                                       m_Excluded        = {};
    DestinationLimits                                m_Limits          = {};
    uint32_t                                         m_bSpaceExhausted = 0;
    uint32_t                                         m_bFatal          = 0;
    std::map<std::u16string, std::atomic<uint8_t> *> m_Answers;
    size_t                                           m_nSeen    = 0;
    size_t                                           m_nReports = 0;
    uint32_t                                         m_nMarkers = 0;
};

TEST_F(FolderTreeTest, SendsWhatIsNotHiddenInOrder)
{
    MakeFile(u"b.txt");
    MakeFile(u"A.LNK");
    MakeFile(u"hidden", FILE_ATTRIBUTE_HIDDEN);
    MakeFile(u"system", FILE_ATTRIBUTE_SYSTEM);
    MakeFile(u"desktop.ini", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    MakeFolder(u"aa");
    MakeFile(u"aa\\in.txt");
    MakeFolder(u"empty");
    MakeFolder(u"private", FILE_ATTRIBUTE_HIDDEN);
    MakeFile(u"private\\no.txt");
    EXPECT_EQ(4u, Walk()) << "three files, and one for the empty folder";
    EXPECT_EQ("2: 3:/A.LNK 2:/aa 3:/aa/in.txt 3:/b.txt 2:/empty ", Arrived());

    g_bTypedFiles = g_bSendDesktopIni = 1;
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("2: 3:/A.LNK 2:/aa 5:/aa/in.txt 5:/b.txt 2:/empty ", Arrived())
        << "desktop.ini needs a customised folder";
    SetFileAttributesW(m_sFolder.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("2: 3:/A.LNK 2:/aa 5:/aa/in.txt 5:/b.txt 4:/desktop.ini 2:/empty ", Arrived());
    SetFileAttributesW(m_sFolder.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(u"", Failed());
}

TEST_F(FolderTreeTest, ExcludedAndRestrictedFoldersAreLeftOut)
{
    StringList restricted = {}, included = {};
    for (const char16_t *psz : {u"one", u"two", u"three", u"three\\deep"})
        MakeFolder(psz);
    MakeFile(u"three\\deep\\file");
    AppendString(&m_Excluded, (m_sFolder + u"\\ONE").c_str(), 0);
    AppendString(&restricted, m_sFolder.c_str(), 0);
    AppendString(&included, (m_sFolder + u"\\Three").c_str(), 0);
    m_Send.pRestricted = &restricted;
    EXPECT_EQ(2u, Walk()) << "no list of included folders: no restriction";
    EXPECT_EQ("2: 2:/three 2:/three/deep 3:/three/deep/file 2:/two ", Arrived());
    m_Send.pIncluded = &included;
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ("2: 2:/three 2:/three/deep 3:/three/deep/file ", Arrived());
    FreeStringList(&restricted);
    FreeStringList(&included);
}

TEST_F(FolderTreeTest, ASecondRunSendsOnlyWhatIsNotRecorded)
{
    const std::u16string sBase = m_sFolder + u"\\";
    m_Send.pszRecordBase       = sBase.c_str();
    MakeFolder(u"sub");
    for (const char16_t *psz : {u"a=b", u"bad", u"sub\\x", u"z"})
        MakeFile(psz);
    m_Answers[u"bad"] = &g_bRemoteFileError;
    ASSERT_EQ(1, BeginWorkingFolder(m_sFolder.c_str()));
    EXPECT_EQ(3u, Walk());
    EXPECT_EQ(u"bad|", Failed());
    Arrived();
    CloseRecordStore();
    m_Answers.clear();
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("2: 3:/bad 2:/sub ", Arrived());
    EXPECT_EQ(0u, m_bFatal);
}

TEST_F(FolderTreeTest, AFullDiskRefusesWhatCannotFit)
{
    MakeFile(u"a-small", 0, 10);
    MakeFile(u"b-large", 0, 5000);
    MakeFile(u"c-larger", 0, 5001);
    MakeFile(u"d-medium", 0, 4999);
    MakeFile(u"e-all", 0, 1);
    MakeFile(u"f-none", 0, 1);
    m_Answers[u"b-large"] = &g_bRemoteFileFull;
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("2: 3:/a-small 3:/b-large 3:/d-medium 3:/e-all 3:/f-none ", Arrived());
    EXPECT_EQ(u"b-large|c-larger|", Failed());
    EXPECT_EQ(1u, m_bSpaceExhausted);
    ASSERT_NE(nullptr, FindDestinationLimit(&m_Limits, u"c:"));
    EXPECT_EQ(5000, FindDestinationLimit(&m_Limits, u"c:")->llLimit);

    FreeDestinationLimits(&m_Limits);
    LowerDestinationLimit(&m_Limits, u"C:", 0); // what a 108 leaves
    EXPECT_EQ(0u, Walk()) << "files were handled, none counted";
    EXPECT_EQ("2: ", Arrived()) << "no file is tried any more";
    EXPECT_EQ(u"a-small|b-large|c-larger|d-medium|e-all|f-none|", Failed());
}

TEST_F(FolderTreeTest, TheEndOfTheLinkIsFatalAndACancelStopsTheWalk)
{
    MakeFile(u"a");
    MakeFile(u"b");
    m_Send.ullExecution = AddThreadExecution();
    CancelAllThreadExecutions();
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ("2: ", Arrived());
    RemoveThreadExecution(m_Send.ullExecution);
    EXPECT_EQ(0u, m_bFatal);
    EndRole();
    EXPECT_EQ(0u, Walk());
    EXPECT_EQ(1u, m_bFatal);
    m_bFatal = 0;
    ASSERT_TRUE(DeleteFileW((m_sFolder + u"\\a").c_str()) && DeleteFileW((m_sFolder + u"\\b").c_str()));
    EXPECT_EQ(1u, Walk()) << "an empty folder";
    EXPECT_EQ(1u, m_bFatal) << "but it did not arrive";
    m_pLink = std::make_unique<LinkPair>();
    BecomeServer([](const PeerFile &) { return &g_bRemoteFileDone; });
}

TEST_F(FolderTreeTest, LongPathsAreEnumeratedAndListed)
{
    std::u16string sPath = m_sFolder;
    for (int i = 0; i < 6; i++) {
        sPath += u"\\" + std::u16string(60, static_cast<char16_t>(u'a' + i));
        ASSERT_TRUE(CreateDirectoryW((u"\\\\?\\" + sPath).c_str(), nullptr)) << GetLastError();
    }
    WriteTestFile(u"\\\\?\\" + sPath + u"\\file", "deep");
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ("deep", m_pPeer->Files().back().sContent);

    MakeFile(u"hidden", FILE_ATTRIBUTE_HIDDEN);
    StringList list = {};
    EXPECT_EQ(1, ListFolderFiles(m_sFolder.c_str(), 8, 0, &list));
    EXPECT_EQ(1u, list.nCount);
    EXPECT_EQ(1, ListFolderFiles(m_sFolder.c_str(), 0, 1, &list));
    ASSERT_EQ(3u, list.nCount);
    EXPECT_EQ(sPath + u"\\file", StringText(list.pFirst->pNext));
    EXPECT_EQ(0, ListFolderFiles((m_sFolder + u"\\missing").c_str(), 0, 1, &list));
    FreeStringList(&list);
}
