// Requests of the service: which files go where, what record follows them, and what becomes of the cache.
#include "ipc/stop_signal.h"
#include "tests/ipc/fake_service.h"
#include "tests/migration/special_fixture.h"
#include "tests/support/eventually.h"

using namespace platform;

namespace {

TEST(SpecialRoots, PathsMoveBetweenRootsAsTextDoes)
{
    SpecialFolders Folders = {u"C:\\Users\\u\\AppData", u"C:\\ProgramData\\map", u"D:\\peer\\map\\"};
    const struct {
        int32_t         nWay; // 0 A to P, 1 B to P, 2 P to A, 3 P to B
        const char16_t *pszPath, *pszExpected;
        int32_t         nExpected;
    } aCases[] = {
        {0, u"c:\\users\\U\\appdata\\Local\\x", u"C:\\ProgramData\\map\\Local\\x", 1},
        {0, u"C:\\Users\\u\\AppData", u"C:\\ProgramData\\map", 1},
        {0, u"C:\\Users\\u\\AppDataX\\y", u"C:\\ProgramData\\mapX\\y", 1}, // the root has no backslash at its end
        {0, u"C:\\Users\\u\\AppDat", u"C:\\Users\\u\\AppDat", 0},
        {1, u"D:\\peer\\map\\a", u"C:\\ProgramData\\mapa", 1},
        {1, u"D:\\peer\\mapX\\a", u"D:\\peer\\mapX\\a", 0},
        {2, u"C:\\ProgramData\\map\\a", u"C:\\Users\\u\\AppData\\a", 1},
        {3, u"C:\\ProgramData\\map\\a", u"D:\\peer\\map\\\\a", 1},
        {3, u"", u"", 0},
    };
    char16_t szOut[260];
    for (const auto &c : aCases) {
        const int32_t nRet = c.nWay < 2 ? TransferAppDataToProgramData(&Folders, c.pszPath, szOut, 260, c.nWay == 0)
                                        : TransferProgramDataToAppData(&Folders, c.pszPath, szOut, 260, c.nWay == 2);
        EXPECT_EQ(c.nExpected, nRet) << "case " << &c - aCases;
        EXPECT_EQ(std::u16string(c.pszExpected), szOut) << "case " << &c - aCases;
    }
    // No room: left as it is rather than cut.
    const std::u16string sLong = u"D:\\peer\\map\\" + std::u16string(245, u'x');
    EXPECT_EQ(0, TransferAppDataToProgramData(&Folders, sLong.c_str(), szOut, 260, 0));
    EXPECT_EQ(sLong, szOut);
    Folders.szAppDataRoot[0] = 0; // both roots, or none
    EXPECT_EQ(0, TransferProgramDataToAppData(&Folders, u"C:\\ProgramData\\map\\a", szOut, 260, 1));
    Folders = {u"C:\\Users\\u\\AppData", u"", u""};
    EXPECT_EQ(0, TransferAppDataToProgramData(&Folders, u"C:\\Users\\u\\AppData\\a", szOut, 260, 1));

    SetSpecialRoot(SpecialRoot::AppData, std::u16string(260, u'a').c_str()); // would be cut
    EXPECT_EQ(u"", std::u16string(GetSpecialFolders().szAppDataRoot));
}

TEST(SpecialThroughput, SmallAmountsCountUpToTenfold)
{
    const struct {
        uint64_t ullBytes, ullTime;
        uint32_t dwExpected;
    } aCases[] = {
        {1000, 10, 1000000},
        {0, 10, 0},
        {1000, 0, 0},
        {78644, 1000, 786432},
        {100000, 1000, 786432}, // weighs 7.86432
        {786432, 1000, 786432},
        {786433, 1000, 786433},
        {1, 3, 3333},
        {10000000000, 1, 4294967295},
        {4294967295, 1000, 4294967295},
    };
    for (const auto &c : aCases)
        EXPECT_EQ(c.dwExpected, GetThroughputFigure(c.ullBytes, c.ullTime)) << c.ullBytes << " in " << c.ullTime;
}

class SpecialRequests : public SpecialTest {
  protected:
    void SetUp() override
    {
        SpecialTest::SetUp();
        // The target has drive C, so that paths stay as they are.
        Ini(TARGET_INFO_FILE, u"Volume", u"Number", u"1");
        Ini(TARGET_INFO_FILE, u"Volume0", u"Path", u"\"C:\\\"");
    }
};

TEST_F(SpecialRequests, EachCodeSendsItsFilesToTheirPlacesAndItsRecordLast)
{
    FakePeer             Peer;
    const std::u16string A = m_sRoot + u"\\A\\x", P = m_sRoot + u"\\P", one = P + u"\\1.dat", two = P + u"\\2.dat",
                         list = P + u"\\app\\list.ini", app = P + u"\\app";
    const std::string P8 = At8("\\P"), A8 = At8("\\A\\x"), x = P8 + "\\x";
    const auto        Record = [](const char *pszHead, const std::string &s1 = "", const std::string &s2 = "",
                           const std::string &s3 = "") {
        return "record " + std::string(pszHead) + " " + s1 + "|" + s2 + "|" + s3;
    };
    const std::string peerOne = "file 0 D:\\peer\\1.dat 5", peerTwo = "file 0 D:\\peer\\2.dat 5",
                      peerList = "file 0 D:\\peer\\app\\list.ini 5", peerDeep = "file 0 D:\\peer\\app\\sub\\deep.bin 5";
    const struct {
        uint32_t                    dwCommand;
        std::vector<uint32_t>       aParams;
        std::vector<std::u16string> aTexts;
        Lines                       aExpected;
    } aCases[] = {
        {0x1120, {1, 2, 3}, {A, A, A}, {Record("1120 1 2 3", x, x, A8)}},
        {0x1121, {1, 2, 3}, {A, A, A}, {Record("1121 1 2 3", A8, x, x)}},
        {0x1130, {3, 0, 0}, {one, two}, {peerOne, Record("1130 3 0 0", P8 + "\\1.dat", P8 + "\\2.dat")}},
        {0x1130,
         {2, 0, 0xFFFFFFFB},
         {one, two},
         {peerOne, peerTwo, Record("1130 2 0 -5", P8 + "\\1.dat", P8 + "\\2.dat")}},
        {0x1131,
         {2, 7, 1},
         {one, two, app + u"\\"},
         {peerTwo, peerList, peerDeep, Record("1131 2 7 1", P8 + "\\1.dat", P8 + "\\2.dat", P8 + "\\app\\")}},
        {0x1320, {1}, {A}, {Record("1320 1 0 0", x)}},
        {0x1330, {2}, {one}, {peerOne, Record("1330 2 0 0", P8 + "\\1.dat")}},
        {0x1420, {1}, {A}, {Record("1420 1 0 0", x)}},
        {0x1430, {2}, {list}, {peerList, peerList, peerDeep, Record("1430 2 0 0", P8 + "\\app\\list.ini")}},
        {0x2020, {1, 4}, {one}, {Record("2020 1 4 0", P8 + "\\1.dat")}},
        {0x2120, {1}, {one}, {"file 0 " + P8 + "\\1.dat 5", Record("2120 1 0 0", P8 + "\\1.dat")}},
        {0x2120, {1}, {P + u"\\none"}, {Record("2120 1 0 0", P8 + "\\none")}}, // nothing to send is the peer's to say
        {0x2320, {1, 3, 0}, {app}, {Record("2320 1 3 0", P8 + "\\app")}},
        {0x2420, {1, 3, 0}, {app, one}, {Record("2420 1 3 0", P8 + "\\app", P8 + "\\1.dat")}},
        {0x3021, {4}, {}, {Record("3021 4 0 0")}},
        {0x0344, {128, 9}, {u"5000"}, {Record("344 128 9 0", "5000")}},
        {0x1330, {2}, {u""}, {Record("1330 2 0 0")}},
        {0x1131, {2}, {}, {Record("1131 2 0 0")}}, // an empty folder field is not the root of a drive
    };
    for (const auto &c : aCases)
        EXPECT_EQ(c.aExpected, Run(&Peer, c.dwCommand, c.aParams, c.aTexts)) << "case " << &c - aCases;
}

TEST_F(SpecialRequests, ListOfACollectionIsNamedByItsDestinationOrNotAskedFor)
{
    Ini(TARGET_INFO_FILE, u"Volume0", u"Path", u"\"E:\\\""); // the target has no drive C
    Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Windows\"", u"\"E:\\Windows\\\"");
    bool     bStored = true;
    FakePeer Peer([&](uint32_t, const std::string &) { return bStored ? "FileDone" : "FileErrDF"; });
    Lines    aLines = Run(&Peer, 0x2120, {1}, {m_sRoot + u"\\P\\1.dat"});
    ASSERT_EQ(2u, aLines.size());
    const std::string sDestination = aLines[0].substr(7, aLines[0].size() - 9);
    EXPECT_EQ("E:\\", sDestination.substr(0, 3));
    EXPECT_EQ("record 2120 1 0 0 " + sDestination + "||", aLines[1]);
    bStored = false; // a list that is not there would read as "nothing to send"
    ResetServicePipeClient();
    FakeService Service;
    EXPECT_EQ((Lines{aLines[0], "<silence>"}), Run(&Peer, 0x2120, {1}, {m_sRoot + u"\\P\\1.dat"}, false));
    EXPECT_EQ(1, PassObjectInQueue());
    const std::vector<IpcMessage> aTold = Service.Take(); // and the own service is told that it failed
    ASSERT_EQ(1u, aTold.size());
    EXPECT_EQ(0x2120u, aTold[0].dwCommand);
    EXPECT_EQ(-2, static_cast<int32_t>(aTold[0].dwParam1));
    EXPECT_EQ(m_sRoot + u"\\P\\1.dat", aTold[0].szText1);
}

