// debug_output_hosted_test.cpp: the debugger lines follow their flag, are cut, and disturb nobody's last error.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include "trace/debug_output.h"
#include <string>

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

TEST_F(DebugOutput, LinesOfBothWidthsAreCutAndComeOnlyWhileTheFlagIsSet)
{
    SetLastError(10060);
    TraceDebugA("[ServerInit] port [%d] %s", 5, std::string(5000, 'n').c_str());
    TraceDebugW(u"[RecvFile] nkeyData [%d] %s", -1, (u"\u00e9" + std::u16string(5000, u'w')).c_str());
    EXPECT_EQ(10060u, GetLastError());
    const std::string sLines = hosted::TakeDebugOutput(), sNarrow = "[ServerInit] port [5] ",
                      sWide = "[RecvFile] nkeyData [-1] \u00e9"; // 4095 units each
    EXPECT_NE(sLines.npos, sLines.find(sNarrow + std::string(4095 - sNarrow.size(), 'n') + "\n"));
    EXPECT_NE(sLines.npos, sLines.find(sWide + std::string(4095 - (sWide.size() - 1), 'w') + "\n"));

    g_bSocketDebug = 0;
    TraceDebugA(reinterpret_cast<const char *>(uintptr_t{16})); // not even looked at
    TraceDebugW(reinterpret_cast<const char16_t *>(uintptr_t{16}));
    EXPECT_STREQ("", hosted::TakeDebugOutput());
}
