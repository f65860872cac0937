// notification_window_hosted_test.cpp: the window with functions missing, what it registers for and traces, and a
// console disconnect with its threads.
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "net/network_link.h"
#include "net/session_control.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/net/net_fixture.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <chrono>
#include <thread>

using namespace platform;

class NotificationWindow : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetServicePipeClient();
        g_hAppEvent = CreateEventW(nullptr, TRUE, TRUE, nullptr); // threads that the window starts do not linger
        ASSERT_EQ(1, BindUser32Functions());
    }
    void TearDown() override
    {
        const HWND hWnd = g_hNotificationWindow;
        if (hWnd != nullptr && g_pfnDestroyWindow != nullptr) g_pfnDestroyWindow(hWnd);
        MSG message;
        while (PeekMessage(&message)) {} // also takes a WM_QUIT out of the queue
        ForgetNotificationWindow();
        UnbindUser32Functions();
        for (int n = 0; n < 2000 && hosted::LiveThreads() > 0; n++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        CloseHandle(g_hAppEvent.exchange(nullptr));
        ResetServicePipeClient();
        g_ServerSrvSocket = g_ServerSendSocket = g_ClientRecvSocket = INVALID_SOCKET;
    }
    static bool PeekMessage(MSG *pMessage)
    {
        const auto pfn = reinterpret_cast<PeekMessageWProc>(GetBoundFunction("PeekMessageW"));
        return pfn != nullptr && pfn(pMessage, nullptr, 0, 0, 1);
    }
    static void Send(uint32_t uMsg, WPARAM wParam, LPARAM lParam = 0)
    {
        const auto pfn = reinterpret_cast<SendMessageWProc>(GetBoundFunction("SendMessageW"));
        pfn(g_hNotificationWindow, uMsg, wParam, lParam);
    }
    // A session event as the system delivers it: to the windows that have asked for it, through their loops.
    static void Deliver(WPARAM wParam)
    {
        MSG message = {};
        EXPECT_EQ(1, hosted::BroadcastSessionChange(wParam));
        EXPECT_TRUE(g_pfnGetMessageW(&message, nullptr, 0, 0));
        EXPECT_EQ(WM_WTSSESSION_CHANGE, message.message);
        g_pfnDispatchMessageW(&message);
    }
    // "code p1" of every record queued for the service.
    static std::vector<std::string> Reports(FakeService *pService)
    {
        std::vector<std::string> aReports;
        if (!PassObjectInQueue()) return aReports;
        for (const IpcMessage &record : pService->Take()) {
            aReports.push_back(std::to_string(record.dwCommand) + " " + std::to_string(record.dwParam1));
        }
        return aReports;
    }
};

TEST_F(NotificationWindow, IsFoundByClassAndTitleAndRegisteredForWhatItNeeds)
{
    TraceSession session;
    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    EXPECT_EQ(g_hNotificationWindow.load(),
              g_pfnFindWindowW(u"VORN Migration Network App Class", u"VORN Migration Network App"));
    EXPECT_EQ(1, hosted::SessionRegistrations());
    EXPECT_EQ(1, hosted::PowerRegistrations());
    EXPECT_TRUE(session.Saw("10 VornTramsaNet: Get Wtsapi32 functions success"));

    g_pfnDestroyWindow(g_hNotificationWindow);
    EXPECT_EQ(0, hosted::SessionRegistrations());
    EXPECT_EQ(0, hosted::PowerRegistrations());
    MSG message = {};
    EXPECT_TRUE(PeekMessage(&message));
    EXPECT_EQ(WM_QUIT, message.message);
    EXPECT_EQ(0u, message.wParam);
}

TEST_F(NotificationWindow, IsNotMadeWithoutItsFunctionsButWithoutTheOptionalOnes)
{
    static const struct {
        const char *pszFunction;
        int         nResult;
    } aCases[] = {{"LoadIconW", 0},      {"LoadCursorW", 0},
                  {"RegisterClassExW", 0}, {"CreateWindowExW", 0},
                  {"ChangeWindowMessageFilterEx", 1}, {"RegisterPowerSettingNotification", 1},
                  {"RegisterWindowMessageW", 1}};
    for (const auto &c : aCases) {
        UnbindUser32Functions();
        FreshMachine();
        hosted::RemoveFunction("user32.dll", c.pszFunction);
        ASSERT_EQ(1, BindUser32Functions());
        EXPECT_EQ(c.nResult, CreateNotificationWindow(nullptr)) << c.pszFunction;
        EXPECT_EQ(c.nResult, hosted::OpenWindows()) << c.pszFunction;
        if (c.nResult) g_pfnDestroyWindow(g_hNotificationWindow);
        EXPECT_EQ(0, hosted::SessionRegistrations()) << c.pszFunction;
        ForgetNotificationWindow();
    }
    UnbindUser32Functions();
    FreshMachine();
    hosted::RemoveLibrary("Wtsapi32.dll");
    ASSERT_EQ(1, BindUser32Functions());
    EXPECT_EQ(1, CreateNotificationWindow(nullptr));
    EXPECT_EQ(0, hosted::SessionRegistrations());
}

