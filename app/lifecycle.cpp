// lifecycle.cpp: the main thread from entry to exit.
// Every wait for a thread's end is bounded, so threads may outlive what is taken down here. They own their argument
// blocks and duplicate the handles they wait on; lists, locks and queues close instead of being freed (their headers
// say how); libraries stay mapped while a call is in them.
#include "app/lifecycle.h"
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/command_pipe_server.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/machine_info.h"
#include "net/role_end.h"
#include "net/session_control.h"
#include "net/settings.h"
#include "platform/detached_thread.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <new>

using namespace platform;

HANDLE g_hServiceExitEvent = nullptr;

struct WatcherBlock {
    HANDLE hServiceExit;
    HANDLE hStop;
};

struct ServiceThreads {
    HANDLE hPipeServer;
    HANDLE hQueueSender;
};

bool IsUninstallCommandLine(const char16_t *pszCommandLine)
{
    int32_t    nArgs    = 0;
    char16_t **ppszArgs = CommandLineToArgvW(pszCommandLine, &nArgs);
    if (ppszArgs == nullptr) return false;
    const bool bUninstall = nArgs >= 2 && CompareTextW(ppszArgs[1], u"-uninstall") == 0;
    LocalFree(ppszArgs);
    return bUninstall;
}

// ---- the single instance ----

// Has the running instance announce itself to the service again: somebody wanted an agent, and it is there.
static void NotifyRunningInstance()
{
    BindUser32Functions();
    const FindWindowWProc  pfnFindWindowW  = g_pfnFindWindowW;
    const PostMessageWProc pfnPostMessageW = g_pfnPostMessageW;
    if (pfnFindWindowW != nullptr && pfnPostMessageW != nullptr) {
        const HWND hWnd = pfnFindWindowW(WINDOW_CLASS_NAME, WINDOW_TITLE);
        if (hWnd != nullptr)
            pfnPostMessageW(hWnd, g_dwControlMessage, CONTROL_ANNOUNCE_WPARAM, CONTROL_ANNOUNCE_LPARAM);
    }
    UnbindUser32Functions();
}

// True when no other instance holds the event any more.
static bool AwaitPreviousInstance()
{
    const uint64_t ullStart = GetTickCount64();
    HANDLE         hEvent   = nullptr;
    while ((hEvent = OpenEventW(SYNCHRONIZE, FALSE, APP_EVENT_NAME)) != nullptr) {
        const bool bShuttingDown = WaitForSingleObject(hEvent, 0) == WAIT_OBJECT_0;
        CloseHandle(hEvent);
        if (!bShuttingDown) {
            NotifyRunningInstance();
            return false;
        }
        if (GetTickCount64() - ullStart > PREVIOUS_INSTANCE_WAIT_MS) return false;
        Sleep(PREVIOUS_INSTANCE_STEP_MS);
    }
    return true;
}

// True when this process is the instance; g_hAppEvent is null then only if the event could not be made.
static bool BecomeTheInstance()
{
    g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, APP_EVENT_NAME);
    if (GetLastError() != ERROR_ALREADY_EXISTS) return true;
    NotifyRunningInstance(); // another start was faster
    CloseHandle(g_hAppEvent);
    g_hAppEvent = nullptr;
    return false;
}

// ---- threads ----

static uint32_t ServiceExitWatcherThread(void *pBlock)
{
    auto        *pWatcher = static_cast<WatcherBlock *>(pBlock);
    const HANDLE ahWait[] = {pWatcher->hServiceExit, pWatcher->hStop};
    if (WaitForMultipleObjects(2, ahWait, FALSE, INFINITE) == WAIT_OBJECT_0) PostAgentExit();
    CloseHandle(pWatcher->hServiceExit);
    CloseHandle(pWatcher->hStop);
    delete pWatcher;
    return 0;
}

static HANDLE DuplicateOwnHandle(HANDLE hSource)
{
    HANDLE hCopy = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), hSource, GetCurrentProcess(), &hCopy, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        return nullptr;
    }
    return hCopy;
}

static void StartServiceExitWatcher()
{
    if (g_hServiceExitEvent == nullptr) return; // nothing to watch
    auto *pBlock =
        new (std::nothrow) WatcherBlock{DuplicateOwnHandle(g_hServiceExitEvent), DuplicateOwnHandle(g_hAppEvent)};
    if (pBlock == nullptr) return;
    if (pBlock->hServiceExit != nullptr && pBlock->hStop != nullptr &&
        StartDetachedThread(ServiceExitWatcherThread, pBlock))
        return;
    if (pBlock->hServiceExit != nullptr) CloseHandle(pBlock->hServiceExit);
    if (pBlock->hStop != nullptr) CloseHandle(pBlock->hStop);
    delete pBlock;
}