TEST_F(SpecialRequests, FileErrorsAreTriedThreeTimesOthersOnce)
{
    int         nAnswers = 0;
    const char *pszWord  = "FileError";
    FakePeer    Peer([&](uint32_t, const std::string &) {
        ++nAnswers;
        return pszWord;
    });
    const auto  Files = [&] {
        return Run(&Peer, 0x1130, {2}, {m_sRoot + u"\\P\\1.dat", m_sRoot + u"\\P\\2.dat"}).size() - 1;
    };
    EXPECT_EQ(6u, Files());
    pszWord = "TypeWrong";
    EXPECT_EQ(2u, Files());
    EXPECT_EQ(8, nAnswers);
}

TEST_F(SpecialRequests, CollectedSizeBecomesAThroughputFigure)
{
    FakePeer Peer;
    WriteTestFile(m_sRoot + u"\\P\\1.dat", std::string(300000, 'x'));
    g_ullSpecialBytes         = 500000; // of earlier files
    g_ullSpecialMeasure       = 1000;
    const Lines    aLines     = Run(&Peer, 0x1130, {3, 0, 77}, {m_sRoot + u"\\P\\1.dat"});
    const uint32_t dwExpected = GetThroughputFigure(g_ullSpecialBytes, g_ullSpecialMeasure);
    EXPECT_NE(0u, dwExpected);
    EXPECT_EQ("record 1130 3 0 " + std::to_string(dwExpected) + " " + At8("\\P\\1.dat") + "||", aLines.back());
    // The mark that other answers keep in the same field is not a size.
    EXPECT_EQ("record 2330 2 4 1 " + At8("\\none") + "||", Run(&Peer, 0x2330, {2, 4, 1}, {m_sRoot + u"\\none"}).back());
}

