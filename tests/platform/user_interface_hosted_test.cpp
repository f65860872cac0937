// user_interface_hosted_test.cpp: windows of other processes.
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

TEST_F(UserInterfaceHosted, WindowOfAnotherProcessIsReachedUntilThatDies)
{
    const HANDLE hReady = CreateEventW(nullptr, FALSE, FALSE, u"VORN ready");
    for (const bool bKill : {false, true}) {
        ChildProcess child("own a window");
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hReady, LONG_WAIT_MS));
        const HWND hWnd = User32().FindWindowW(CLASS_NAME, u"child");
        ASSERT_NE(nullptr, hWnd);
        EXPECT_FALSE(User32().DestroyWindow(hWnd));
        EXPECT_EQ(5u, GetLastError());
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
