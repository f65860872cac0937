// Where each redirection mode sends a file, and what the trace says on the way.
#include "app/user_interface_table.h"
#include "ipc/thread_execution.h"
#include "migration/machine_info.h"
#include "migration/special_data.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "platform/files.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "tests/migration/fake_peer.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

namespace {

using Lines = std::vector<std::string>;

class SpecialFiles : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetStateFiles();
        InitThreadExecutionList();
        const std::u16string sRoot = TestFolder();
        A = sRoot + u"\\A", B = sRoot + u"\\B", P = sRoot + u"\\P";
        for (const auto &sFolder : {A, B, P}) {
            ASSERT_TRUE(CreateDirectoryW(sFolder.c_str(), nullptr));
            WriteTestFile(sFolder + u"\\x", "12345");
        }
        SetSpecialRoot(SpecialRoot::AppData, A.c_str());
        SetSpecialRoot(SpecialRoot::SecondAppData, B.c_str());
        SetSpecialRoot(SpecialRoot::ProgramData, P.c_str());
        // The target has no drive C, so that a path which was translated is known by its drive.
        char16_t szFile[260];
        ASSERT_EQ(1, GetProgressFile(TARGET_INFO_FILE, szFile));
        ASSERT_TRUE(WritePrivateProfileStringW(u"KnownFolder", u"\"Windows\"", u"\"E:\\Windows\\\"", szFile));
    }
    void TearDown() override
    {
        DeleteThreadExecutionList();
        ClearSpecialFolders();
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
    auto        *pRequest      = new SpecialRequest{};
    pRequest->dwLinkGeneration = g_dwLinkGeneration;
    pRequest->Record.dwCommand = 0x2330;
    CopyTextW(pRequest->Record.szText1, 260, P.c_str());
    EXPECT_EQ(0u, SpecialTransferThread(pRequest));
    int nTries = 0, nRemovals = 0;
    for (const std::string &sLine : Session.Take()) {
        if (sLine == "21 VornTramsaNet: !!SendNetworkFile, 1001, " + Utf8(P) + "\\x") ++nTries;
        if (sLine == "35 VornTramsaNet: Remove cache  " + Utf8(P)) ++nRemovals;
    }
    EXPECT_EQ(3, nTries);
    EXPECT_EQ(1, nRemovals);
    EXPECT_FALSE(PathExists(P));
    ReleaseShell32Functions();
}

} // namespace