// The user's name in the machine's info needs an answer that a domain may keep waiting for; a session has ten seconds.
static uint32_t UserLookUpThread(void *)
{
    char16_t szSid[MACHINE_TEXT_UNITS];
    GetCurrentUserSid(szSid);
    return 0;
}

// Starts both threads of the service's pipes and waits until the agent's pipe can be connected to, which the service is
// then told. If that takes longer, the message loop does not wait for it and the pipe's server says so.
static void StartServiceThreads(ServiceThreads *pThreads)
{
    const HANDLE hStartup  = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_hStartupEvent        = hStartup;
    g_bReadyUnsaid         = true;
    pThreads->hPipeServer  = CreateThread(nullptr, 0, CommandPipeServerThread, nullptr, 0, nullptr);
    pThreads->hQueueSender = CreateThread(nullptr, 0, ServicePipeSenderThread, nullptr, 0, nullptr);
    if (hStartup == nullptr) return;
    WaitForSingleObject(hStartup, PIPE_READY_WAIT_MS);
    // Taken by the server, it is about to be signalled; closing it earlier would leave the server with a stale handle.
    if (g_hStartupEvent.exchange(nullptr) == nullptr) {
        WaitForSingleObject(hStartup, INFINITE);
        SayReady();
    }
    CloseHandle(hStartup);
}

static void AwaitThreadEnd(HANDLE hThread)
{
    if (hThread == nullptr) return;
    WaitForSingleObject(hThread, THREAD_END_WAIT_MS);
    CloseHandle(hThread);
}

static void EndTransfers()
{
    const uint64_t ullStart = GetTickCount64();
    // Again at each look: a request that was being taken when the agent's end began may have put its worker on the list
    // since.
    while (CancelAllThreadExecutions() && GetTickCount64() - ullStart <= TRANSFERS_END_WAIT_MS) {
        Sleep(TRANSFERS_END_STEP_MS);
    }
}

// ---- entry to exit ----

static void RunMessageLoop()
{
    const GetMessageWProc      pfnGetMessageW      = g_pfnGetMessageW;
    const TranslateMessageProc pfnTranslateMessage = g_pfnTranslateMessage;
    const DispatchMessageWProc pfnDispatchMessageW = g_pfnDispatchMessageW;
    MSG                        message             = {};
    if (pfnGetMessageW == nullptr || pfnTranslateMessage == nullptr || pfnDispatchMessageW == nullptr) return;
    while (pfnGetMessageW(&message, nullptr, 0, 0) != 0) {
        pfnTranslateMessage(&message);
        pfnDispatchMessageW(&message);
    }
}

static void StartUp()
{
    RegisterTraceProviders();
    TraceProcessStart();
    if (g_hAppEvent == nullptr) return; // nothing is bound, so no window, no threads: the agent ends at once
    g_hServiceExitEvent = OpenEventW(SYNCHRONIZE, FALSE, SERVICE_EXIT_EVENT_NAME);
    BindUser32Functions();
    BindShell32Functions();
    GetConfigPath();
    InitThreadExecutionList();
}

static void ServeUntilDestroyed()
{
    ServiceThreads threads = {};
    StartServiceExitWatcher();
    StartDetachedThread(UserLookUpThread, nullptr);
    StartServiceThreads(&threads);
    RunMessageLoop();

    SetEvent(g_hAppEvent);
    AwaitThreadEnd(threads.hQueueSender);
    AwaitThreadEnd(threads.hPipeServer);
}

static void ShutDown()
{
    EndTransfers();
    DeleteThreadExecutionList();
    disconnect();
    ReleaseShell32Functions();
    ForgetNotificationWindow();
    UnbindUser32Functions();
    if (g_hServiceExitEvent != nullptr) CloseHandle(g_hServiceExitEvent);
    g_hServiceExitEvent    = nullptr;
    const HANDLE hAppEvent = g_hAppEvent.exchange(nullptr);
    if (hAppEvent != nullptr) CloseHandle(hAppEvent);
    TraceProcessEnd();
    UnregisterTraceProviders();
}

int32_t RunAgent(HINSTANCE hInstance)
{
    if (IsUninstallCommandLine(GetCommandLineW())) {
        GetConfigPath();
        DeleteFileA(g_szConfigPath);
        return 0;
    }
    if (!AwaitPreviousInstance() || !BecomeTheInstance()) return 0;
    StartUp();
    if (CreateNotificationWindow(hInstance)) ServeUntilDestroyed();
    ShutDown();
    return 0;
}
