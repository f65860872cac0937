// lifecycle_hosted_test.cpp: whole runs of the agent on a thread of this process: start-up, every way out, and the
// bounds.
#include "app/lifecycle.h"
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "net/settings.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/child_process_hosted.h"
#include "tests/support/eventually.h"
#include "tests/trace/trace_session_hosted.h"
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

class Lifecycle : public ServiceTest {
  protected:
    void TearDown() override
    {
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    }
    // The agent on a thread of its own, with whatever the test does meanwhile.
    static void WhileAgentRuns(const std::function<void()> &Meanwhile)
    {
        int32_t     nExitCode = -1;
        std::thread agent([&] { nExitCode = RunAgent(nullptr); });
        Meanwhile();
        agent.join();
        EXPECT_EQ(0, nExitCode);
        EXPECT_EQ(nullptr, g_hAppEvent.load());
        EXPECT_EQ(nullptr, g_hServiceExitEvent);
        EXPECT_EQ(nullptr, g_hNotificationWindow.load());
        EXPECT_EQ(nullptr, g_pfnPostMessageW.load());
        EXPECT_EQ(nullptr, g_pfnSHFileOperationW.load());
        EXPECT_EQ(1, IsThreadExecutionListEmpty());
    }
    static void ExpectAnnounced(FakeService *pService)
    {
        const std::vector<IpcMessage> aRecords = pService->Take();
        ASSERT_EQ(1u, aRecords.size());
        EXPECT_EQ(816u, aRecords[0].dwCommand);
        EXPECT_EQ(1u, aRecords[0].dwParam1);
    }
};

TEST_F(Lifecycle, IsTracedFromStartToEndWhichTheServicesExitEventBrings)
{
    const HANDLE hExit = CreateEventW(nullptr, TRUE, FALSE, u"Global\\VORN VornMigrationService App ExitEvent");
    FakeService  service;
    ASSERT_TRUE(hosted::StartTraceSession(hosted::MachineFolder(), "test", 5, 3));
    WhileAgentRuns([&] {
        ExpectAnnounced(&service);
        SetEvent(hExit);
    });
    CloseHandle(hExit);
    TraceSession                   session;
    const std::vector<std::string> aLines = session.Take();
    ASSERT_GT(aLines.size(), 51u);
    EXPECT_EQ("37 VornTramsaNet: start", aLines.front());
    EXPECT_EQ("36 VornTramsaNet: GetProcAddress \"RegisterWindowMessageW\" success", aLines[1]);
    EXPECT_EQ("36 VornTramsaNet: GetProcAddress \"ShellExecute\" success", aLines[45]);
    EXPECT_EQ("38 VornTramsaNet: end", aLines.back());
}

static const ChildRole g_AgentRole("agent", [](const std::string &) { return static_cast<int>(RunAgent(nullptr)); });

static const ChildRole g_DestroyRole("post destroy", [](const std::string &) {
    BindUser32Functions();
    const HWND hWnd = g_pfnFindWindowW(WINDOW_CLASS_NAME, WINDOW_TITLE);
    return hWnd != nullptr && g_pfnPostMessageW(hWnd, WM_DESTROY, 0, 0) ? 0 : 1;
});

TEST_F(Lifecycle, ASecondStartHasTheFirstAnnounceItselfAgainAlsoFromLowerStanding)
{
    static const struct {
        const char              *pszWay;
        std::vector<std::string> aEnvironment;
    } aCases[] = {{"finds a living instance", {}},
                  {"loses the race for the event", {"VORN_FAULTS=OpenEventW:1:2"}},
                  {"is of lower standing", {"VORN_INTEGRITY=low"}}};
    FakeService service;
    WhileAgentRuns([&] {
        ExpectAnnounced(&service);
        for (const auto &c : aCases) {
            SCOPED_TRACE(c.pszWay);
            ChildProcess second("agent", "", c.aEnvironment);
            ExpectAnnounced(&service);
            EXPECT_EQ(0, second.Wait());
            EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(g_hAppEvent, 0)); // the first goes on
        }
        ChildProcess destroyer("post destroy", "", {"VORN_INTEGRITY=low"}); // the other message that it may send
        if (destroyer.Wait() == 0) return;
        ADD_FAILURE() << "WM_DESTROY is held back";
        PostAgentExit();
    });
}

TEST_F(Lifecycle, UninstallDeletesTheSettingsAlsoWhileAnInstanceLivesAndTracesNothing)
{
    TraceSession session;
    const HANDLE hLiving = CreateEventW(nullptr, TRUE, FALSE, APP_EVENT_NAME);
    GetConfigPath();
    ASSERT_EQ(0, platform::_access(g_szConfigPath, 0));
    ChildProcess child("agent", "", {}, {"-uninstall"});
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(-1, platform::_access(g_szConfigPath, 0));
    EXPECT_TRUE(session.Take().empty());
    CloseHandle(hLiving);
}