TEST_F(NotificationWindow, TheControlMessageAnnouncesTheAgentAgain)
{
    FakeService  service;
    TraceSession session;
    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    Send(g_dwControlMessage, 816, 1);
    EXPECT_EQ(std::vector<std::string>{"816 1"}, Reports(&service));
    EXPECT_TRUE(session.Saw(
        "16 VornTramsaNet: Receive \"VORN Migration Control Notification to Net\" message, wParam 816, lParam 1"));
    for (const auto &[wParam, lParam] : {std::pair<WPARAM, LPARAM>{816, 2}, {817, 1}, {816 | (1ull << 32), 1}}) {
        Send(g_dwControlMessage, wParam, lParam);
        EXPECT_TRUE(Reports(&service).empty()) << wParam << " " << lParam;
    }
}

TEST_F(NotificationWindow, AConsoleDisconnectActsOnceAndReportsOnlyALink)
{
    // No thread is started here: each attempt is one (the role's reset, and the release when there is a link).
    static const struct {
        std::atomic<SOCKET> *pSocket; // null: no link
        int                  nThreads;
    } aCases[] = {{nullptr, 1}, {&g_ServerSrvSocket, 2}, {&g_ServerSendSocket, 2}, {&g_ClientRecvSocket, 2}};
    FakeService service;
    ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    for (const auto &c : aCases) {
        hosted::ClearFaults();
        hosted::FailCall("CreateThread", 1, 8, true);
        g_ullLastConnectRequest = 0;
        if (c.pSocket != nullptr) *c.pSocket = 12345;
        Deliver(2);
        EXPECT_EQ(c.nThreads, hosted::CallCount("CreateThread"));
        EXPECT_NE(0u, g_ullLastConnectRequest);
        EXPECT_EQ(c.pSocket != nullptr ? std::vector<std::string>{"818 102"} : std::vector<std::string>{},
                  Reports(&service));
        Deliver(2); // again, without a connect in between
        EXPECT_EQ(c.nThreads, hosted::CallCount("CreateThread"));
        EXPECT_TRUE(Reports(&service).empty());
        if (c.pSocket != nullptr) *c.pSocket = INVALID_SOCKET;
        Deliver(1);
    }
}

TEST_F(NotificationWindow, EndsItsLoopByPostedDestroyAndByEndOfSession)
{
    for (const bool bPosted : {true, false}) {
        ASSERT_EQ(1, CreateNotificationWindow(nullptr));
        if (bPosted) {
            EXPECT_EQ(1, PostAgentExit());
        } else {
            Send(WM_ENDSESSION, 1);
        }
        MSG message = {};
        while (g_pfnGetMessageW(&message, nullptr, 0, 0) != 0) g_pfnDispatchMessageW(&message);
        EXPECT_EQ(WM_QUIT, message.message);
        EXPECT_EQ(0, hosted::SessionRegistrations());
        EXPECT_EQ(0, hosted::PowerRegistrations());
        EXPECT_EQ(bPosted ? 1 : 0, hosted::OpenWindows()); // a posted message destroys nothing
        if (bPosted) g_pfnDestroyWindow(g_hNotificationWindow);
        while (PeekMessage(&message)) {}
        ForgetNotificationWindow();
        EXPECT_EQ(0, PostAgentExit());
    }
}

class NotificationWindowLink : public NetTest {
protected:
    void SetUp() override
    {
        NetTest::SetUp();
        ASSERT_EQ(1, BindUser32Functions());
        ASSERT_EQ(1, CreateNotificationWindow(nullptr));
    }
    void TearDown() override
    {
        MSG message;
        g_pfnDestroyWindow(g_hNotificationWindow);
        g_pfnGetMessageW(&message, nullptr, 0, 0); // WM_QUIT
        ForgetNotificationWindow();
        UnbindUser32Functions();
        NetTest::TearDown();
    }
    // One event through the window's loop, and what it started has ended.
    static void Deliver(WPARAM wParam)
    {
        MSG message = {};
        EXPECT_EQ(1, hosted::BroadcastSessionChange(wParam));
        EXPECT_TRUE(g_pfnGetMessageW(&message, nullptr, 0, 0));
        g_pfnDispatchMessageW(&message);
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    }
};

TEST_F(NotificationWindowLink, AConsoleDisconnectEndsTheLinkAndTheServiceHearsItOnce)
{
    MarkRoleStarted(&g_Session, true);
    Peer peer = OpenServedLink();
    Deliver(WTS_CONSOLE_DISCONNECT);
    EXPECT_EQ(0, g_bServer);
    EXPECT_EQ(0u, g_Session.bServerStarted);
    EXPECT_EQ("", peer.Receive(1)) << "closed";
    EXPECT_TRUE(Reported(818, 102));
    Deliver(WTS_CONSOLE_CONNECT);
    Deliver(WTS_CONSOLE_DISCONNECT); // no link any more
    EXPECT_TRUE(Queued().empty());
    EXPECT_EQ(1u, m_aSeen.size());
}
