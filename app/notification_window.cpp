// notification_window.cpp: the hidden window and its procedure.
// WM_DESTROY reaches the procedure both when the window is destroyed (end of session) and as a plain posted message
// (exit asked for by the service, or by a process of lower standing that the message filter lets through). Both end the
// agent.
#include "app/notification_window.h"
#include "app/user_interface_table.h"
#include "ipc/ipc_message.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/session_control.h"
#include "platform/detached_thread.h"
#include "platform/modules.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "trace/trace_log.h"

using namespace platform;

static constexpr int32_t  ERROR_LINK_BROKEN       = 102; // of code 818
static constexpr uint32_t CONNECT_MODE_DISCONNECT = 3;
static constexpr uint32_t REGISTRATION_PAUSE_MS   = 1000;
static constexpr uint32_t REGISTRATION_TRIES      = 300;
static_assert(CONTROL_ANNOUNCE_WPARAM == NTOS_IPCREADY);

std::atomic<HWND> g_hNotificationWindow{nullptr};

// Main thread.
static SystemState g_SystemState = {1, 1, 0};
static HMODULE     g_hWtsapi32;
static HANDLE      g_hPowerNotification;

SystemState GetSystemState()
{
    return g_SystemState;
}

static bool HasPeerSocket()
{
    return g_ServerSrvSocket != INVALID_SOCKET || g_ServerSendSocket != INVALID_SOCKET ||
           g_ClientRecvSocket != INVALID_SOCKET;
}

static void OnControlMessage(WPARAM wParam, LPARAM lParam)
{
    TraceWindowMessage(static_cast<uint32_t>(wParam), static_cast<uint32_t>(lParam));
    if (wParam == CONTROL_ANNOUNCE_WPARAM && lParam == CONTROL_ANNOUNCE_LPARAM) {
        CallServiceNamedPipe(NTOS_IPCREADY, 1, 0, 0, nullptr, nullptr, nullptr);
    }
}

static void OnDestroy(HWND hWnd)
{
    const UnregisterPowerSettingNotificationProc pfnUnregister = g_pfnUnregisterPowerSettingNotification;
    if (g_hPowerNotification != nullptr && pfnUnregister != nullptr) pfnUnregister(g_hPowerNotification);
    g_hPowerNotification = nullptr;
    if (g_hWtsapi32 != nullptr) {
        const auto pfnUnregisterSession = reinterpret_cast<WTSUnRegisterSessionNotificationProc>(
            GetProcAddress(g_hWtsapi32, "WTSUnRegisterSessionNotification"));
        if (pfnUnregisterSession != nullptr) pfnUnregisterSession(hWnd);
        FreeLibrary(g_hWtsapi32);
        g_hWtsapi32 = nullptr;
    }
    const PostQuitMessageProc pfnPostQuitMessage = g_pfnPostQuitMessage;
    if (pfnPostQuitMessage != nullptr) pfnPostQuitMessage(0);
}

static void OnPowerBroadcast(WPARAM wParam)
{
    if (wParam == PBT_APMSUSPEND) g_SystemState.bSuspended = 1;
    if (wParam == PBT_APMQUERYSUSPENDFAILED || wParam == PBT_APMRESUMEAUTOMATIC) g_SystemState.bSuspended = 0;
}

static void OnConsoleDisconnect()
{
    if (!g_SystemState.bConsoleConnected) return;
    g_SystemState.bConsoleConnected = 0;
    // Looked at first: the thread that is started next closes the sockets.
    const bool bPeerSocket = HasPeerSocket();
    StartNetworkConnect(CONNECT_MODE_DISCONNECT, 0);
    if (bPeerSocket) {
        StartReleaseNetwork();
        CallServiceNamedPipe(NTOS_ERRORCONTROL, ERROR_LINK_BROKEN, 0, 0, nullptr, nullptr, nullptr);
    }
}

static void OnSessionChange(WPARAM wParam)
{
    switch (wParam) {
    case WTS_CONSOLE_CONNECT: g_SystemState.bConsoleConnected = 1; break;
    case WTS_CONSOLE_DISCONNECT: OnConsoleDisconnect(); break;
    case WTS_SESSION_UNLOCK: g_SystemState.bSessionUnlocked = 1; break;
    case WTS_SESSION_LOCK: g_SystemState.bSessionUnlocked = 0; break;
    default: break;
    }
}

static LRESULT WindowProcedure(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam)
{
    if (uMsg == g_dwControlMessage && g_dwControlMessage != 0) {
        OnControlMessage(wParam, lParam);
    } else if (uMsg == WM_DESTROY) {
        OnDestroy(hWnd);
    } else if (uMsg == WM_ENDSESSION) {
        const DestroyWindowProc pfnDestroyWindow = g_pfnDestroyWindow;
        if (pfnDestroyWindow != nullptr) pfnDestroyWindow(hWnd);
    } else if (uMsg == WM_POWERBROADCAST) {
        OnPowerBroadcast(wParam);
    } else if (uMsg == WM_WTSSESSION_CHANGE) {
        OnSessionChange(wParam);
    }
    const DefWindowProcWProc pfnDefWindowProcW = g_pfnDefWindowProcW;
    return pfnDefWindowProcW != nullptr ? pfnDefWindowProcW(hWnd, uMsg, wParam, lParam) : 0;
}

