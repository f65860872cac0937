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
    for (const char16_t *psz : {u"A\\a.txt", u"B\\1.txt", u"B\\2.txt", u"B\\3.txt", u"y.txt", u"z.txt"}) MakeFile(psz, 5);
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
    FakePeer Peer;
    for (const char16_t *pszList : {u"list.txt", u"none.txt"}) { // one that cannot be read leaves nothing to send either
        m_sList = At(pszList);
        Walk();
        EXPECT_EQ((Lines{"record 2120 2 0 0 ||"}), Taken(&Peer));
        EXPECT_TRUE(IsMarkedComplete());
        EXPECT_FALSE(PathExists(File(COMPLETE_INFO_FILE)));
        ASSERT_TRUE(DeleteFileW(File(PROGRESS_INFO_FILE).c_str()));
    }
}

TEST_F(Collection, SecondWalkWaitsForTheFirst)
{
    MakeFile(u"1.txt", 5);
    List({u"1.txt"});
    const HANDLE hGo = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    FakePeer     Peer([&](uint32_t, const std::string &) {
        WaitForSingleObject(hGo, 8000);
        return "FileDone";
    });
    std::thread  First([this] { RunWalk(); }), Second([this] { RunWalk(); });
    Lines        aLines;
    for (int i = 0; i < 500 && aLines.empty(); ++i, Sleep(10)) aLines = Peer.Take();
    Sleep(100); // time for the other to do something that it must not do
    EXPECT_EQ((Lines{"file 3 " + At8("1.txt") + " 5"}), aLines);
    EXPECT_EQ(Lines{}, Peer.Take());
    SetEvent(hGo);
    First.join();
    Second.join();
    CloseHandle(hGo);
}

} // namespace
