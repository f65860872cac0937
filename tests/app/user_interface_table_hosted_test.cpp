// user_interface_table_hosted_test.cpp: what is bound and logged, in which order, and when a library is let go.
#include "app/user_interface_table.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <string>
#include <vector>

using namespace platform;

class UserInterfaceTable : public MachineTest {
  protected:
    void TearDown() override
    {
        UnbindUser32Functions();
        ReleaseShell32Functions();
    }
};

static std::string Line(const std::string &sWhat)
{
    return "36 VornTramsaNet: GetProcAddress " + sWhat;
}

TEST_F(UserInterfaceTable, BindsAndLogsEachFunctionOnceInTableOrder)
{
    TraceSession session;
    hosted::RemoveFunction("user32.dll", "ChangeWindowMessageFilterEx");
    EXPECT_EQ(1, BindUser32Functions());
    const std::vector<std::string> aUser32 = session.Take();
    ASSERT_EQ(44u, aUser32.size());
    EXPECT_EQ(Line("\"RegisterWindowMessageW\" success"), aUser32[0]);
    EXPECT_EQ(Line("\"ChangeWindowMessageFilterEx\" fail"), aUser32[21]);
    EXPECT_EQ(Line("\"GetClassName\" success"), aUser32[42]); // some are logged without their last letter
    EXPECT_EQ(nullptr, g_pfnChangeWindowMessageFilterEx.load());
    EXPECT_NE(nullptr, GetBoundFunction("GetClassNameW")); // bound by its whole name
    EXPECT_EQ(nullptr, GetBoundFunction("GetClassName"));
    EXPECT_NE(0u, g_dwControlMessage);
    EXPECT_EQ(1, BindShell32Functions());
    const std::vector<std::string> aShell32 = session.Take();
    ASSERT_EQ(5u, aShell32.size());
    EXPECT_EQ(Line("\"SHFileOperation\" success"), aShell32[4]);

    hosted::ClearFaults();
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_EQ(1, BindShell32Functions());
    EXPECT_EQ(0, hosted::CallCount("LoadLibraryW"));
    EXPECT_EQ(std::vector<std::string>{Line("\"ChangeWindowMessageFilterEx\" fail")}, session.Take());
}

TEST_F(UserInterfaceTable, ALibraryStaysMappedWhileACallIsInIt)
{
    ASSERT_EQ(1, BindShell32Functions());
    hosted::ClearFaults();
    EnterBoundCall();
    ReleaseShell32Functions();
    EXPECT_EQ(nullptr, g_pfnSHFileOperationW.load());
    EXPECT_EQ(0, hosted::CallCount("FreeLibrary"));
    LeaveBoundCall();
}
