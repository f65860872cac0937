// notification_window_test.cpp: the window on whichever system this is: what reaches the service, the state kept, the
// ways out.
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/service_pipe_client.h"
#include "net/network_link.h"
#include "net/session_control.h"
#include "net/session_state.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/eventually.h"
#include <string>

using namespace platform;

class RealWindow : public ServiceTest {
  protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        ResetSessionState();
        ASSERT_EQ(1, BindUser32Functions());
        ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    }
    void TearDown() override
    {
        if (g_hNotificationWindow != nullptr) EndWindow(true);
        UnbindUser32Functions();
        ResetSessionState();
    }
    static void Send(uint32_t uMsg, WPARAM wParam, LPARAM lParam = 0)
    {
        MSG message = {};
        EXPECT_TRUE(g_pfnPostMessageW(g_hNotificationWindow, uMsg, wParam, lParam));
        while (message.message != uMsg && g_pfnGetMessageW(&message, nullptr, 0, 0) > 0)
            g_pfnDispatchMessageW(&message);
    }
    // The loop as the agent runs it, until it ends.
    static void EndWindow(bool bDestroy)
    {
        MSG message = {};
        if (bDestroy) g_pfnDestroyWindow(g_hNotificationWindow);
        while (g_pfnGetMessageW(&message, nullptr, 0, 0) != 0) g_pfnDispatchMessageW(&message);
        EXPECT_EQ(0u, message.wParam);
        ForgetNotificationWindow();
    }
    // "code p1" of every record queued for the service.
    static std::string Reports(FakeService *pService)
    {
        std::string sReports;
        if (!PassObjectInQueue()) return sReports;
        for (const IpcMessage &record : pService->Take())
            sReports += std::to_string(record.dwCommand) + ' ' + std::to_string(record.dwParam1) + ' ';
        return sReports;
    }
    static std::string State()
    {
        const SystemState state = GetSystemState();
        return std::to_string(state.bConsoleConnected) + std::to_string(state.bSessionUnlocked) +
               std::to_string(state.bSuspended);
    }
};

TEST_F(RealWindow, ReportsAndKeepsItsStateByTheMessageThatComes)
{
    std::atomic<SOCKET> *const pNone = nullptr;
    const struct {
        uint32_t             uMsg; // 0: the control message
        WPARAM               wParam;
        LPARAM               lParam;
        std::atomic<SOCKET> *pPeerSocket; // the one that exists
        bool                 bDisconnects;
        const char          *pszReports, *pszState; // console connected, session unlocked, suspended
    } aSteps[] = {
        {0, 816, 1, pNone, false, "816 1 ", "110"},
        {0, 816, 2, pNone, false, "", "110"},
        {0, 817, 1, pNone, false, "", "110"},
        {0, 816 | (1ull << 32), 1, pNone, false, "", "110"},
        {WM_POWERBROADCAST, 4, 0, pNone, false, "", "111"},
        {WM_POWERBROADCAST, 10, 0, pNone, false, "", "111"},
        {WM_POWERBROADCAST, 2, 0, pNone, false, "", "110"},
        {WM_POWERBROADCAST, 4, 0, pNone, false, "", "111"},
        {WM_POWERBROADCAST, 0x12, 0, pNone, false, "", "110"},
        {WM_WTSSESSION_CHANGE, 7, 1, pNone, false, "", "100"},
        {WM_WTSSESSION_CHANGE, 8, 1, pNone, false, "", "110"},
        {WM_WTSSESSION_CHANGE, 2, 1, pNone, true, "", "010"},
        {WM_WTSSESSION_CHANGE, 2, 1, &g_ClientRecvSocket, false, "", "010"}, // once, until there is a console again
        {WM_WTSSESSION_CHANGE, 1, 1, &g_ClientRecvSocket, false, "", "110"},
        {WM_WTSSESSION_CHANGE, 2, 1, &g_ClientRecvSocket, true, "818 102 ", "010"},
        {WM_WTSSESSION_CHANGE, 1, 1, pNone, false, "", "110"},
        {WM_WTSSESSION_CHANGE, 2, 1, &g_ServerSrvSocket, true, "818 102 ", "010"},
        {WM_WTSSESSION_CHANGE, 1, 1, pNone, false, "", "110"},
        {WM_WTSSESSION_CHANGE, 2, 1, &g_ServerSendSocket, true, "818 102 ", "010"},
        {WM_USER, 816, 1, pNone, false, "", "010"},
    };
    FakeService service;
    for (const auto &step : aSteps) {
        SCOPED_TRACE(testing::Message() << step.uMsg << ' ' << step.wParam);
        g_ullLastPinRequest     = 1; // a disconnect forgets the last PIN
        g_ullLastConnectRequest = 0; // and begins as a request
        if (step.pPeerSocket != nullptr) *step.pPeerSocket = SOCKET{12345};
        Send(step.uMsg != 0 ? step.uMsg : g_dwControlMessage, step.wParam, step.lParam);
        if (step.pPeerSocket != nullptr) *step.pPeerSocket = INVALID_SOCKET;
        EXPECT_EQ(step.pszReports, Reports(&service));
        EXPECT_EQ(step.pszState, State());
        if (step.bDisconnects) EXPECT_TRUE(Eventually([] { return g_ullLastPinRequest == 0; }));
        else EXPECT_TRUE(g_ullLastConnectRequest == 0 && g_ullLastPinRequest == 1);
    }
}

TEST_F(RealWindow, ItsLoopEndsByPostedDestroyAndByEndOfSession)
{
    const HWND hWnd = g_hNotificationWindow;
    EXPECT_EQ(hWnd, g_pfnFindWindowW(u"VORN Migration Network App Class", u"VORN Migration Network App"));
    EXPECT_EQ(1, PostAgentExit());
    EndWindow(false);
    EXPECT_EQ(0, PostAgentExit());
    g_pfnDestroyWindow(hWnd); // a posted message destroys nothing
    MSG message = {};
    EXPECT_EQ(0, g_pfnGetMessageW(&message, nullptr, 0, 0));

    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    EXPECT_EQ("110", State());
    Send(WM_ENDSESSION, 1);
    EXPECT_EQ(nullptr, g_pfnFindWindowW(WINDOW_CLASS_NAME, WINDOW_TITLE));
    EndWindow(false);
}
