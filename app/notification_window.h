// notification_window.h: the hidden window that receives the control message, session and power notifications and the
// messages that stop the agent.
// Threads  created, pumped and destroyed by the main thread; PostAgentExit may be called from any.
#pragma once
#include "platform/types.h"
#include <atomic>
#include <cstdint>

constexpr char16_t WINDOW_CLASS_NAME[] = u"VORN Migration Network App Class";
constexpr char16_t WINDOW_TITLE[]      = u"VORN Migration Network App";

// A second start posts the control message with these to the running instance, which announces itself to the service
// again.
constexpr platform::WPARAM CONTROL_ANNOUNCE_WPARAM = 0x330;
constexpr platform::LPARAM CONTROL_ANNOUNCE_LPARAM = 1;

// Null when there is none. Written by the main thread.
extern std::atomic<platform::HWND> g_hNotificationWindow;

// 1, or 0 when a needed function is not bound or the window cannot be made. The user32 functions must be bound.
// The state flags start anew.
int32_t CreateNotificationWindow(platform::HINSTANCE hInstance);
// The window is no longer given messages to: called once its message loop has ended.
void ForgetNotificationWindow();
// Posts WM_DESTROY to the window, which ends the message loop. 1 when posted, 0 when there is no window. Any thread.
int32_t PostAgentExit();
// State flags as the window procedure keeps them; for tests, on the window's thread.
struct SystemState {
    uint32_t bConsoleConnected;
    uint32_t bSessionUnlocked;
    uint32_t bSuspended;
};
SystemState GetSystemState();
