// window_lifetime.cpp: window classes and windows.
// Differences from Windows: nothing is ever drawn, so styles, places, icons and menus are kept by nobody; there are
// top-level windows only (another parent: ERROR_NOT_SUPPORTED); a window gets WM_NCCREATE, WM_CREATE, WM_DESTROY and
// WM_NCDESTROY of the messages about its own life.
#include "platform/errors.h"
#include "platform/hosted/desktop/user_interface_functions.h"
#include "platform/hosted/desktop/window_queues.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include <map>
#include <memory>
#include <string>
#include <unistd.h>

namespace hosted {
namespace {

constexpr uint32_t WM_CREATE = 0x0001, WM_QUERYENDSESSION = 0x0011, WM_NCCREATE = 0x0081, WM_NCDESTROY = 0x0082;
constexpr uint32_t ERROR_CANNOT_FIND_WND_CLASS = 1407, ERROR_CLASS_ALREADY_EXISTS = 1410;

// CREATESTRUCTW, to which WM_NCCREATE's and WM_CREATE's lParam points.
struct CreateStruct {
    void               *lpCreateParams;
    platform::HINSTANCE hInstance;
    platform::HMENU     hMenu;
    platform::HWND      hwndParent;
    int32_t             cy, cx, y, x, style;
    const char16_t     *lpszName, *lpszClass;
    uint32_t            dwExStyle;
};

struct WindowClass {
    std::u16string    sName;
    platform::ATOM    nAtom;
    platform::WNDPROC pProcedure;
};

struct Classes {
    std::mutex               mutex; // guards what follows
    std::vector<WindowClass> aClasses;
};

Classes &TheClasses()
{
    static Classes &s_Classes = *new Classes;
    return s_Classes;
}

// Window classes belong to the process; a machine change is a new program to them.
const OnUseMachine g_Reset([] {
    const std::lock_guard<std::mutex> guard(TheClasses().mutex);
    TheClasses().aClasses.clear();
});

// A class is named by text or by its atom.
bool FindClass(const char16_t *pszClass, WindowClass *pFound)
{
    const auto                        nAtom = reinterpret_cast<uintptr_t>(pszClass);
    const std::lock_guard<std::mutex> guard(TheClasses().mutex);
    for (const WindowClass &windowClass : TheClasses().aClasses) {
        if (nAtom <= 0xFFFF ? nAtom == windowClass.nAtom
                            : platform::CompareTextNoCaseW(pszClass, windowClass.sName.c_str()) == 0) {
            *pFound = windowClass;
            return true;
        }
    }
    return false;
}

bool NameMatches(const char16_t *pszWanted, const std::u16string &sName)
{
    return pszWanted == nullptr || platform::CompareTextNoCaseW(pszWanted, sName.c_str()) == 0;
}

} // namespace

namespace user32 {

ATOM RegisterClassExW(const WNDCLASSEXW *pClass)
{
    if (FailsNow("RegisterClassExW")) return 0;
    if (pClass == nullptr || pClass->cbSize != sizeof(WNDCLASSEXW) || pClass->lpfnWndProc == nullptr ||
        reinterpret_cast<uintptr_t>(pClass->lpszClassName) <= 0xFFFF) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    WindowClass windowClass{};
    if (FindClass(pClass->lpszClassName, &windowClass)) {
        SetError(ERROR_CLASS_ALREADY_EXISTS);
        return 0;
    }
    windowClass = {pClass->lpszClassName, AtomOf(pClass->lpszClassName), pClass->lpfnWndProc};
    if (windowClass.nAtom == 0) return 0;
    const std::lock_guard<std::mutex> guard(TheClasses().mutex);
    TheClasses().aClasses.push_back(windowClass);
    return windowClass.nAtom;
}

HWND CreateWindowExW(uint32_t dwExStyle, const char16_t *pszClass, const char16_t *pszTitle, uint32_t dwStyle,
                     int32_t x, int32_t y, int32_t cx, int32_t cy, HWND hParent, HMENU hMenu, HINSTANCE hInstance,
                     void *pParam)
{
    if (FailsNow("CreateWindowExW")) return nullptr;
    WindowClass windowClass{};
    if (!FindClass(pszClass, &windowClass)) {
        SetError(ERROR_CANNOT_FIND_WND_CLASS);
        return nullptr;
    }
    if (hParent != nullptr) {
        SetError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    auto pWindow                = std::make_shared<Window>();
    pWindow->pProcedure         = windowClass.pProcedure;
    pWindow->pQueue             = OwnQueue();
    pWindow->record.dwProcessId = GetCurrentProcessId();
    pWindow->record.dwThreadId  = GetCurrentThreadId();
    pWindow->record.sClass      = windowClass.sName;
    pWindow->record.sTitle      = pszTitle == nullptr ? u"" : pszTitle;
    const int nFd               = AddWindow(&pWindow->record);
    if (nFd < 0) return nullptr;
    pWindow->pSocket = std::make_shared<Descriptor>(nFd);
    KeepWindow(pWindow);
    CreateStruct create{pParam,
                        hInstance,
                        hMenu,
                        hParent,
                        cy,
                        cx,
                        y,
                        x,
                        static_cast<int32_t>(dwStyle),
                        pWindow->record.sTitle.c_str(),
                        windowClass.sName.c_str(),
                        dwExStyle};
    const auto   lParam = static_cast<LPARAM>(reinterpret_cast<uintptr_t>(&create));
    if (CallWindow(*pWindow, WM_NCCREATE, 0, lParam) == 0) {
        DropWindow(pWindow->record.nWindow);
        return nullptr;
    }
    if (CallWindow(*pWindow, WM_CREATE, 0, lParam) == -1) {
        DestroyWindow(HandleOf(pWindow->record.nWindow));
        return nullptr;
    }
    return HandleOf(pWindow->record.nWindow);
}

BOOL DestroyWindow(HWND hWnd)
{
    if (FailsNow("DestroyWindow")) return FALSE;
    const std::shared_ptr<Window> pWindow = WindowOf(NumberOf(hWnd));
    WindowRecord                  record;
    if (pWindow == nullptr && !ReadWindow(NumberOf(hWnd), &record)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    if (pWindow == nullptr || pWindow->pQueue != OwnQueue()) {
        SetError(ERROR_ACCESS_DENIED); // only the thread that made it
        return FALSE;
    }
    if (pWindow->bDestroying) return TRUE; // called from within its own WM_DESTROY
    pWindow->bDestroying = true;
    CallWindow(*pWindow, WM_DESTROY, 0, 0);
    CallWindow(*pWindow, WM_NCDESTROY, 0, 0);
    DropWindow(NumberOf(hWnd));
    return TRUE;
}

LRESULT DefWindowProcW(HWND hWnd, uint32_t uMsg, WPARAM, LPARAM)
{
    if (FailsNow("DefWindowProcW")) return 0;
    switch (uMsg) {
    case WM_CLOSE: DestroyWindow(hWnd); return 0;
    case WM_NCCREATE:
    case WM_QUERYENDSESSION:
    case WM_POWERBROADCAST: return TRUE;
    default: return 0;
    }
}

HWND FindWindowW(const char16_t *pszClass, const char16_t *pszTitle)
{
    if (FailsNow("FindWindowW")) return nullptr;
    WindowClass windowClass{};
    if (pszClass != nullptr && reinterpret_cast<uintptr_t>(pszClass) <= 0xFFFF) {
        if (!FindClass(pszClass, &windowClass)) {
            SetError(ERROR_CANNOT_FIND_WND_CLASS);
            return nullptr;
        }
        pszClass = windowClass.sName.c_str();
    }
    for (const WindowRecord &record : AllWindows()) {
        if (NameMatches(pszClass, record.sClass) && NameMatches(pszTitle, record.sTitle))
            return HandleOf(record.nWindow);
    }
    SetError(ERROR_FILE_NOT_FOUND);
    return nullptr;
}

uint32_t GetWindowThreadProcessId(HWND hWnd, uint32_t *pdwProcessId)
{
    if (FailsNow("GetWindowThreadProcessId")) return 0;
    WindowRecord record;
    if (!ReadWindow(NumberOf(hWnd), &record)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    if (pdwProcessId != nullptr) *pdwProcessId = record.dwProcessId;
    return record.dwThreadId;
}

} // namespace user32
} // namespace hosted
