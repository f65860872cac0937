// trace_log_hosted_test.cpp: what a trace session records of each message shape, and what closes the gates.
#include "platform/errors.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <chrono>
#include <functional>
#include <thread>

using namespace platform;

class TraceLog : public MachineTest {};

TEST_F(TraceLog, EveryShapeReachesTheSessionWithItsArguments)
{
    static const struct {
        std::function<void()> Write;
        const char           *pszExpected;
    } aCases[] = {
        {[] { TraceProcessStart(); }, "37 VornTramsaNet: start"},
        {[] { TraceProcessEnd(); }, "38 VornTramsaNet: end"},
        {[] { TraceText("## Unhandle IPC"); }, "10 VornTramsaNet: ## Unhandle IPC"},
        {[] { TraceText(nullptr); }, "10 VornTramsaNet: NULL"},
        {[] { TraceWideText(u"Net, \u00e9\u4e2d", 260); }, "34 VornTramsaNet: Net, \u00e9\u4e2d"},
        {[] { TraceWideText(u"abcdef", 3); }, "34 VornTramsaNet: abc"},
        {[] { TraceWideText(nullptr, 260); }, "34 VornTramsaNet: NULL"},
        {[] { TracePipeRead(7920); }, "13 VornTramsaNet: NetLoopThread ReadFile, 7920 bytes"},
        {[] { TraceWindowMessage(816, 1); },
         "16 VornTramsaNet: Receive \"VORN Migration Control Notification to Net\" message, wParam 816, lParam 1"},
        {[] { TraceTextValue("value", 0xFFFFFFFE); }, "29 VornTramsaNet: value, 4294967294"},
        {[] { TraceSpecialFileFailure(1, 2); }, "30 VornTramsaNet: Fail to send/receive special file, 1, 2"},
        {[] { TraceRecordLongText("label", 1, 2, 3, u"long", 780); }, "25 VornTramsaNet: label, 1, 2, 3, long"},
        {[] { TraceRecordTexts("label", 1, 2, 3, u"a", u"", u"c", 260); }, "27 VornTramsaNet: label, 1, 2, 3, a, , c"},
        {[] { TracePathMapping("tag", 1, u"P:\\x", u"A:\\x", 260); },
         "28 VornTramsaNet: tag, changed 1, from P:\\x to A:\\x"},
        {[] { TraceTextPath("Remove cache ", u"C:\\cache", 260); }, "35 VornTramsaNet: Remove cache  C:\\cache"},
        {[] { TraceTwoTexts("GetProcAddress \"SetTimer\"", "fail"); },
         "36 VornTramsaNet: GetProcAddress \"SetTimer\" fail"},
    };
    TraceSession session;
    for (const auto &c : aCases) {
        SetLastError(4711);
        c.Write();
        EXPECT_EQ(4711u, GetLastError()) << c.pszExpected;
        EXPECT_EQ(std::vector<std::string>{c.pszExpected}, session.Take());
    }
}

TEST_F(TraceLog, WideTextIsCutToWholeCharactersOf1023Bytes)
{
    TraceSession   session;
    std::u16string sThrees(340, u'\u4e2d'), sFours = u"a"; // 1020 bytes, and 1021
    std::string    sThreeBytes, sFourBytes         = "a";
    for (int n = 0; n < 340; n++) sThreeBytes += "\u4e2d";
    for (int n = 0; n < 255; n++) sFours += u"\U0001F600", sFourBytes += "\U0001F600";
    TraceWideText((sThrees + u"ab\U0001F600").c_str(), 1024); // the last one does not fit
    TraceWideText((sFours + u"\u4e2d").c_str(), 1024);
    EXPECT_EQ((std::vector<std::string>{"34 VornTramsaNet: " + sThreeBytes + "ab", "34 VornTramsaNet: " + sFourBytes}),
              session.Take());
}

TEST_F(TraceLog, EachProviderHasItsOwnFlagBitAndFailuresReachBoth)
{
    static const struct {
        uint32_t dwFlags;
        bool     bMain, bSecond;
    } aCases[] = {{2, true, false}, {1, false, true}, {0xFFFFFFFC, false, false}, {3, true, true}};
    for (const auto &c : aCases) {
        FreshMachine();
        TraceSession             session(c.dwFlags);
        std::vector<std::string> aExpected;
        if (c.bMain) aExpected = {"10 VornTramsaNet: main alone", "21 VornTramsaNet: !!SendNetworkFile, 1001, C:\\a"};
        if (c.bSecond) aExpected.push_back("22 VornTramsaNet: !!SendNetworkFile, 1001, C:\\a");
        SetLastError(4711);
        TraceText("main alone");
        TraceValueText("!!SendNetworkFile", 1001, u"C:\\a", 260); // what failed goes to both
        EXPECT_EQ(4711u, GetLastError()) << c.dwFlags;
        EXPECT_EQ(aExpected, session.Take()) << c.dwFlags;
    }
}

TEST_F(TraceLog, NothingIsLookedAtBeforeRegistrationNorAfterTheSessionEnds)
{
    // Addresses that nobody may read: a call that formats or measures its text ends the test.
    const auto *pszBad   = reinterpret_cast<const char *>(uintptr_t{16});
    const auto *pszWide  = reinterpret_cast<const char16_t *>(uintptr_t{16});
    const auto  WriteAll = [&] {
        TraceText(pszBad);
        TraceWideText(pszWide, 260);
        TraceRecordTexts(pszBad, 1, 2, 3, pszWide, pszWide, pszWide, 260);
        TraceValueText(pszBad, 1, pszWide, 260);
    };
    EXPECT_FALSE(IsTraceEnabled());
    WriteAll();
    {
        TraceSession session;
        EXPECT_TRUE(IsTraceEnabled());
        ASSERT_TRUE(hosted::StopTraceSession(hosted::MachineFolder(), "test"));
        for (int n = 0; n < 1000 && (IsTraceEnabled() || IsSecondTraceEnabled()); n++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_FALSE(IsTraceEnabled());
        WriteAll();
        ASSERT_TRUE(hosted::StartTraceSession(hosted::MachineFolder(), "test", 5, 3));
        for (int n = 0; n < 1000 && !IsTraceEnabled(); n++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        TraceText("again");
        EXPECT_TRUE(session.Saw("again"));
    }
    EXPECT_FALSE(IsTraceEnabled());
    WriteAll();
}
