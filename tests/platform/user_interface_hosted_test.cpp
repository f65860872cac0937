// user_interface_hosted_test.cpp: messages between processes, and the events that the machine pretends.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/support/child_process_hosted.h"
#include "tests/support/test_machine.h"
#include "tests/support/user32_functions.h"
#include <string>

using namespace platform;

namespace {

constexpr uint32_t LONG_WAIT_MS = 60000; // never reached when all is well
constexpr uint32_t WM_ALLOWED   = WM_USER + 1;
constexpr uint32_t WM_OTHER     = WM_USER + 2;
const char16_t    *CLASS_NAME   = u"VORN Hosted Window Test Class";

using UserInterfaceHosted = MachineTest;

LRESULT Procedure(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam)
{
    if (uMsg == WM_DESTROY) User32().PostQuitMessage(0);
    return User32().DefWindowProcW(hWnd, uMsg, wParam, lParam);
}

HWND NewWindow(const char16_t *pszTitle)
{
    WNDCLASSEXW windowClass{};
    windowClass.cbSize        = sizeof(windowClass);
    windowClass.lpfnWndProc   = Procedure;
    windowClass.lpszClassName = CLASS_NAME;
    User32().RegisterClassExW(&windowClass);
    return User32().CreateWindowExW(0, CLASS_NAME, pszTitle, WS_OVERLAPPEDWINDOW, 0, 0, 0, 0, nullptr, nullptr, nullptr,
                                    nullptr);
}

// The next posted message of the calling thread's windows, waited for.
MSG NextMessage()
{
    MSG msg{};
    EXPECT_GE(User32().GetMessageW(&msg, nullptr, 0, 0), 0);
    return msg;
}

const ChildRole g_PostRole("post messages", [](const std::string &sArgument) {
    const HWND hWnd = User32().FindWindowW(CLASS_NAME, u"parent");
    if (hWnd == nullptr) return 1;
    if (sArgument == "low") {
        if (User32().PostMessageW(hWnd, WM_OTHER, 1, 1) || GetLastError() != 5) return 2;
    }
    for (WPARAM w = 1; w <= 100; w++)
        if (!User32().PostMessageW(hWnd, WM_ALLOWED, w, -static_cast<LPARAM>(w))) return 4;
    return 0;
});

// Owns a window until WM_DESTROY is posted to it.
const ChildRole g_WindowRole("own a window", [](const std::string &) {
    const HWND hWnd = NewWindow(u"child");
    if (hWnd == nullptr) return 1;
    SetEvent(OpenEventW(EVENT_MODIFY_STATE, FALSE, u"VORN ready"));
    MSG msg{};
    while (User32().GetMessageW(&msg, nullptr, 0, 0) > 0) User32().DispatchMessageW(&msg);
    return 0;
});

} // namespace

TEST_F(UserInterfaceHosted, MessagesCrossProcessesInOrderAndTheFilterHoldsBackLowerStanding)
{
    const HWND hWnd = NewWindow(u"parent");
    ASSERT_NE(nullptr, hWnd);
    EXPECT_TRUE(User32().ChangeWindowMessageFilterEx(hWnd, WM_ALLOWED, MSGFLT_ALLOW, nullptr));
    for (const bool bLow : {false, true}) {
        ChildProcess child("post messages", bLow ? "low" : "", {bLow ? "VORN_INTEGRITY=low" : "VORN_UNUSED=1"});
        for (WPARAM w = 1; w <= 100; w++) {
            const MSG msg = NextMessage();
            EXPECT_EQ(WM_ALLOWED, msg.message);
            EXPECT_EQ(w, msg.wParam);
            EXPECT_EQ(-static_cast<LPARAM>(w), msg.lParam);
        }
        EXPECT_EQ(0, child.Wait());
    }
    EXPECT_TRUE(User32().DestroyWindow(hWnd));
}

TEST_F(UserInterfaceHosted, WindowOfAnotherProcessIsReachedUntilThatDies)
{
    const HANDLE hReady = CreateEventW(nullptr, FALSE, FALSE, u"VORN ready");
    for (const bool bKill : {false, true}) {
        ChildProcess child("own a window");
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hReady, LONG_WAIT_MS));
        const HWND hWnd = User32().FindWindowW(CLASS_NAME, u"child");
        ASSERT_NE(nullptr, hWnd);
        uint32_t dwProcessId = 0;
        EXPECT_NE(0u, User32().GetWindowThreadProcessId(hWnd, &dwProcessId));
        EXPECT_EQ(static_cast<uint32_t>(child.Pid()), dwProcessId);
        EXPECT_FALSE(User32().DestroyWindow(hWnd));
        EXPECT_EQ(5u, GetLastError());
        EXPECT_EQ(0, User32().SendMessageW(hWnd, WM_OTHER, 6, -7));
        EXPECT_EQ(ERROR_NOT_SUPPORTED, GetLastError()) << "nobody here waits for another thread's answer";
        if (bKill) {
            child.Kill();
        } else {
            EXPECT_TRUE(User32().PostMessageW(hWnd, WM_DESTROY, 0, 0));
            EXPECT_EQ(0, child.Wait());
        }
        EXPECT_EQ(nullptr, User32().FindWindowW(CLASS_NAME, u"child"));
        EXPECT_FALSE(User32().PostMessageW(hWnd, WM_OTHER, 0, 0));
        EXPECT_EQ(1400u, GetLastError());
    }
    EXPECT_TRUE(CloseHandle(hReady));
}

TEST_F(UserInterfaceHosted, SystemEventsReachTheWindowsThatWantThem) // and notification_window_hosted_test.cpp
{
    const HWND hFirst = NewWindow(u"first"), hSecond = NewWindow(u"second");
    EXPECT_TRUE(User32().WTSRegisterSessionNotification(hSecond, NOTIFY_FOR_THIS_SESSION));
    const HANDLE hPower =
        User32().RegisterPowerSettingNotification(hFirst, &GUID_MONITOR_POWER_ON, DEVICE_NOTIFY_WINDOW_HANDLE);
    EXPECT_EQ(1, hosted::BroadcastSessionChange(WTS_CONSOLE_DISCONNECT));
    const MSG session = NextMessage();
    EXPECT_EQ(hSecond, session.hwnd);
    EXPECT_EQ(0x02B1u, session.message);
    EXPECT_EQ(2u, session.wParam);
    EXPECT_EQ(1, session.lParam) << "the session";
    EXPECT_EQ(2, hosted::BroadcastPower(PBT_APMSUSPEND));
    const MSG aPower[] = {NextMessage(), NextMessage()};
    EXPECT_NE(aPower[0].hwnd, aPower[1].hwnd);
    EXPECT_EQ(0x0218u, aPower[1].message);
    EXPECT_EQ(4u, aPower[1].wParam);
    EXPECT_TRUE(User32().WTSUnRegisterSessionNotification(hSecond));
    EXPECT_FALSE(User32().WTSUnRegisterSessionNotification(hSecond));
    EXPECT_TRUE(User32().UnregisterPowerSettingNotification(hPower));
    EXPECT_FALSE(User32().UnregisterPowerSettingNotification(hPower));
    EXPECT_EQ(0, hosted::BroadcastSessionChange(WTS_SESSION_LOCK));
    EXPECT_TRUE(User32().DestroyWindow(hFirst) && User32().DestroyWindow(hSecond));
    EXPECT_EQ(0, hosted::OpenWindows());
}
