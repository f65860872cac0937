// The walk over a collection, against a peer that answers as it is told.
#include "tests/migration/collection_fixture.h"

using namespace platform;

namespace {

TEST_F(Collection, CompleteRunReportsEachItemAndLeavesNothingBehind)
{
    MakeFolder(u"A");
    MakeFolder(u"A\\sub");
    MakeFile(u"A\\one.txt", 3);
    MakeFile(u"A\\sub\\zwei ü.txt", 70000);
    MakeFile(u"single.txt", 0);
    List({u"A\\", u"single.txt", u"missing.txt", u"single.txt"}); // named twice: sent once
    FakePeer Peer;
    Walk();
    EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\one.txt") + " 3", "folder " + At8("A\\sub"),
                     "file 3 " + At8("A\\sub\\zwei ü.txt") + " 70000", "record 333 0 2 0 " + At8("A\\"),
                     "file 3 " + At8("single.txt") + " 0", "record 333 0 1 0 " + At8("single.txt"),
                     "record 333 1 1 0 " + At8("missing.txt"), "record 2120 2 0 0 ||"}),
              Taken(&Peer));
    EXPECT_TRUE(IsMarkedComplete());
    EXPECT_FALSE(PathExists(File(RECORD_INFO_FILE)));
    EXPECT_FALSE(PathExists(File(COMPLETE_INFO_FILE)));
}

TEST_F(Collection, CancelledItResumesWhereItWasAndSendsNothingTwice)
{
    MakeFolder(u"A");
    MakeFolder(u"B");
    for (const char16_t *psz : {u"A\\a.txt", u"B\\1.txt", u"B\\2.txt", u"B\\3.txt", u"y.txt", u"z.txt"})
        MakeFile(psz, 5);
    List({u"A\\", u"B\\", u"y.txt", u"z.txt"});
    Lines aRuns[3];
    for (const char *pszCancelAt : {"B\\2.txt", "y.txt", ""}) {
        FakePeer Peer([&](uint32_t, const std::string &sPath) {
            if (sPath == At8(pszCancelAt)) CancelAllThreadExecutions();
            return "FileDone";
        });
        EXPECT_FALSE(IsMarkedComplete());
        Walk();
        aRuns[*pszCancelAt == 'B' ? 0 : *pszCancelAt == 'y' ? 1 : 2] = Taken(&Peer);
    }
    EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\a.txt") + " 5", "record 333 0 1 0 " + At8("A\\"),
                     "folder " + At8("B"), "file 3 " + At8("B\\1.txt") + " 5", "file 3 " + At8("B\\2.txt") + " 5",
                     "record 2120 -2 0 0 ||"}), // no report of B
              aRuns[0]);
    EXPECT_EQ((Lines{"folder " + At8("B"), "file 3 " + At8("B\\3.txt") + " 5", "record 333 0 3 0 " + At8("B\\"),
                     "file 3 " + At8("y.txt") + " 5", "record 333 0 1 0 " + At8("y.txt"), "record 2120 -2 0 0 ||"}),
              aRuns[1]);
    EXPECT_EQ((Lines{"file 3 " + At8("z.txt") + " 5", "record 333 0 1 0 " + At8("z.txt"), "record 2120 2 0 0 ||"}),
              aRuns[2]); // what was stored while the walk was cancelled is not sent again
    EXPECT_TRUE(IsMarkedComplete());
}

TEST_F(Collection, FullDiskLimitsTheFolderOfASingleFileAndATreesLimitItsDrive)
{
    MakeFolder(u"A");
    MakeFolder(u"B");
    MakeFile(u"A\\five.bin", 5000);
    MakeFile(u"A\\six.bin", 6000);
    MakeFile(u"A\\four.bin", 4000);
    MakeFile(u"B\\six.bin", 6000);
    List({u"A\\five.bin", u"A\\six.bin", u"A\\four.bin", u"B\\six.bin"});
    const auto pFull = [&](uint32_t, const std::string &sPath) {
        return sPath == At8("A\\five.bin") ? "FileErrDF" : "FileDone";
    };
    {
        FakePeer Peer(pFull);
        Walk();
        EXPECT_EQ((Lines{"file 3 " + At8("A\\five.bin") + " 5000", "record 333 1 1 0 " + At8("A\\five.bin"),
                         "record 333 1 1 0 " + At8("A\\six.bin"), // refused without a send
                         "file 3 " + At8("A\\four.bin") + " 4000", "record 333 0 1 0 " + At8("A\\four.bin"),
                         "file 3 " + At8("B\\six.bin") + " 6000", "record 333 0 1 0 " + At8("B\\six.bin"),
                         "record 2120 2 0 0 ||"}),
                  Taken(&Peer));
    }
    List({u"A\\", u"B\\six.bin"});
    FakePeer Peer(pFull);
    Walk();
    EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\five.bin") + " 5000",
                     "record 333 1 1 0 " + At8("A\\five.bin"), "file 3 " + At8("A\\four.bin") + " 4000",
                     "record 333 1 1 0 " + At8("A\\six.bin"), "record 333 0 1 0 " + At8("A\\"),
                     "record 333 1 1 0 " + At8("B\\six.bin"), // the tree found the drive full
                     "record 332 107 0 0 ||", "record 2120 2 0 0 ||"}),
              Taken(&Peer));
}

