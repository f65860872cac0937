// user_interface.cpp: nothing to forward: user32, shell32 and Wtsapi32 are bound at run time through modules.h. What
// the bound functions are given is compared with the SDK here.
#include "platform/user_interface.h"
#include "platform/windows/mirror.h"

#define MIRRORED(X)                                                                                                    \
    X(WM_DESTROY)                                                                                                      \
    X(WM_CLOSE)                                                                                                        \
    X(WM_QUIT) X(WM_ENDSESSION) X(WM_POWERBROADCAST) X(WM_WTSSESSION_CHANGE) X(WM_USER) X(PBT_APMQUERYSUSPENDFAILED)   \
        X(PBT_APMSUSPEND) X(PBT_APMRESUMEAUTOMATIC) X(WTS_CONSOLE_CONNECT) X(WTS_CONSOLE_DISCONNECT)                   \
            X(WTS_SESSION_LOCK) X(WTS_SESSION_UNLOCK) X(NOTIFY_FOR_THIS_SESSION) X(CS_VREDRAW) X(CS_HREDRAW)           \
                X(WS_OVERLAPPEDWINDOW) X(CW_USEDEFAULT) X(MSGFLT_ALLOW) X(DEVICE_NOTIFY_WINDOW_HANDLE) X(SW_HIDE)      \
                    X(FO_DELETE) X(FOF_SILENT) X(FOF_NOCONFIRMATION) X(FOF_NOERRORUI)
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include <shellapi.h>
#include <wtsapi32.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
MIRROR_SIZE(MSG)
MIRROR_FIELD(MSG, hwnd)
MIRROR_FIELD(MSG, message)
MIRROR_FIELD(MSG, wParam)
MIRROR_FIELD(MSG, lParam)
MIRROR_FIELD(MSG, time)
MIRROR_FIELD(MSG, pt)
MIRROR_SIZE(WNDCLASSEXW)
MIRROR_FIELD(WNDCLASSEXW, cbSize)
MIRROR_FIELD(WNDCLASSEXW, style)
MIRROR_FIELD(WNDCLASSEXW, lpfnWndProc)
MIRROR_FIELD(WNDCLASSEXW, cbClsExtra)
MIRROR_FIELD(WNDCLASSEXW, cbWndExtra)
MIRROR_FIELD(WNDCLASSEXW, hInstance)
MIRROR_FIELD(WNDCLASSEXW, hIcon)
MIRROR_FIELD(WNDCLASSEXW, hCursor)
MIRROR_FIELD(WNDCLASSEXW, hbrBackground)
MIRROR_FIELD(WNDCLASSEXW, lpszMenuName)
MIRROR_FIELD(WNDCLASSEXW, lpszClassName)
MIRROR_FIELD(WNDCLASSEXW, hIconSm)
MIRROR_SIZE(SHFILEOPSTRUCTW)
MIRROR_FIELD(SHFILEOPSTRUCTW, hwnd)
MIRROR_FIELD(SHFILEOPSTRUCTW, wFunc)
MIRROR_FIELD(SHFILEOPSTRUCTW, pFrom)
MIRROR_FIELD(SHFILEOPSTRUCTW, pTo)
MIRROR_FIELD(SHFILEOPSTRUCTW, fFlags)
MIRROR_FIELD(SHFILEOPSTRUCTW, fAnyOperationsAborted)
MIRROR_FIELD(SHFILEOPSTRUCTW, hNameMappings)
MIRROR_FIELD(SHFILEOPSTRUCTW, lpszProgressTitle)
} // namespace mirror
