// user_interface_table_hosted_test.cpp: what is bound and logged, in which order, and what unbinding leaves.
#include "app/user_interface_table.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

class UserInterfaceTable : public MachineTest {
protected:
    void TearDown() override
    {
        UnbindUser32Functions();
        ReleaseShell32Functions();
    }
};

static const char *const g_apszUser32[] = {"RegisterWindowMessageW",
                                           "PostMessageW",
                                           "FindWindowW",
                                           "FindWindowExW",
                                           "LoadIconW",
                                           "DestroyIcon",
                                           "LoadCursorW",
                                           "RegisterClassExW",
                                           "CreateWindowExW",
                                           "PostQuitMessage",
                                           "DefWindowProcW",
                                           "GetWindowThreadProcessId",
                                           "GetMessageW",
                                           "TranslateMessage",
                                           "DispatchMessageW",
                                           "SetTimer",
                                           "KillTimer",
                                           "DestroyWindow",
                                           "PeekMessageW",
                                           "RegisterPowerSettingNotification",
                                           "UnregisterPowerSettingNotification",
                                           "ChangeWindowMessageFilterEx",
                                           "GetLastInputInfo",
                                           "GetThreadDesktop",
                                           "GetUserObjectInformationW",
                                           "SetWindowPos",
                                           "GetKeyboardState",
                                           "QueryDisplayConfig",
                                           "GetDisplayConfigBufferSizes",
                                           "DisplayConfigGetDeviceInfo",
                                           "SetDisplayConfig",
                                           "IsImmersiveProcess",
                                           "IsWindowVisible",
                                           "GetForegroundWindow",
                                           "SystemParametersInfo",
                                           "SendMessage",
                                           "GetDesktopWindow",
                                           "GetCaretBlinkTime",
                                           "SetCaretBlinkTime",
                                           "GetSystemMetrics",
                                           "GetDoubleClickTime",
                                           "EnumWindows",
                                           "GetClassName",
                                           "GetShellWindow"};
static const char *const g_apszShell32[] = {"ShellExecute", "ShellExecuteEx", "ExtractIconEx",
                                            "SHCreateShellItemArrayFromIDLists", "SHFileOperation"};

static std::string Line(const std::string &sName, const char *pszMissing)
{
    return "36 VornTramsaNet: GetProcAddress \"" + sName + "\" " + (sName == pszMissing ? "fail" : "success");
}

TEST_F(UserInterfaceTable, BindsAndLogsEachFunctionOnceInTableOrder)
{
    TraceSession session;
    hosted::RemoveFunction("user32.dll", "ChangeWindowMessageFilterEx");
    std::vector<std::string> aExpected;
    for (const char *psz : g_apszUser32) aExpected.push_back(Line(psz, "ChangeWindowMessageFilterEx"));
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_EQ(aExpected, session.Take());
    EXPECT_EQ(nullptr, g_pfnChangeWindowMessageFilterEx.load());
    EXPECT_EQ(nullptr, GetBoundFunction("ChangeWindowMessageFilterEx"));
    EXPECT_NE(nullptr, GetBoundFunction("GetClassNameW"));
    EXPECT_EQ(nullptr, GetBoundFunction("GetClassName"));
    EXPECT_NE(0u, g_dwControlMessage);

    aExpected.clear();
    for (const char *psz : g_apszShell32) aExpected.push_back(Line(psz, "none"));
    EXPECT_EQ(1, BindShell32Functions());
    EXPECT_EQ(aExpected, session.Take());

    hosted::ClearFaults();
    EXPECT_EQ(1, BindUser32Functions());
    EXPECT_EQ(1, BindShell32Functions());
    EXPECT_EQ(0, hosted::CallCount("LoadLibraryW"));
    EXPECT_EQ(std::vector<std::string>{Line("ChangeWindowMessageFilterEx", "ChangeWindowMessageFilterEx")},
              session.Take());
}

TEST_F(UserInterfaceTable, UnbindingClearsEveryPointerAndBindingStartsAnew)
{
    ASSERT_EQ(1, BindUser32Functions());
    ASSERT_EQ(1, BindShell32Functions());
    const auto ExpectAllAbsent = [] {
        for (const char *psz : g_apszUser32) EXPECT_EQ(nullptr, GetBoundFunction(psz)) << psz;
        EXPECT_EQ(nullptr, GetBoundFunction("GetClassNameW"));
        EXPECT_EQ(nullptr, GetBoundFunction("SHFileOperationW"));
        EXPECT_EQ(nullptr, g_pfnPostMessageW.load());
        EXPECT_EQ(nullptr, g_pfnGetMessageW.load());
        EXPECT_EQ(nullptr, g_pfnSHFileOperationW.load());
        EXPECT_EQ(0u, g_dwControlMessage);
    };
    hosted::ClearFaults();
    EXPECT_EQ(1, UnbindUser32Functions());
    ReleaseShell32Functions();
    ReleaseShell32Functions();
    EXPECT_EQ(2, hosted::CallCount("FreeLibrary"));
    ExpectAllAbsent();

    hosted::RemoveLibrary("user32.dll");
    hosted::RemoveLibrary("shell32.dll");
    EXPECT_EQ(0, BindUser32Functions());
    EXPECT_EQ(0, BindShell32Functions());
    ExpectAllAbsent();
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
