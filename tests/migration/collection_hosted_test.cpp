// The walk where waits are long or the state files fail.
#include "migration/folders.h"
#include "migration/known_folders.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/sockets.h"
#include "tests/migration/collection_fixture.h"
#include <algorithm>

using namespace platform;

namespace {

using CollectionHosted = Collection;

TEST_F(CollectionHosted, ItemThatADepartingPeerNeverAnsweredIsSentByTheNextRun)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    MakeFile(u"2.txt", 5);
    for (const char16_t *pszItem : {u"A\\", u"2.txt"}) { // the last file of a folder, and one of its own
        List({pszItem});
        const std::string sFile = At8(*pszItem == u'A' ? "A\\1.txt" : "2.txt");
        Lines             aFirst;
        {
            FakePeer Peer([&](uint32_t, const std::string &sPath) { return sPath == sFile ? "<gone>" : "FileDone"; });
            hosted::SetClockRate(10); // ten seconds of waiting for an answer
            Walk();
            hosted::SetClockRate(1);
            aFirst = Peer.Take();
        }
        EXPECT_EQ("file 3 " + sFile + " 5", aFirst.back());
        EXPECT_FALSE(IsMarkedComplete());
        FakePeer    Peer;
        const Lines aSecond = (Walk(), Taken(&Peer));
        EXPECT_EQ(1, std::count(aSecond.begin(), aSecond.end(), "file 3 " + sFile + " 5"));
        EXPECT_EQ("record 2120 2 0 0 ||", aSecond.back());
        ASSERT_TRUE(DeleteFileW(File(PROGRESS_INFO_FILE).c_str()));
    }
}

TEST_F(CollectionHosted, WhatAPeerThatStaysNeverAnsweredIsNeitherRecordedNorTakenForComplete)
{
    MakeFolder(u"A");
    MakeFolder(u"B");
    for (const char16_t *psz : {u"A\\1.txt", u"A\\2.txt", u"B\\3.txt", u"4.txt", u"5.txt"}) MakeFile(psz, 5);
    List({u"A\\", u"B\\", u"4.txt", u"5.txt"});
    Lines aFirst;
    {
        FakePeer Peer([&](uint32_t, const std::string &sPath) {
            return sPath == At8("A\\1.txt") || sPath == At8("4.txt") ? "" : "FileDone";
        });
        hosted::SetClockRate(20);
        Walk();
        hosted::SetClockRate(1);
        aFirst = Taken(&Peer);
    }
    EXPECT_EQ("record 2120 -2 0 0 ||", aFirst.back());
    EXPECT_EQ(1, std::count(aFirst.begin(), aFirst.end(), "file 3 " + At8("5.txt") + " 5")); // the walk has gone on
    EXPECT_FALSE(IsMarkedComplete());
    FakePeer Peer;
    Walk();
    EXPECT_EQ(
        (Lines{"file 3 " + At8("4.txt") + " 5", "record 333 0 1 0 " + At8("4.txt"), "file 3 " + At8("A\\1.txt") + " 5",
               "record 333 0 1 0 " + At8("A\\1.txt"), "record 2120 2 0 0 ||"}),
        Taken(&Peer));
}

TEST_F(CollectionHosted, FolderThatCannotBeReadIsToldAndSentByAFurtherRequest)
{
    MakeFolder(u"A");
    MakeFolder(u"A\\sub");
    MakeFile(u"A\\sub\\1.txt", 5);
    List({u"A\\"});
    FakePeer Peer;
    for (const bool bStillClosed : {true, true, false}) {
        hosted::ClearFaults();
        // The requested folder comes first, as long as it is sent at all.
        if (bStillClosed)
            hosted::FailCall("FindFirstFileW", PathExists(File(COLLECTION_INFO_FILE)) ? 1 : 2, ERROR_ACCESS_DENIED);
        Walk();
        const Lines aLines = Taken(&Peer);
        EXPECT_EQ(1, std::count(aLines.begin(), aLines.end(),
                                (bStillClosed ? "record 333 1 0 0 " : "record 333 0 1 0 ") + At8("A\\sub\\")));
        EXPECT_EQ(bStillClosed ? 0 : 1,
                  std::count(aLines.begin(), aLines.end(), "file 3 " + At8("A\\sub\\1.txt") + " 5"));
        EXPECT_EQ(bStillClosed, PathExists(File(COLLECTION_INFO_FILE)));
        EXPECT_EQ("record 2120 2 0 0 ||", aLines.back());
    }
}

