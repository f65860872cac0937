// user_interface_test.cpp: windows and messages, reached as programs reach them: by LoadLibraryW and GetProcAddress.
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "platform/user_interface.h"
#include "tests/support/test_machine.h"
#include "tests/support/user32_functions.h"
#include <vector>

using namespace platform;

namespace {

constexpr uint32_t WM_TEST = WM_USER + 7;

std::vector<uint32_t> g_aSeen; // what the window was called with, of the messages that the tests send

LRESULT Procedure(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam)
{
    if (uMsg == WM_DESTROY || uMsg >= WM_USER) g_aSeen.push_back(uMsg);
    if (uMsg == WM_DESTROY) User32().PostQuitMessage(5);
    if (uMsg == WM_TEST) return static_cast<LRESULT>(wParam) + lParam;
    return User32().DefWindowProcW(hWnd, uMsg, wParam, lParam);
}

HWND NewWindow(const char16_t *pszTitle = u"VORN user interface test")
{
    WNDCLASSEXW windowClass{};
    windowClass.cbSize        = sizeof(windowClass);
    windowClass.style         = CS_HREDRAW | CS_VREDRAW;
    windowClass.lpfnWndProc   = Procedure;
    windowClass.hCursor       = User32().LoadCursorW(nullptr, IDC_ARROW);
    windowClass.lpszClassName = u"VORN User Interface Test Class";
    EXPECT_NE(nullptr, windowClass.hCursor);
    SetLastError(0);
    EXPECT_TRUE(User32().RegisterClassExW(&windowClass) != 0 || GetLastError() == 1410) << "new, or there already";
    g_aSeen.clear();
    return User32().CreateWindowExW(0, windowClass.lpszClassName, pszTitle, WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, 0,
                                    CW_USEDEFAULT, 0, nullptr, nullptr, nullptr, nullptr);
}

using UserInterface = MachineTest;

} // namespace

TEST_F(UserInterface, PostedMessagesComeInOrderAndQuitComesLast)
{
    const HWND hWnd = NewWindow();
    ASSERT_NE(nullptr, hWnd) << GetLastError();
    EXPECT_TRUE(User32().PostMessageW(hWnd, WM_TEST, 1, -1));
    User32().PostQuitMessage(9);
    EXPECT_TRUE(User32().PostMessageW(hWnd, WM_TEST, 2, -2));
    MSG msg{};
    for (const WPARAM wExpected : {1u, 2u}) {
        ASSERT_GT(User32().GetMessageW(&msg, nullptr, 0, 0), 0);
        while (msg.message != WM_TEST) ASSERT_GT(User32().GetMessageW(&msg, nullptr, 0, 0), 0);
        EXPECT_EQ(hWnd, msg.hwnd);
        EXPECT_EQ(wExpected, msg.wParam);
        EXPECT_EQ(0, User32().DispatchMessageW(&msg)) << "the sum of both parameters";
    }
    while (User32().GetMessageW(&msg, nullptr, 0, 0) > 0) EXPECT_LT(msg.message, WM_USER);
    EXPECT_EQ(WM_QUIT, msg.message);
    EXPECT_EQ(9u, msg.wParam);
    EXPECT_TRUE(User32().DestroyWindow(hWnd));
}
