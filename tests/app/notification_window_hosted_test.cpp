// notification_window_hosted_test.cpp: what the window registers for, hears of and traces.
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/stop_signal.h"
#include "net/network_link.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/eventually.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

class NotificationWindow : public ServiceTest {
  protected:
    void TearDown() override { UnbindUser32Functions(); }
    // Also takes the WM_QUIT that this posts out of the queue.
    static void DestroyTheWindow()
    {
        MSG message = {};
        g_pfnDestroyWindow(g_hNotificationWindow);
        EXPECT_FALSE(g_pfnGetMessageW(&message, nullptr, 0, 0));
        ForgetNotificationWindow();
    }
};

TEST_F(NotificationWindow, TracesAndHearsOfTheSessionUntilItIsToldToEnd)
{
    TraceSession session;
    ASSERT_EQ(1, BindUser32Functions());
    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    EXPECT_TRUE(session.Saw("10 VornTramsaNet: Get Wtsapi32 functions success"));
    EXPECT_EQ(1, hosted::PowerRegistrations());
    g_pfnPostMessageW(g_hNotificationWindow, g_dwControlMessage, 817, 2);
    EXPECT_EQ(1, hosted::BroadcastSessionChange(WTS_CONSOLE_DISCONNECT));
    g_ClientRecvSocket = 12345;
    hosted::ClearFaults();
    hosted::FailCall("CreateThread", 1, 8, true);
    MSG message = {};
    for (int n = 0; n < 2; n++) {
        EXPECT_TRUE(g_pfnGetMessageW(&message, nullptr, 0, 0));
        g_pfnDispatchMessageW(&message);
    }
    EXPECT_TRUE(session.Saw(
        "16 VornTramsaNet: Receive \"VORN Migration Control Notification to Net\" message, wParam 817, lParam 2"));
    EXPECT_EQ(2, hosted::CallCount("CreateThread")); // the role's reset and the release
    g_ClientRecvSocket = INVALID_SOCKET;
    EXPECT_EQ(1, PostAgentExit());
    while (g_pfnGetMessageW(&message, nullptr, 0, 0) != 0) g_pfnDispatchMessageW(&message);
    EXPECT_EQ(1, hosted::OpenWindows()); // a posted message destroys nothing, it only ends everything
    EXPECT_EQ(0, hosted::SessionRegistrations());
    EXPECT_EQ(0, hosted::PowerRegistrations());
    EXPECT_EQ(1, hosted::CallCount("FreeLibrary"));
    DestroyTheWindow();
}

TEST_F(NotificationWindow, AsksAgainForTheSessionsNotificationsThatAreRefusedEarlyInALogon)
{
    g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    hosted::SetClockRate(20);
    ASSERT_EQ(1, BindUser32Functions());
    for (const int nRefusals : {1, 3}) {
        hosted::ClearFaults();
        for (int n = 1; n <= nRefusals; n++) hosted::FailCall("WTSRegisterSessionNotification", n, 1702);
        ASSERT_EQ(1, CreateNotificationWindow(nullptr));
        EXPECT_TRUE(Eventually([] { return hosted::SessionRegistrations() == 1 && hosted::LiveThreads() == 0; }));
        EXPECT_EQ(nRefusals + 1, hosted::CallCount("WTSRegisterSessionNotification"));
        DestroyTheWindow();
    }
    hosted::FailCall("WTSRegisterSessionNotification", 1, 1702, true);
    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    SetEvent(g_hAppEvent);
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; })) << "ends with the agent";
    DestroyTheWindow();
    CloseHandle(g_hAppEvent.exchange(nullptr));
}
