// user_interface_table_hosted_test.cpp: what is bound and logged, in which order, and what unbinding leaves.
#include "app/user_interface_table.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <sstream>

using namespace platform;

class UserInterfaceTable : public MachineTest {
protected:
    void TearDown() override
    {
        UnbindUser32Functions();
        ReleaseShell32Functions();
    }
};

// As logged, in table order.
static const char g_szUser32[] =
    "RegisterWindowMessageW PostMessageW FindWindowW FindWindowExW LoadIconW DestroyIcon LoadCursorW RegisterClassExW "
    "CreateWindowExW PostQuitMessage DefWindowProcW GetWindowThreadProcessId GetMessageW TranslateMessage "
    "DispatchMessageW SetTimer KillTimer DestroyWindow PeekMessageW RegisterPowerSettingNotification "
    "UnregisterPowerSettingNotification ChangeWindowMessageFilterEx GetLastInputInfo GetThreadDesktop "
    "GetUserObjectInformationW SetWindowPos GetKeyboardState QueryDisplayConfig GetDisplayConfigBufferSizes "
    "DisplayConfigGetDeviceInfo SetDisplayConfig IsImmersiveProcess IsWindowVisible GetForegroundWindow "
    "SystemParametersInfo SendMessage GetDesktopWindow GetCaretBlinkTime SetCaretBlinkTime GetSystemMetrics "
    "GetDoubleClickTime EnumWindows GetClassName GetShellWindow";
static const char g_szShell32[] =
    "ShellExecute ShellExecuteEx ExtractIconEx SHCreateShellItemArrayFromIDLists SHFileOperation";

static std::vector<std::string> Lines(const char *pszNames)
{
    std::vector<std::string> aLines;
    std::istringstream       names(pszNames);
    for (std::string sName; names >> sName;) {
        aLines.push_back("36 VornTramsaNet: GetProcAddress \"" + sName + "\" " +
                         (sName == "ChangeWindowMessageFilterEx" ? "fail" : "success"));
    }
    return aLines;
}

TEST_F(UserInterfaceTable, BindsAndLogsEachFunctionOnceInTableOrder)
{
    TraceSession session;
    hosted::RemoveFunction("user32.dll", "ChangeWindowMessageFilterEx");
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_EQ(Lines(g_szUser32), session.Take());
    EXPECT_EQ(nullptr, g_pfnChangeWindowMessageFilterEx.load());
    EXPECT_NE(nullptr, GetBoundFunction("GetClassNameW")); // bound by its whole name
    EXPECT_EQ(nullptr, GetBoundFunction("GetClassName"));
    EXPECT_NE(0u, g_dwControlMessage);
    EXPECT_EQ(1, BindShell32Functions());
    EXPECT_EQ(Lines(g_szShell32), session.Take());

    hosted::ClearFaults();
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_EQ(1, BindShell32Functions());
    EXPECT_EQ(0, hosted::CallCount("LoadLibraryW"));
    EXPECT_EQ(Lines("ChangeWindowMessageFilterEx"), session.Take());
}

TEST_F(UserInterfaceTable, UnbindingClearsEveryPointerAndBindingStartsAnew)
{
    ASSERT_EQ(1, BindUser32Functions());
    ASSERT_EQ(1, BindShell32Functions());
    hosted::ClearFaults();
    EXPECT_EQ(1, UnbindUser32Functions());
    ReleaseShell32Functions();
    ReleaseShell32Functions();
    EXPECT_EQ(2, hosted::CallCount("FreeLibrary"));
    hosted::RemoveLibrary("user32.dll");
    hosted::RemoveLibrary("shell32.dll");
    EXPECT_EQ(0, BindUser32Functions());
    EXPECT_EQ(0, BindShell32Functions());
    for (const char *psz : {"RegisterWindowMessageW", "GetShellWindow", "ShellExecuteW", "SHFileOperationW"})
        EXPECT_EQ(nullptr, GetBoundFunction(psz)) << psz;
    EXPECT_EQ(nullptr, g_pfnPostMessageW.load());
    EXPECT_EQ(nullptr, g_pfnSHFileOperationW.load());
    EXPECT_EQ(0u, g_dwControlMessage);
    FreshMachine(); // the libraries are back
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_NE(nullptr, g_pfnPostMessageW.load());
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
