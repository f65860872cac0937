// debug_output_hosted_test.cpp: the debugger lines follow their flag, are cut, and disturb nobody's last error.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include "trace/debug_output.h"
#include <algorithm>

using namespace platform;

class DebugOutput : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        hosted::KeepDebugOutput(true);
        hosted::TakeDebugOutput();
        g_bSocketDebug = 1;
    }
    void TearDown() override
    {
        g_bSocketDebug = 0;
        hosted::KeepDebugOutput(false);
    }
};

TEST_F(DebugOutput, LinesOfBothWidthsComeOnlyWhileTheFlagIsSet)
{
    SetLastError(10060);
    TraceDebugA("[ServerInit] port [%d] %s", 5, "x");
    TraceDebugW(u"[RecvFile] nkeyData [%d] %s", -1, u"\u00e9");
    EXPECT_EQ(10060u, GetLastError());
    const std::string sLines = hosted::TakeDebugOutput();
    EXPECT_NE(sLines.npos, sLines.find("[ServerInit] port [5] x"));
    EXPECT_NE(sLines.npos, sLines.find("[RecvFile] nkeyData [-1] \u00e9"));

    g_bSocketDebug = 0;
    TraceDebugA(reinterpret_cast<const char *>(uintptr_t{16})); // not even looked at
    TraceDebugW(reinterpret_cast<const char16_t *>(uintptr_t{16}));
    EXPECT_STREQ("", hosted::TakeDebugOutput());
}

TEST_F(DebugOutput, ALineIsCutAt4095Units)
{
    const std::string    sNarrow(5000, 'n');
    const std::u16string sWide(5000, u'w');
    TraceDebugA("%s", sNarrow.c_str());
    TraceDebugW(u"%s", sWide.c_str());
    const std::string sLines = hosted::TakeDebugOutput();
    EXPECT_EQ(4095, std::count(sLines.begin(), sLines.end(), 'n'));
    EXPECT_EQ(4095, std::count(sLines.begin(), sLines.end(), 'w'));
}