TEST_F(CollectionHosted, RecordsStayUntilTheEndHasBeenReported)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    MakeFile(u"2.txt", 5);
    List({u"A\\", u"2.txt"});
    int nSends = 0;
    {
        FakePeer Peer;
        hosted::ClearFaults();
        Walk();
        nSends = hosted::CallCount("send");
        EXPECT_EQ("record 2120 2 0 0 ||", Taken(&Peer).back());
    }
    {
        FakePeer Peer;
        hosted::FailCall("send", nSends, WSAECONNRESET, true);
        Walk();
        hosted::ClearFaults();
        const std::string sLast = "record 333 0 1 0 " + At8("2.txt"); // everything but the report
        EXPECT_EQ(sLast, Peer.TakeUntil(sLast).back());
    }
    FakePeer Peer;
    Walk();
    EXPECT_EQ((Lines{"record 2120 2 0 0 ||"}), Taken(&Peer));
    EXPECT_FALSE(PathExists(File(RECORD_INFO_FILE)) || PathExists(File(COMPLETE_INFO_FILE)));
}

TEST_F(CollectionHosted, StateFilesThatSomebodyHoldsAMomentAreWrittenAllTheSame)
{
    const std::u16string sFile = File(COMPLETE_INFO_FILE);
    for (const uint32_t dwError : {ERROR_SHARING_VIOLATION, ERROR_ACCESS_DENIED})
        for (int n = 1; n <= 3; ++n) { // opening it, making it, opening it again
            DeleteFileW(sFile.c_str());
            hosted::FailCall("CreateFileW", n, dwError);
            EXPECT_EQ(1, AppendCompleteInfo(u"C:\\b.txt", 0)) << dwError << " " << n;
            hosted::FailCall("CreateFileW", 1, dwError);
            EXPECT_EQ(1, CreateStateFile(sFile.c_str())) << dwError;
            hosted::ClearFaults();
        }
    hosted::SetClockRate(50);
    hosted::FailCall("CreateFileW", 1, ERROR_ACCESS_DENIED, true);
    EXPECT_EQ(0, AppendCompleteInfo(u"C:\\b.txt", 0));
    EXPECT_EQ(static_cast<int>(STATE_FILE_TRIES), hosted::CallCount("CreateFileW"));
    EXPECT_EQ(0, AppendCompleteInfo(u"C:\\b.txt", 0)); // a walk of many lines does not wait for each
    EXPECT_EQ(static_cast<int>(STATE_FILE_TRIES) + 1, hosted::CallCount("CreateFileW"));
    hosted::ClearFaults();
    hosted::SetClockRate(1);
    EXPECT_EQ(1, AppendCompleteInfo(u"C:\\b.txt", 0));
}

TEST_F(CollectionHosted, RecordsOfAnotherFolderAreNeverTakenForThisOnes)
{
    MakeFolder(u"A");
    MakeFolder(u"B");
    MakeFile(u"A\\same.txt", 5);
    MakeFile(u"B\\same.txt", 6);
    ASSERT_EQ(1, BeginWorkingFolder(At(u"A").c_str()));
    ASSERT_EQ(1, WriteRecordState(At(u"A\\").c_str(), At(u"A\\same.txt").c_str(), 0));
    CloseRecordStore();
    List({u"B\\"});
    // Somebody keeps recordinfo.ini open: it can neither be deleted nor begun anew.
    const HANDLE hFile = CreateFileW(File(RECORD_INFO_FILE).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hFile);
    FakePeer Peer;
    hosted::SetClockRate(20);
    Walk();
    hosted::SetClockRate(1);
    CloseHandle(hFile);
    EXPECT_EQ((Lines{"folder " + At8("B"), "file 3 " + At8("B\\same.txt") + " 6", "record 333 0 1 0 " + At8("B\\"),
                     "record 2120 2 0 0 ||"}),
              Taken(&Peer));
}

TEST_F(CollectionHosted, StateFilesThatSomebodyLooksAtAreGoneAllTheSame)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    List({u"A\\"});
    FakePeer Peer;
    int      nCalls = 1;
    for (int n = 1; n <= nCalls; ++n) {
        hosted::FailCall("DeleteFileW", n, ERROR_SHARING_VIOLATION);
        Walk();
        nCalls = hosted::CallCount("DeleteFileW");
        hosted::ClearFaults();
        EXPECT_EQ("record 2120 2 0 0 ||", Taken(&Peer).back()) << n;
        EXPECT_FALSE(PathExists(File(RECORD_INFO_FILE))) << n;
        EXPECT_FALSE(PathExists(File(COMPLETE_INFO_FILE))) << n;
    }
}

TEST_F(CollectionHosted, StateFilesThatSomebodyLooksAtAreReadAMomentLater)
{
    for (const char16_t *psz : {u"A", u"B"}) MakeFolder(psz);
    for (const char16_t *psz : {u"A\\1.txt", u"B\\1.txt", u"B\\2.txt"}) MakeFile(psz, 5);
    List({u"A\\", u"B\\"});
    FakePeer Peer;
    for (int n = 1; n <= 5; ++n) { // the list of items, what failed, what is done with, the records
        ASSERT_EQ(1, AppendCompleteInfo(At(u"A").c_str(), 1));
        ASSERT_EQ(1, BeginWorkingFolder(At(u"B").c_str()));
        ASSERT_EQ(1, WriteRecordState(At(u"B\\").c_str(), At(u"B\\1.txt").c_str(), 0));
        CloseRecordStore();
        hosted::FailCall("CreateFileW", n, ERROR_SHARING_VIOLATION);
        Walk();
        hosted::ClearFaults();
        EXPECT_EQ((Lines{"folder " + At8("B"), "file 3 " + At8("B\\2.txt") + " 5", "record 333 0 2 0 " + At8("B\\"),
                         "record 2120 2 0 0 ||"}),
                  Taken(&Peer))
            << n;
    }
}

