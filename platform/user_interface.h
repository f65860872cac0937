// user_interface.h: types, constants and function types of user32, shell32 and Wtsapi32. Nothing here is linked: every
// function is reached through LoadLibraryW and GetProcAddress (modules.h).
#pragma once
#include "platform/types.h"

namespace platform {

using WNDPROC = LRESULT (*)(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam);

struct POINT {
    int32_t x;
    int32_t y;
};
struct MSG {
    HWND     hwnd;
    uint32_t message;
    WPARAM   wParam;
    LPARAM   lParam;
    uint32_t time;
    POINT    pt;
};
static_assert(sizeof(MSG) == 48, "the SDK's size");

struct WNDCLASSEXW {
    uint32_t        cbSize;
    uint32_t        style;
    WNDPROC         lpfnWndProc;
    int32_t         cbClsExtra;
    int32_t         cbWndExtra;
    HINSTANCE       hInstance;
    HICON           hIcon;
    HCURSOR         hCursor;
    HBRUSH          hbrBackground;
    const char16_t *lpszMenuName;
    const char16_t *lpszClassName;
    HICON           hIconSm;
};
static_assert(sizeof(WNDCLASSEXW) == 80, "the SDK's size");

struct SHFILEOPSTRUCTW {
    HWND            hwnd;
    uint32_t        wFunc;
    const char16_t *pFrom;
    const char16_t *pTo;
    uint16_t        fFlags;
    BOOL            fAnyOperationsAborted;
    void           *hNameMappings;
    const char16_t *lpszProgressTitle;
};

constexpr uint32_t WM_DESTROY = 0x0002, WM_CLOSE = 0x0010, WM_QUIT = 0x0012, WM_ENDSESSION = 0x0016,
                   WM_POWERBROADCAST = 0x0218, WM_WTSSESSION_CHANGE = 0x02B1, WM_USER = 0x0400;
constexpr WPARAM   PBT_APMQUERYSUSPENDFAILED = 0x0002, PBT_APMSUSPEND = 0x0004, PBT_APMRESUMEAUTOMATIC = 0x0012;
constexpr WPARAM   WTS_CONSOLE_CONNECT = 1, WTS_CONSOLE_DISCONNECT = 2, WTS_SESSION_LOCK = 7, WTS_SESSION_UNLOCK = 8;
constexpr uint32_t NOTIFY_FOR_THIS_SESSION = 0;
constexpr uint32_t CS_VREDRAW = 0x0001, CS_HREDRAW = 0x0002;
constexpr uint32_t WS_OVERLAPPEDWINDOW         = 0x00CF0000;
constexpr int32_t  CW_USEDEFAULT               = static_cast<int32_t>(0x80000000);
constexpr uint32_t MSGFLT_ALLOW                = 1;
constexpr uint32_t DEVICE_NOTIFY_WINDOW_HANDLE = 0;
constexpr int32_t  SW_HIDE                     = 0;
constexpr uint32_t FO_DELETE                   = 0x0003;
constexpr uint16_t FOF_SILENT = 0x0004, FOF_NOCONFIRMATION = 0x0010, FOF_NOERRORUI = 0x0400;
inline const char16_t *const IDC_ARROW = reinterpret_cast<const char16_t *>(static_cast<uintptr_t>(32512));

inline constexpr GUID GUID_MONITOR_POWER_ON = {
    0x02731015, 0x4510, 0x4526, {0x99, 0xE6, 0xE5, 0xA1, 0x7E, 0xBD, 0x1A, 0xEA}};

// user32
using RegisterWindowMessageWProc = uint32_t (*)(const char16_t *);
using PostMessageWProc           = BOOL (*)(HWND, uint32_t, WPARAM, LPARAM);
using FindWindowWProc            = HWND (*)(const char16_t *, const char16_t *);
using LoadIconWProc              = HICON (*)(HINSTANCE, const char16_t *);
using LoadCursorWProc            = HCURSOR (*)(HINSTANCE, const char16_t *);
using RegisterClassExWProc       = ATOM (*)(const WNDCLASSEXW *);
using CreateWindowExWProc  = HWND (*)(uint32_t, const char16_t *, const char16_t *, uint32_t, int32_t, int32_t, int32_t,
                                     int32_t, HWND, HMENU, HINSTANCE, void *);
using PostQuitMessageProc  = void (*)(int32_t);
using DefWindowProcWProc   = LRESULT (*)(HWND, uint32_t, WPARAM, LPARAM);
using GetMessageWProc      = BOOL (*)(MSG *, HWND, uint32_t, uint32_t);
using TranslateMessageProc = BOOL (*)(const MSG *);
using DispatchMessageWProc = LRESULT (*)(const MSG *);
using DestroyWindowProc    = BOOL (*)(HWND);
using RegisterPowerSettingNotificationProc   = HANDLE (*)(HANDLE, const GUID *, uint32_t);
using UnregisterPowerSettingNotificationProc = BOOL (*)(HANDLE);
using ChangeWindowMessageFilterExProc        = BOOL (*)(HWND, uint32_t, uint32_t, void *);
// shell32
using SHFileOperationWProc = int32_t (*)(SHFILEOPSTRUCTW *);
using ShellExecuteAProc    = HINSTANCE (*)(HWND, const char *, const char *, const char *, const char *, int32_t);
// Wtsapi32
using WTSRegisterSessionNotificationProc   = BOOL (*)(HWND, uint32_t);
using WTSUnRegisterSessionNotificationProc = BOOL (*)(HWND);

} // namespace platform