static HWND MakeWindow(HINSTANCE hInstance)
{
    WNDCLASSEXW windowClass   = {};
    windowClass.cbSize        = sizeof(windowClass);
    windowClass.style         = CS_HREDRAW | CS_VREDRAW;
    windowClass.lpfnWndProc   = WindowProcedure;
    windowClass.hInstance     = hInstance;
    windowClass.hCursor       = g_pfnLoadCursorW.load()(nullptr, IDC_ARROW);
    windowClass.lpszClassName = WINDOW_CLASS_NAME;
    g_pfnRegisterClassExW.load()(&windowClass); // a failure shows in the next call
    return g_pfnCreateWindowExW.load()(0, WINDOW_CLASS_NAME, WINDOW_TITLE, WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, 0,
                                       CW_USEDEFAULT, 0, nullptr, nullptr, hInstance, nullptr);
}

// Asks again for the session's notifications until they are granted, has a reference of its own to the library, and
// ends with the agent. A window that has gone meanwhile is refused.
static uint32_t SessionRegistrationThread(void *pWindow)
{
    const HMODULE hWtsapi32 = LoadSystemLibrary(u"Wtsapi32.dll");
    if (hWtsapi32 == nullptr) return 0;
    const auto pfnRegisterSession = reinterpret_cast<WTSRegisterSessionNotificationProc>(
        GetProcAddress(hWtsapi32, "WTSRegisterSessionNotification"));
    for (uint32_t n = 0; n < REGISTRATION_TRIES && !WaitForStop(REGISTRATION_PAUSE_MS); n++) {
        if (g_hNotificationWindow != pWindow || pfnRegisterSession == nullptr) break;
        if (pfnRegisterSession(pWindow, NOTIFY_FOR_THIS_SESSION)) break;
    }
    FreeLibrary(hWtsapi32);
    return 0;
}

static void RegisterForSession(HWND hWnd)
{
    if (g_hWtsapi32 == nullptr) g_hWtsapi32 = LoadSystemLibrary(u"Wtsapi32.dll");
    if (g_hWtsapi32 == nullptr) return;
    const auto pfnRegisterSession = reinterpret_cast<WTSRegisterSessionNotificationProc>(
        GetProcAddress(g_hWtsapi32, "WTSRegisterSessionNotification"));
    if (pfnRegisterSession == nullptr) return;
    TraceText("Get Wtsapi32 functions success");
    // Early in a logon the services behind the call may not run yet (RPC_S_INVALID_BINDING): no reason to stay deaf to
    // a console disconnect for the whole session.
    if (!pfnRegisterSession(hWnd, NOTIFY_FOR_THIS_SESSION)) StartDetachedThread(SessionRegistrationThread, hWnd);
}

int32_t CreateNotificationWindow(HINSTANCE hInstance)
{
    if (g_pfnLoadIconW == nullptr || g_pfnLoadCursorW == nullptr || g_pfnRegisterClassExW == nullptr ||
        g_pfnCreateWindowExW == nullptr) {
        return 0;
    }
    g_SystemState   = {1, 1, 0};
    const HWND hWnd = MakeWindow(hInstance);
    if (hWnd == nullptr) return 0;
    g_hNotificationWindow = hWnd;
    RegisterForSession(hWnd);

    const ChangeWindowMessageFilterExProc pfnChangeFilter = g_pfnChangeWindowMessageFilterEx;
    if (pfnChangeFilter != nullptr) {
        if (g_dwControlMessage != 0) pfnChangeFilter(hWnd, g_dwControlMessage, MSGFLT_ALLOW, nullptr);
        pfnChangeFilter(hWnd, WM_DESTROY, MSGFLT_ALLOW, nullptr);
    }
    const RegisterPowerSettingNotificationProc pfnRegisterPower = g_pfnRegisterPowerSettingNotification;
    if (pfnRegisterPower != nullptr) {
        g_hPowerNotification = pfnRegisterPower(hWnd, &GUID_MONITOR_POWER_ON, DEVICE_NOTIFY_WINDOW_HANDLE);
    }
    return 1;
}

void ForgetNotificationWindow()
{
    g_hNotificationWindow = nullptr;
}

int32_t PostAgentExit()
{
    int32_t bPosted = 0;
    EnterBoundCall();
    const HWND             hWnd            = g_hNotificationWindow;
    const PostMessageWProc pfnPostMessageW = g_pfnPostMessageW;
    if (hWnd != nullptr && pfnPostMessageW != nullptr) bPosted = pfnPostMessageW(hWnd, WM_DESTROY, 0, 0) != 0;
    LeaveBoundCall();
    return bPosted;
}