TEST_F(CollectionHosted, NothingIsLeftOpenOrAllocatedHoweverTheWalkEnds)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    MakeFile(u"2.txt", 5);
    List({u"A\\", u"2.txt"});
    FakePeer Peer;
    Walk();                   // what is made once and kept is made now
    hosted::SetClockRate(50); // second tries at state files
    for (const char *pszCall : {"CreateFileW", "ReadFile", "WriteFile", "FindFirstFileW", "SHGetKnownFolderPath"}) {
        for (int n = 1; n <= 40; ++n) {
            const int nHandles = hosted::OpenHandles(), nBlocks = hosted::LiveBlocks();
            hosted::FailCall(pszCall, n, ERROR_ACCESS_DENIED);
            Walk();
            const bool bDone = hosted::CallCount(pszCall) < n;
            hosted::ClearFaults();
            Taken(&Peer);
            EXPECT_EQ(nHandles, hosted::OpenHandles()) << pszCall << " " << n;
            EXPECT_EQ(nBlocks, hosted::LiveBlocks()) << pszCall << " " << n;
            if (bDone) break;
        }
    }
}

// A whole drive, translated for a target with another user and another layout.
TEST_F(CollectionHosted, AListThatIsTooLongIsNotTakenForAnEmptyOne)
{
    char     szList[4096];
    FakePeer Peer;
    MakeFile(u"1.txt", 5);
    List({u"1.txt"});
    ASSERT_TRUE(hosted::HostPath(m_sList.c_str(), szList, sizeof(szList)));
    std::filesystem::resize_file(szList, PATH_LIST_BYTES_MAX + 1);
    Walk();
    EXPECT_FALSE(IsMarkedComplete());
    EXPECT_EQ((Lines{"record 2120 -2 0 0 ||"}), Taken(&Peer)) << "the walk has failed";
}

TEST_F(Collection, AWholeDriveWithoutTheSystemsAndOtherPeoplesFolders)
{
    StringList System = {};
    GetSystemFolderList(&System);
    const Paths          aSystem  = Texts(&System);
    const std::u16string sProfile = aSystem.at(5),
                         sUsers   = sProfile.substr(0, sProfile.rfind(u'\\', sProfile.size() - 2) + 1);
    Lines aFolders;
    for (const std::u16string &sFolder :
         {aSystem[0], aSystem[1], aSystem[2], aSystem[3], aSystem[4], sProfile, std::u16string(u"C:\\Windows.old\\"),
          sUsers + u"somebody\\", std::u16string(u"C:\\Data\\")}) {
        ASSERT_EQ(1, CreateFolderTree(sFolder.c_str()));
        WriteTestFile(sFolder + u"here.txt", "1");
    }
    Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Profile\"", u"\"C:\\Users\\bernd\\\"");
    Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Public\"", u"\"C:\\Users\\All\\\"");
    WriteTestFile(m_sList, Utf16(u"\xFEFF"
                                 u"C:\\\r\n"));
    FakePeer Peer;
    Walk();
    for (const std::string &sLine : Taken(&Peer))
        if (sLine.find("here.txt") != std::string::npos) aFolders.push_back(sLine);
    EXPECT_EQ((Lines{"file 3 C:\\Data\\here.txt 1", "file 3 C:\\Users\\All\\here.txt 1",
                     "file 3 C:\\Users\\bernd\\here.txt 1"}),
              aFolders);
}

TEST_F(Collection, AFileWhoseNewPathDoesNotFitIsNeverSentUnderItsOldOne)
{
    StringList System = {};
    GetSystemFolderList(&System);
    const Paths    aSystem = Texts(&System);
    std::u16string sFile   = aSystem.at(5);
    for (int i = 0; i < 14; ++i) sFile += std::u16string(60, static_cast<char16_t>(u'a' + i)) + u"\\";
    ASSERT_EQ(1, CreateFolderTree((u"\\\\?\\" + sFile).c_str()));
    sFile += u"here.txt";
    WriteTestFile(u"\\\\?\\" + sFile, "1");
    Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Profile\"", u"\"C:\\Users\\" + std::u16string(230, u'x') + u"\\\"");
    WriteTestFile(m_sList, Utf16(u"\xFEFF" + sFile + u"\r\n"));
    FakePeer Peer;
    for (int n = 0; n < 2; ++n) { // and when it is tried again
        Walk();
        for (const std::string &sLine : Taken(&Peer)) EXPECT_EQ(std::string::npos, sLine.find("file 3 ")) << sLine;
        EXPECT_TRUE(PathExists(File(COLLECTION_INFO_FILE))) << "it stays a failed item";
    }
}

} // namespace