TEST_F(Collection, LinkThatEndsOnTheWayLeavesEverythingForTheNextRun)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    MakeFile(u"A\\2.txt", 4000000);
    MakeFile(u"z.txt", 5);
    List({u"z.txt", u"A\\"});
    const uint32_t dwBefore = g_dwLinkGeneration;
    {
        FakePeer Peer(nullptr, At8("A\\2.txt"));
        Walk();
        EXPECT_NE(dwBefore, g_dwLinkGeneration);
        EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\1.txt") + " 5"}), Peer.Take()); // and no z.txt
    }
    EXPECT_FALSE(IsMarkedComplete());
    EXPECT_TRUE(PathExists(File(RECORD_INFO_FILE)));
    // A walk whose link has gone sends nothing on the next one and ends nothing of it.
    FakePeer       Peer;
    const uint32_t dwNow = g_dwLinkGeneration;
    RunWalk(dwBefore);
    EXPECT_EQ(dwNow, g_dwLinkGeneration);
    EXPECT_FALSE(IsMarkedComplete());
    EXPECT_EQ(Lines{}, Peer.Take());

    Walk();
    EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\2.txt") + " 4000000", "record 333 0 2 0 " + At8("A\\"),
                     "file 3 " + At8("z.txt") + " 5", "record 333 0 1 0 " + At8("z.txt"), "record 2120 2 0 0 ||"}),
              Taken(&Peer));
}

TEST_F(Collection, NothingLeftToSendIsCompleteOnlyWithALinkAtTheEnd)
{
    MakeFolder(u"A");
    MakeFile(u"A\\1.txt", 5);
    List({u"A\\"});
    ASSERT_EQ(1, AppendCompleteInfo(At(u"A").c_str(), 1));
    Walk(); // nothing is left, and nobody is there
    EXPECT_FALSE(IsMarkedComplete());
    EXPECT_TRUE(PathExists(File(COMPLETE_INFO_FILE)));
    FakePeer             Peer;
    const std::u16string aLists[] = {m_sList, At(u"none.txt"), u"\\\\server\\share\\list.txt", u"\\\\.\\pipe\\list"};
    for (const auto &sList : aLists) { // one that cannot be read leaves nothing to send either
        m_sList = sList;
        Walk();
        EXPECT_EQ((Lines{"record 2120 2 0 0 ||"}), Taken(&Peer));
        EXPECT_TRUE(IsMarkedComplete());
        EXPECT_FALSE(PathExists(File(COMPLETE_INFO_FILE)));
        ASSERT_TRUE(DeleteFileW(File(PROGRESS_INFO_FILE).c_str()));
    }
}

TEST_F(Collection, WhatFailedIsAllThatAFurtherRequestSends)
{
    MakeFolder(u"A");
    MakeFolder(u"A\\sub");
    for (const char16_t *psz : {u"A\\1.txt", u"A\\sub\\bad.txt", u"bad.txt", u"good.txt"}) MakeFile(psz, 5);
    List({u"A\\", u"bad.txt", u"good.txt", u"gone.txt"});
    const std::string sBad   = At8("A\\sub\\bad.txt");
    const Lines       aAgain = {"file 3 " + sBad + " 5",
                                "record 333 1 1 0 " + sBad,
                                "file 3 " + At8("bad.txt") + " 5",
                                "record 333 1 1 0 " + At8("bad.txt"),
                                "record 333 1 1 0 " + At8("gone.txt"),
                                "record 2120 2 0 0 ||"};
    size_t            nWhole = 0;
    {
        FakePeer Peer([](uint32_t, const std::string &sPath) {
            return sPath.find("bad") != std::string::npos ? "FileError" : "FileDone";
        });
        Walk();
        const Lines aFirst = Taken(&Peer);
        EXPECT_EQ("record 2120 2 0 0 ||", aFirst.back());
        nWhole = aFirst.size();
        EXPECT_FALSE(PathExists(File(RECORD_INFO_FILE)) || PathExists(File(COMPLETE_INFO_FILE)));
        Walk();
        EXPECT_EQ(aAgain, Taken(&Peer));
        Walk(); // what is gone is not asked for a third time
        EXPECT_EQ(aAgain.size() - 1, Taken(&Peer).size());
        List({u"good.txt"}); // another collection, in which nothing has been sent
        Walk();
        EXPECT_EQ(3u, Taken(&Peer).size());
        List({u"gone.txt", u"good.txt", u"A\\", u"bad.txt"});
        Walk();
        EXPECT_EQ(nWhole, Taken(&Peer).size());
    }
    FakePeer Peer;
    Walk();
    const Lines aLast = Taken(&Peer); // in whatever order they failed
    EXPECT_EQ(6u, aLast.size());
    EXPECT_EQ("record 2120 2 0 0 ||", aLast.back());
    Walk();
    EXPECT_EQ(nWhole - 1, Taken(&Peer).size()); // nothing is left open: a new collection, with one failure less
}

