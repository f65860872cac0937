// The walk over a tree: what is sent, in which order and as what, and what a second run, a full disk and the lists
// leave out.
#include "migration/failed_items.h"
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "tests/transfer/transfer_fixture.h"
#include "transfer/destination_limits.h"
#include "transfer/folder_listing.h"
#include "transfer/folder_tree.h"
#include "transfer/incoming_file.h"
#include "transfer/network_send.h"
#include <map>

using namespace platform;

class FolderTreeTest : public TransferTest {
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
        m_pPeer                           = std::make_unique<FakePeer>([this](uint32_t, const std::string &sPath) {
            const auto it = m_Answers.find(sPath.substr(sPath.rfind('\\') + 1));
            if (it == m_Answers.end()) return "FileDone";
            if (std::string(it->second) == "FILERRDF") g_bRemoteFileAllFull = 1; // no word of a peer sets it
            return std::string(it->second) == "FILERRDF" ? "FILEERRDF" : it->second;
        });
    }
    void TearDown() override
    {
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
    // What has arrived since the last call, in order, with paths below the folder.
    std::string Arrived()
    {
        std::string       sAll;
        const std::string sRoot  = Utf8(m_sFolder);
        IpcMessage        marker = {}; // behind everything that was sent
        SendNetworkCommand(&marker, 0, 0);
        EXPECT_TRUE(Eventually([&] {
            for (std::string sLine : m_pPeer->Take()) {
                if (sLine.starts_with("record 0 ")) return true;
                sAll += sLine.erase(sLine.find(sRoot), sRoot.size()) + "; ";
            }
            return false;
        }));
        return sAll;
    }

    FolderTreeSend                      m_Send            = {};
    StringList                          m_Excluded        = {};
    DestinationLimits                   m_Limits          = {};
    uint32_t                            m_bSpaceExhausted = 0;
    uint32_t                            m_bFatal          = 0;
    std::map<std::string, const char *> m_Answers; // by name; "FileDone" for others
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
    EXPECT_EQ("folder ; file 3 \\A.LNK 3; folder \\aa; file 3 \\aa\\in.txt 3; file 3 \\b.txt 3; folder \\empty; ",
              Arrived());

    g_bTypedFiles = g_bSendDesktopIni = 1;
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("folder ; file 3 \\A.LNK 3; folder \\aa; file 5 \\aa\\in.txt 3; file 5 \\b.txt 3; folder \\empty; ",
              Arrived())
        << "desktop.ini needs a customised folder";
    SetFileAttributesW(m_sFolder.c_str(), FILE_ATTRIBUTE_READONLY);
    m_Answers["desktop.ini"] = "FileError";
    EXPECT_EQ(4u, Walk());
    EXPECT_TRUE(Arrived().ends_with("; file 4 \\desktop.ini 3; folder \\empty; ")) << "and is not reported";
    SetFileAttributesW(m_sFolder.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(FolderTreeTest, ExcludedAndRestrictedFoldersAreLeftOut)
{
    StringList restricted = {}, included = {};
    for (const char16_t *psz : {u"one", u"two", u"three", u"three\\deep"}) MakeFolder(psz);
    MakeFile(u"three\\deep\\file");
    AppendString(&m_Excluded, (m_sFolder + u"\\ONE").c_str(), 0);
    AppendString(&restricted, m_sFolder.c_str(), 0);
    AppendString(&included, (m_sFolder + u"\\Three").c_str(), 0);
    m_Send.pRestricted = &restricted;
    EXPECT_EQ(2u, Walk()) << "no list of included folders: no restriction";
    EXPECT_EQ("folder ; folder \\three; folder \\three\\deep; file 3 \\three\\deep\\file 3; folder \\two; ", Arrived());
    m_Send.pIncluded = &included;
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ("folder ; folder \\three; folder \\three\\deep; file 3 \\three\\deep\\file 3; ", Arrived());
    FreeStringList(&restricted);
    FreeStringList(&included);
}

TEST_F(FolderTreeTest, ASecondRunSendsOnlyWhatIsNotRecorded)
{
    const std::u16string sBase = m_sFolder + u"\\";
    m_Send.pszRecordBase       = sBase.c_str();
    MakeFolder(u"sub");
    for (const char16_t *psz : {u"a=b", u"bad", u"sub\\x", u"z"}) MakeFile(psz);
    m_Answers["bad"] = "FileError";
    ASSERT_EQ(1, BeginWorkingFolder(m_sFolder.c_str()));
    EXPECT_EQ(3u, Walk());
    EXPECT_EQ("folder ; file 3 \\a=b 3; file 3 \\bad 3; record 333 1 1 0 \\bad; folder \\sub; file 3 \\sub\\x 3; "
              "file 3 \\z 3; ",
              Arrived());
    CloseRecordStore();
    m_Answers.clear();
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("folder ; file 3 \\bad 3; folder \\sub; ", Arrived());
    EXPECT_EQ(0u, m_bFatal);
}

TEST_F(FolderTreeTest, AFullDiskRefusesWhatCannotFit)
{
    MakeFile(u"a", 0, 10);
    MakeFile(u"b", 0, 5000);
    MakeFile(u"c", 0, 5001);
    MakeFile(u"d", 0, 4999);
    MakeFile(u"e", 0, 1);
    MakeFile(u"f", 0, 0);
    m_Answers["b"] = "FileErrDF";
    EXPECT_EQ(4u, Walk());
    EXPECT_EQ("folder ; file 3 \\a 10; file 3 \\b 5000; record 333 1 1 0 \\b; record 333 1 1 0 \\c; "
              "file 3 \\d 4999; file 3 \\e 1; file 3 \\f 0; ",
              Arrived());
    EXPECT_EQ(1u, m_bSpaceExhausted);
    ASSERT_NE(nullptr, FindDestinationLimit(&m_Limits, u"c:"));
    EXPECT_EQ(5000, FindDestinationLimit(&m_Limits, u"c:")->llLimit);

    m_Answers["e"] = "FILERRDF";
    EXPECT_EQ(2u, Walk());
    EXPECT_EQ("folder ; file 3 \\a 10; record 333 1 1 0 \\b; record 333 1 1 0 \\c; file 3 \\d 4999; file 3 \\e 1; "
              "record 333 1 1 0 \\e; record 333 1 1 0 \\f; ",
              Arrived())
        << "nothing is tried any more";
    FreeDestinationLimits(&m_Limits);
    LowerDestinationLimit(&m_Limits, u"C:", 0);
    EXPECT_EQ(0u, Walk()) << "files were handled, none counted";
}

TEST_F(FolderTreeTest, TheEndOfTheLinkIsFatalAndACancelStopsTheWalk)
{
    MakeFile(u"a");
    MakeFile(u"b");
    m_Send.ullExecution = AddThreadExecution();
    CancelAllThreadExecutions();
    EXPECT_EQ(1u, Walk());
    EXPECT_EQ("folder ; ", Arrived());
    RemoveThreadExecution(m_Send.ullExecution);
    g_bClient = 1; // which link is meant is unknown, but none has ended
    EXPECT_EQ(0u, Walk());
    g_bClient = 0;
    EXPECT_EQ(0u, m_bFatal);
    m_pPeer.reset();
    EXPECT_EQ(0u, Walk());
    EXPECT_EQ(1u, m_bFatal);
    m_bFatal = 0;
    ASSERT_TRUE(DeleteFileW((m_sFolder + u"\\a").c_str()) && DeleteFileW((m_sFolder + u"\\b").c_str()));
    EXPECT_EQ(1u, Walk()) << "an empty folder";
    hosted::FailCall("FindFirstFileW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(0u, Walk()) << "one that cannot be read";
    EXPECT_EQ(1u, m_bFatal) << "but it did not arrive";
}

// Junctions and directory links, for which symbolic links of the host stand.
TEST_F(FolderTreeTest, ALinkBackToTheWaysOwnFoldersIsReportedOnceAndNotEntered)
{
    const std::string sHost = std::string(hosted::MachineFolder()) + "/drive_c";
    const auto        Host  = [&](const std::u16string &sPath) {
        std::string s = sHost + Utf8(sPath.substr(2));
        std::replace(s.begin(), s.end(), '\\', '/');
        return s;
    };
    const std::u16string sOther = u"C:\\other";
    MakeFolder(u"docs");
    MakeFile(u"docs\\a");
    MakeFile(std::u16string(u"docs\\b") + RECEIVING_SUFFIX); // left by a killed receiver
    ASSERT_TRUE(CreateDirectoryW(sOther.c_str(), nullptr));
    WriteTestFile(sOther + u"\\o", "123");
    namespace fs = std::filesystem;
    fs::create_directory_symlink(Host(m_sFolder), Host(m_sFolder + u"\\docs\\loop"));
    fs::create_directory_symlink(sHost, Host(m_sFolder + u"\\docs\\root"));
    fs::create_directory_symlink(Host(sOther), Host(m_sFolder + u"\\docs\\out"));
    fs::create_directory_symlink(Host(m_sFolder + u"\\docs"), Host(sOther + u"\\back")); // by a detour
    fs::create_directory_symlink("/nowhere", Host(m_sFolder + u"\\gone"));
    EXPECT_EQ(2u, Walk());
    EXPECT_EQ("folder ; folder \\docs; file 3 \\docs\\a 3; record 333 1 1 0 \\docs\\loop\\; folder \\docs\\out; "
              "record 333 1 1 0 \\docs\\out\\back\\; file 3 \\docs\\out\\o 3; record 333 1 1 0 \\docs\\root\\; "
              "file 3 \\gone 0; record 333 1 1 0 \\gone; ",
              Arrived());
    StringList list = {};
    EXPECT_EQ(1, ListFolderFiles(m_sFolder.c_str(), 0, 1, &list));
    EXPECT_EQ(3u, list.nCount) << "docs\\a, docs\\out\\o, and the link that is no folder";
    FreeStringList(&list);
}

TEST_F(FolderTreeTest, AnEnumerationThatBreaksOffIsNoEndAndADeadLinkEndsTheWalk)
{
    FailedItems failed = {};
    m_Send.pFailed     = &failed;
    MakeFile(u"a");
    MakeFile(u"b");
    hosted::FailCall("FindNextFileW", 3, ERROR_GEN_FAILURE); // ".", "..", "a"
    Walk();
    EXPECT_TRUE(failed.bUnkept && failed.bUnsettled) << "b was not seen";
    Arrived();
    MakeFolder(u"sub");
    for (const int nEntry : {3, 6}) { // in the folder, and in the one below it
        StringList list = {};
        hosted::ClearFaults();
        hosted::FailCall("FindNextFileW", nEntry, ERROR_GEN_FAILURE);
        EXPECT_EQ(-1, ListFolderFiles(m_sFolder.c_str(), 0, 1, &list)) << nEntry;
        FreeStringList(&list);
    }
    hosted::ClearFaults();
    failed = {};
    Walk();
    EXPECT_FALSE(failed.bUnkept || failed.bUnsettled);
    Arrived();
    static const struct {
        const char16_t *pszFolder;
        uint32_t        dwError; // 0: as it is
        bool            bUnseen;
    } aClosed[] = {{u"", ERROR_ACCESS_DENIED, false}, // a later walk finds the same
                   {u"", ERROR_GEN_FAILURE, true},
                   {u"\\removed", 0, false},
                   {u"Q:\\pulled", 0, true}};
    for (const auto &c : aClosed) {
        const bool bOther = c.pszFolder[0] == u'Q';
        failed            = {};
        if (c.dwError != 0) hosted::FailCall("FindFirstFileW", 1, c.dwError);
        SendNetworkFileEx(((bOther ? u"" : m_sFolder) + c.pszFolder).c_str(), &m_Send);
        EXPECT_EQ(c.bUnseen, failed.bUnkept && failed.bUnsettled) << &c - aClosed;
        FreeFailedItems(&failed);
        hosted::ClearFaults();
    }
    m_pPeer->Take();
    BindThreadToLink(g_dwLinkGeneration + 1); // the walk's link has ended, another one stands
    hosted::ClearFaults();
    Walk();
    EXPECT_EQ(0, hosted::CallCount("FindNextFileW"));
    BindThreadToLink(0);
}

TEST_F(FolderTreeTest, LongPathsAreEnumeratedAndListed)
{
    std::u16string sPath = m_sFolder;
    for (int i = 0; i < 13; i++) { // more than a report of a failure holds
        sPath += u"\\" + std::u16string(60, static_cast<char16_t>(u'a' + i));
        ASSERT_TRUE(CreateDirectoryW((u"\\\\?\\" + sPath).c_str(), nullptr)) << GetLastError();
    }
    WriteTestFile(u"\\\\?\\" + sPath + u"\\file", "deep");
    m_Answers["file"] = "FileError";
    EXPECT_EQ(0u, Walk());
    EXPECT_TRUE(Arrived().ends_with("\\file 4; "));

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