TEST_F(SpecialRequests, CacheGoesUnlessReservedAndSettingsOfApplicationsAreCounted)
{
    FakePeer             Peer;
    const std::u16string sCache = m_sRoot + u"\\P\\app";
    const Lines          aPlain = {"file 0 " + At8("\\P\\app\\list.ini") + " 5",
                                   "file 0 " + At8("\\P\\app\\sub\\deep.bin") + " 5",
                                   "record 2430 2 0 1 " + At8("\\P\\app") + "||"};
    // Without the shell's function nothing is removed.
    EXPECT_EQ(aPlain, Run(&Peer, 0x2430, {2, 0, 1}, {sCache}));
    EXPECT_TRUE(PathExists(sCache));

    ASSERT_EQ(1, BindShell32Functions());
    HANDLE hReserved = CreateEventW(nullptr, TRUE, TRUE, u"Global\\VORN VornMigrationService Cache Reserved Event");
    ASSERT_NE(nullptr, hReserved);
    g_bSpecialTransfer = 1;
    Lines aCounted     = aPlain;
    aCounted[0][5] = aCounted[1][5] = '6';
    EXPECT_EQ(aCounted, Run(&Peer, 0x2430, {2, 0, 1}, {sCache}));
    EXPECT_TRUE(PathExists(sCache + u"\\sub\\deep.bin")); // reserved

    ResetEvent(hReserved);
    EXPECT_EQ((Lines{aPlain[0], aPlain[1], "record 2330 2 0 1 " + At8("\\P\\app\\") + "||"}),
              Run(&Peer, 0x2330, {2, 0, 1}, {sCache + u"\\"})); // type 6 is for applications alone
    EXPECT_FALSE(PathExists(sCache));
    EXPECT_TRUE(PathExists(m_sRoot + u"\\P\\1.dat"));
    CloseHandle(hReserved);
    ReleaseShell32Functions();
}