TEST_F(Collection, FailedFileOfAFolderThatIsResumedIsSentOnce)
{
    MakeFolder(u"A");
    for (const char16_t *psz : {u"A\\1.txt", u"A\\2.txt", u"A\\3.txt"}) MakeFile(psz, 5);
    List({u"A\\"});
    {
        FakePeer Peer([&](uint32_t, const std::string &sPath) {
            if (sPath == At8("A\\2.txt")) CancelAllThreadExecutions();
            return sPath == At8("A\\1.txt") ? "FileError" : "FileDone";
        });
        Walk();
        EXPECT_EQ("record 2120 -2 0 0 ||", Taken(&Peer).back());
    }
    FakePeer Peer;
    Walk();
    EXPECT_EQ((Lines{"folder " + At8("A"), "file 3 " + At8("A\\1.txt") + " 5", "file 3 " + At8("A\\3.txt") + " 5",
                     "record 333 0 3 0 " + At8("A\\"), "record 2120 2 0 0 ||"}),
              Taken(&Peer));
}

TEST_F(Collection, RecordsBelongToThePeerTheyWereMadeWith)
{
    MakeFile(u"1.txt", 5);
    MakeFile(u"2.txt", 5);
    List({u"1.txt", u"2.txt"});
    FakePeer   Peer([&](uint32_t, const std::string &sPath) {
        if (sPath == At8("1.txt")) CancelAllThreadExecutions();
        return "FileDone";
    });
    const auto Sent = [&](const char16_t *pszName, const char16_t *pszUser) {
        Ini(TARGET_INFO_FILE, u"SourceMachine", u"\"ComputerName\"", pszName);
        Ini(TARGET_INFO_FILE, u"SourceMachine", u"\"CurrentUser\"", pszUser);
        Walk();
        return Taken(&Peer).front();
    };
    EXPECT_EQ("file 3 " + At8("1.txt") + " 5", Sent(u"NEWPC", u"S-1-5-21-1"));
    EXPECT_EQ("file 3 " + At8("1.txt") + " 5", Sent(u"OTHER", u"S-1-5-21-1")); // another machine
    EXPECT_EQ("file 3 " + At8("1.txt") + " 5", Sent(u"OTHER", u"S-1-5-21-2")); // set up anew, or another user there
    EXPECT_EQ("file 3 " + At8("2.txt") + " 5", Sent(u"OTHER", u"S-1-5-21-2"));
}

TEST_F(Collection, SecondWalkWaitsForTheFirst)
{
    MakeFile(u"1.txt", 5);
    MakeFile(u"2.txt", 5);
    List({u"1.txt", u"2.txt"});
    const HANDLE hAsked = CreateEventW(nullptr, FALSE, FALSE, nullptr),
                 hGo    = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    FakePeer    Peer([&](uint32_t, const std::string &) {
        SetEvent(hAsked);
        WaitForSingleObject(hGo, 8000);
        return "FileDone";
    });
    std::thread First([this] { RunWalk(); });
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hAsked, 8000)); // the first has its turn
    std::atomic<bool> bSecond{false};
    std::thread       Second([&] {
        bSecond = true;
        RunWalk();
    });
    while (!bSecond) Sleep(1);
    Sleep(50); // for the second to come where it would not wait; a longer way there hides a fault, it makes none
    SetEvent(hGo);
    First.join();
    Second.join();
    CloseHandle(hAsked);
    CloseHandle(hGo);
    // One collection after the other. A second that had not waited would have sent its files between the first's.
    const Lines aOne  = {"file 3 " + At8("1.txt") + " 5", "record 333 0 1 0 " + At8("1.txt"),
                         "file 3 " + At8("2.txt") + " 5", "record 333 0 1 0 " + At8("2.txt"), "record 2120 2 0 0 ||"};
    Lines       aBoth = Taken(&Peer), aTwice = aOne;
    if (aBoth.size() == aOne.size())
        for (const std::string &sLine : Taken(&Peer)) aBoth.push_back(sLine);
    aTwice.insert(aTwice.end(), aOne.begin(), aOne.end());
    EXPECT_EQ(aTwice, aBoth);
}

} // namespace
