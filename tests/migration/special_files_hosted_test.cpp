// Where each redirection mode sends a file, and what the trace says on the way.
#include "migration/machine_info.h"
#include "migration/special_folders.h"
#include "tests/migration/special_fixture.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

namespace {

class SpecialFiles : public SpecialTest {
  protected:
    void SetUp() override
    {
        SpecialTest::SetUp();
        A = m_sRoot + u"\\A", B = m_sRoot + u"\\B", P = m_sRoot + u"\\P";
        ASSERT_TRUE(CreateDirectoryW(B.c_str(), nullptr));
        for (const auto &sFolder : {A, B, P}) WriteTestFile(sFolder + u"\\x", "12345");
        SetSpecialRoot(SpecialRoot::SecondAppData, B.c_str());
        // The target has no drive C, so that a path which was translated is known by its drive.
        Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Windows\"", u"\"E:\\Windows\\\"");
    }
    static std::string Moved(const std::u16string &sPath)
    {
        char16_t szName[260];
        EXPECT_EQ(1, GetOwnComputerName(szName));
        return "E:\\" + Utf8(szName) + "_C" + Utf8(sPath).substr(2);
    }
    std::u16string A, B, P;
};

TEST_F(SpecialFiles, EachModeHasItsDestinationAndItsTrace)
{
    const std::u16string a = A + u"\\x", b = B + u"\\x", p = P + u"\\x";
    const struct {
        uint32_t       dwMode;
        std::u16string sSource;
        std::string    sDestination, sMapping; // of the trace, less its two paths; "" when none is tried
    } aCases[] = {
        {0, a, Moved(p), "TransferAppDataToProgramData, changed 1"},
        {0, b, Moved(b), "TransferAppDataToProgramData, changed 0"},
        {1, b, Utf8(p), "TransferAppDataToProgramData, changed 1"},
        {1, a, Utf8(a), "TransferAppDataToProgramData, changed 0"},
        {2, p, Moved(a), "TransferProgramDataToAppData, changed 1"},
        {3, p, Utf8(b), "TransferProgramDataToAppData, changed 1"},
        {4, a, Moved(a), ""},
        {0xFFFFFFFF, p, Moved(p), ""},
    };
    FakePeer     Peer;
    TraceSession Session;
    for (const auto &c : aCases) {
        StringList List = {};
        AppendString(&List, c.sSource.c_str(), 260);
        EXPECT_EQ(1, SendSpecialFileList(&List, c.dwMode, NO_ACCOUNTING, 0, 0x1330));
        FreeStringList(&List);
        EXPECT_EQ((Lines{"file 0 " + c.sDestination + " 5"}), Peer.Take()) << c.dwMode;

        const std::string sSource = Utf8(c.sSource);
        Lines             aTrace  = Session.Take();
        ASSERT_EQ(c.sMapping.empty() ? 4u : 5u, aTrace.size()) << c.dwMode;
        EXPECT_EQ("35 VornTramsaNet: SendNetworkFile from " + sSource, aTrace[0]);
        if (!c.sMapping.empty()) {
            EXPECT_EQ("28 VornTramsaNet: " + c.sMapping + ", from " + sSource + " to ",
                      aTrace[1].substr(0, aTrace[1].rfind(" to ") + 4));
            aTrace.erase(aTrace.begin() + 1);
        }
        EXPECT_EQ("35 VornTramsaNet: SendNetworkFile to " + c.sDestination, aTrace[1]);
    }
}

TEST_F(SpecialFiles, FailedTriesAndTheRemovalOfTheCacheAreTraced)
{
    ASSERT_EQ(1, BindShell32Functions());
    FakePeer     Peer([](uint32_t, const std::string &) { return "FileError"; });
    TraceSession Session;
    const Lines  aGot = Run(&Peer, 0x2330, {}, {P + u"\\app"});
    EXPECT_EQ("record 2330 0 0 0 " + Utf8(P) + "\\app||", aGot.back());
    int nTries = 0, nRemovals = 0;
    for (const std::string &sLine : Session.Take()) {
        if (sLine == "21 VornTramsaNet: !!SendNetworkFile, 1001, " + Utf8(P) + "\\app\\list.ini") ++nTries;
        if (sLine == "35 VornTramsaNet: Remove cache  " + Utf8(P) + "\\app") ++nRemovals;
    }
    EXPECT_EQ(3, nTries);
    EXPECT_EQ(1, nRemovals);
    EXPECT_FALSE(PathExists(P + u"\\app"));
    ReleaseShell32Functions();
}

} // namespace
