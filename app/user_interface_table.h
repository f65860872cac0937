// user_interface_table.h: the user32 and shell32 functions that the agent binds at run time; null when not bound.
// Threads  bound and unbound by the main thread; any thread may call through a pointer that it has tested. A thread
//          that can outlive the table (workers at shut-down) reads the pointer once, between EnterBoundCall and
//          LeaveBoundCall:
//              EnterBoundCall();
//              if (const SHFileOperationWProc pfn = g_pfnSHFileOperationW) pfn(&Operation);
//              LeaveBoundCall();
// Lock     none.
#pragma once
#include "platform/user_interface.h"
#include <atomic>
#include <cstdint>

// 0 only when user32 cannot be loaded, else 1; a function that the library lacks stays null. Bound already: nothing is
// loaded or logged a second time. Writes one line per function to the trace log. Main thread.
int32_t BindUser32Functions();
// Clears every pointer of the user32 table and frees the library. 1. Main thread.
int32_t UnbindUser32Functions();
// 0 only when shell32 cannot be loaded, else 1. Main thread.
int32_t BindShell32Functions();
// Frees shell32, when loaded, and clears its five pointers. Main thread.
void ReleaseShell32Functions();

// Round a call through the table by any thread but the main one. A library that is unbound meanwhile loses its pointers
// at once but stays mapped, for the rest of the process, so that the call's code does not vanish under it.
void EnterBoundCall();
void LeaveBoundCall();

constexpr char16_t CONTROL_MESSAGE_NAME[] = u"VORN Migration Control Notification to Net";
// That message, registered; 0 when it could not be registered. Main thread.
extern uint32_t g_dwControlMessage;

extern std::atomic<platform::RegisterWindowMessageWProc>             g_pfnRegisterWindowMessageW;
extern std::atomic<platform::PostMessageWProc>                       g_pfnPostMessageW;
extern std::atomic<platform::FindWindowWProc>                        g_pfnFindWindowW;
extern std::atomic<platform::LoadIconWProc>                          g_pfnLoadIconW;
extern std::atomic<platform::LoadCursorWProc>                        g_pfnLoadCursorW;
extern std::atomic<platform::RegisterClassExWProc>                   g_pfnRegisterClassExW;
extern std::atomic<platform::CreateWindowExWProc>                    g_pfnCreateWindowExW;
extern std::atomic<platform::PostQuitMessageProc>                    g_pfnPostQuitMessage;
extern std::atomic<platform::DefWindowProcWProc>                     g_pfnDefWindowProcW;
extern std::atomic<platform::GetMessageWProc>                        g_pfnGetMessageW;
extern std::atomic<platform::TranslateMessageProc>                   g_pfnTranslateMessage;
extern std::atomic<platform::DispatchMessageWProc>                   g_pfnDispatchMessageW;
extern std::atomic<platform::DestroyWindowProc>                      g_pfnDestroyWindow;
extern std::atomic<platform::RegisterPowerSettingNotificationProc>   g_pfnRegisterPowerSettingNotification;
extern std::atomic<platform::UnregisterPowerSettingNotificationProc> g_pfnUnregisterPowerSettingNotification;
extern std::atomic<platform::ChangeWindowMessageFilterExProc>        g_pfnChangeWindowMessageFilterEx;
extern std::atomic<platform::SHFileOperationWProc>                   g_pfnSHFileOperationW;

// A bound function by its name in the table ("PostMessageW"); null when not bound or not in a table. Main thread.
platform::FARPROC GetBoundFunction(const char *pszName);