TEST_F(Lifecycle, AStartWaitsForAnInstanceThatIsShuttingDownButNotForEver)
{
    hosted::SetClockRate(20);
    HANDLE hOld = CreateEventW(nullptr, TRUE, TRUE, u"VORN Migration Network Application Event");
    hosted::ClearFaults();
    const uint64_t ullStart = GetTickCount64();
    EXPECT_EQ(0, RunAgent(nullptr)); // gives up
    const uint64_t ullWaited = GetTickCount64() - ullStart;
    EXPECT_GT(ullWaited, 3500u);
    EXPECT_GE(hosted::CallCount("OpenEventW"), 10); // looked again and again
    EXPECT_EQ(0, hosted::CallCount("CreateEventW"));

    ResetEvent(hOld);
    hosted::ClearFaults();
    EXPECT_EQ(0, RunAgent(nullptr)); // one that lives is not waited for
    EXPECT_EQ(1, hosted::CallCount("OpenEventW"));

    SetEvent(hOld);
    FakeService service;
    hosted::ClearFaults();
    WhileAgentRuns([&] {
        EXPECT_TRUE(Eventually([] { return hosted::CallCount("OpenEventW") >= 2; }));
        CloseHandle(hOld); // the old instance has gone
        ExpectAnnounced(&service);
        PostAgentExit();
    });
}

TEST_F(Lifecycle, ATransferThatDoesNotEndIsCancelledAndWaitedForAtMost2500Milliseconds)
{
    for (const bool bEnds : {false, true}) {
        SCOPED_TRACE(bEnds ? "ends when cancelled" : "never ends");
        FakeService           service;
        std::atomic<uint32_t> bCancelled{0};
        uint64_t              ullStart = 0;
        hosted::SetClockRate(1);
        WhileAgentRuns([&] {
            ExpectAnnounced(&service);
            const uint64_t ullTransfer = AddThreadExecution();
            SetThreadExecutionFlag(ullTransfer, &bCancelled);
            if (!bEnds) hosted::SetClockRate(20);
            ullStart = GetTickCount64();
            PostAgentExit();
            EXPECT_TRUE(Eventually([&] { return bCancelled != 0; }));
            if (bEnds) { // another one has come after the first cancel
                std::atomic<uint32_t> bLater{0};
                const uint64_t        ullLater = AddThreadExecution();
                SetThreadExecutionFlag(ullLater, &bLater);
                EXPECT_TRUE(Eventually([&] { return bLater != 0; }));
                RemoveThreadExecution(ullLater);
                RemoveThreadExecution(ullTransfer);
            }
        });
        const uint64_t ullTook = GetTickCount64() - ullStart;
        EXPECT_EQ(bEnds, ullTook <= 2500) << ullTook;
    }
}

// The service is told when the pipe is there: not before, also when that takes longer than start-up waits, and never
// when there is none.
TEST_F(Lifecycle, IsReadyOnlyWhenItsPipeIsThere)
{
    const HANDLE hExit = CreateEventW(nullptr, TRUE, FALSE, u"Global\\VORN VornMigrationService App ExitEvent");
    hosted::SetClockRate(10);
    for (const int nFailures : {2, 3}) {
        FakeService service;
        ResetEvent(hExit);
        hosted::ClearFaults();
        for (int n = 1; n <= nFailures; n++) hosted::FailCall("CreateNamedPipeW", n, 5); // 500 ms after each
        WhileAgentRuns([&] {
            const uint64_t ullStart = GetTickCount64();
            if (nFailures == 2) {
                ExpectAnnounced(&service);
                EXPECT_GE(GetTickCount64() - ullStart, 900u) << "two pauses";
                EXPECT_LT(GetTickCount64() - ullStart, 20000u);
            } else {
                EXPECT_TRUE(Eventually([] { return hosted::CallCount("CreateNamedPipeW") >= 3; }));
                EXPECT_TRUE(service.Take(3000).empty());
            }
            SetEvent(hExit);
        });
    }
    CloseHandle(hExit);
}

TEST_F(Lifecycle, StartUpWaits500MillisecondsForAPipeThatDoesNotCome)
{
    hosted::FailCall("CreateNamedPipeW", 1, 5, true);
    const uint64_t ullStart = GetTickCount64();
    WhileAgentRuns([] { EXPECT_TRUE(Eventually([] { return PostAgentExit() == 1; })); });
    EXPECT_GE(GetTickCount64() - ullStart, 500u);
    EXPECT_LT(GetTickCount64() - ullStart, 5000u);
}

TEST_F(Lifecycle, ASenderThatIsStuckInTheServicesPipeIsLeftBehind)
{
    const HANDLE hMutex = CreateMutexW(nullptr, FALSE, SERVICE_MUTEX_NAME);
    HANDLE hPipe = CreateNamedPipeW(SERVICE_PIPE_NAME, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                                    PIPE_UNLIMITED_INSTANCES, 100, 100, 200, nullptr);
    hosted::SetClockRate(20);
    uint64_t ullStart = 0;
    WhileAgentRuns([&] {
        EXPECT_TRUE(Eventually([] { return g_hNotificationWindow != nullptr && hosted::CallCount("WriteFile") > 0; }));
        ullStart = GetTickCount64();
        PostAgentExit();
    });
    EXPECT_GT(GetTickCount64() - ullStart, 2500u - 40);
    EXPECT_EQ(1, hosted::LiveThreads());
    CloseHandle(hPipe); // now its write fails
    CloseHandle(hMutex);
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
}