// Any local user may write a request: what it names as a cache is looked at as the file system sees it.
TEST_F(SpecialRequests, OnlyAFolderBelowProgramDataIsEverRemovedAndNoWholeDriveListed)
{
    FakePeer             Peer;
    const std::u16string sElsewhere   = TestFolder() + u"\\precious",
                         sProgramData = m_sRoot.substr(0, m_sRoot.find(u"\\VORN"));
    ASSERT_TRUE(CreateDirectoryW(sElsewhere.c_str(), nullptr));
    WriteTestFile(sElsewhere + u"\\one", "1");
    ASSERT_EQ(1, BindShell32Functions());
    for (const std::u16string &sCache :
         {sElsewhere, m_sRoot + u"\\..\\..\\..\\vorn-test\\precious", u"\\\\?\\" + sElsewhere, sProgramData,
          sProgramData + u"\\.", m_sRoot + u"\\..\\.."}) {
        Run(&Peer, 0x2430, {2, 0, 1}, {sCache});
        EXPECT_TRUE(PathExists(sElsewhere + u"\\one") && PathExists(m_sRoot + u"\\P\\1.dat")) << Utf8(sCache);
    }
    for (const char16_t *pszDrive : {u"C:\\", u"C:", u"C:\\.", u"C:\\vorn-test\\..", u"\\\\?\\C:\\", u""})
        EXPECT_EQ(1u, Run(&Peer, 0x2430, {2, 0, 1}, {pszDrive}).size()) << Utf8(pszDrive) << ": its record alone";
    ReleaseShell32Functions();
}

TEST_F(SpecialRequests, CancelledRequestForwardsNothingAndStillRemovesItsCache)
{
    ASSERT_EQ(1, BindShell32Functions());
    FakePeer Peer([](uint32_t, const std::string &) {
        CancelAllThreadExecutions();
        return "FileDone";
    });
    EXPECT_EQ((Lines{"file 0 " + At8("\\P\\app\\list.ini") + " 5", "<silence>"}),
              Run(&Peer, 0x2330, {2, 0, 1}, {m_sRoot + u"\\P\\app"}, false));
    EXPECT_FALSE(PathExists(m_sRoot + u"\\P\\app"));
    ReleaseShell32Functions();
}

TEST_F(SpecialRequests, ACancelRightBehindTheRequestReachesIt)
{
    FakePeer   Peer;
    IpcMessage Record = {};
    Record.dwCommand  = 0x2430;
    g_hAppEvent       = CreateEventW(nullptr, TRUE, FALSE, nullptr); // without one a worker waits for nothing
    for (int i = 0; i < 50; i++) {
        ++g_nTotalsUnderWay; // it cannot be over before it is cancelled
        EXPECT_EQ(1, StartSpecialTransfer(&Record));
        EXPECT_EQ(1, CancelAllThreadExecutions());
        EXPECT_TRUE(Eventually([] { return IsThreadExecutionListEmpty() == 1; }));
        --g_nTotalsUnderWay;
    }
    EXPECT_EQ((Lines{"record 3021 3 0 0 ||"}), Run(&Peer, 0x3021, {3}, {})); // nothing came before
    CloseHandle(g_hAppEvent.exchange(nullptr));
}

TEST_F(SpecialRequests, RequestOfAFormerLinkReachesNoLaterOne)
{
    IpcMessage Record = {};
    Record.dwCommand  = 0x2020;
    Record.dwParam1   = 1;
    for (char16_t &ch : Record.szText1) ch = u'x'; // no terminator
    {
        FakePeer First;
        EXPECT_EQ(1, StartSpecialTransfer(&Record));
        EXPECT_EQ((Lines{"record 2020 1 0 0 " + std::string(259, 'x') + "||"}), First.TakeUntil("record"));
    }
    const uint32_t dwFormer     = g_dwLinkGeneration - 1;
    auto          *pRequest     = new SpecialRequest{Record, dwFormer};
    pRequest->Record.szText1[0] = 0;
    FakePeer Second;
    SpecialTransferThread(pRequest);
    EXPECT_EQ((Lines{"record 3021 3 0 0 ||"}), Run(&Second, 0x3021, {3}, {})); // nothing came before
    EXPECT_EQ(0, StartSpecialTransfer(nullptr));
}

} // namespace
