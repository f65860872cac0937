// window_lifetime.cpp: window classes and windows.
// Differences from Windows: nothing is ever drawn, so styles, places, icons and menus are kept by nobody; there are
// top-level windows only (another parent: ERROR_NOT_SUPPORTED), of classes that are named by text; a window gets
// WM_DESTROY alone of the messages about its own life.
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

constexpr uint32_t ERROR_CANNOT_FIND_WND_CLASS = 1407, ERROR_CLASS_ALREADY_EXISTS = 1410;

struct WindowClass {
    std::u16string    sName;
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

bool FindClass(const char16_t *pszClass, WindowClass *pFound)
{
    const std::lock_guard<std::mutex> guard(TheClasses().mutex);
    for (const WindowClass &windowClass : TheClasses().aClasses) {
        if (platform::CompareTextNoCaseW(pszClass, windowClass.sName.c_str()) != 0) continue;
        *pFound = windowClass;
        return true;
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
    if (pClass == nullptr || pClass->cbSize != sizeof(WNDCLASSEXW) || pClass->lpfnWndProc == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    WindowClass windowClass{};
    if (FindClass(pClass->lpszClassName, &windowClass)) {
        SetError(ERROR_CLASS_ALREADY_EXISTS);
        return 0;
    }
    const ATOM nAtom = AtomOf(pClass->lpszClassName);
    if (nAtom == 0) return 0;
    const std::lock_guard<std::mutex> guard(TheClasses().mutex);
    TheClasses().aClasses.push_back({pClass->lpszClassName, pClass->lpfnWndProc});
    return nAtom;
}

HWND CreateWindowExW(uint32_t, const char16_t *pszClass, const char16_t *pszTitle, uint32_t, int32_t, int32_t, int32_t,
                     int32_t, HWND hParent, HMENU, HINSTANCE, void *)
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
    auto pWindow           = std::make_shared<Window>();
    pWindow->pProcedure    = windowClass.pProcedure;
    pWindow->pQueue        = OwnQueue();
    pWindow->record.sClass = windowClass.sName;
    pWindow->record.sTitle = pszTitle == nullptr ? u"" : pszTitle;
    const int nFd          = AddWindow(&pWindow->record);
    if (nFd < 0) return nullptr;
    pWindow->pSocket = std::make_shared<Descriptor>(nFd);
    KeepWindow(pWindow);
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
    DropWindow(NumberOf(hWnd));
    return TRUE;
}

LRESULT DefWindowProcW(HWND, uint32_t, WPARAM, LPARAM)
{
    FailsNow("DefWindowProcW"); // counted; what it answers to the messages here is 0 to all
    return 0;
}

HWND FindWindowW(const char16_t *pszClass, const char16_t *pszTitle)
{
    if (FailsNow("FindWindowW")) return nullptr;
    for (const WindowRecord &record : AllWindows()) {
        if (NameMatches(pszClass, record.sClass) && NameMatches(pszTitle, record.sTitle))
            return HandleOf(record.nWindow);
    }
    SetError(ERROR_FILE_NOT_FOUND);
    return nullptr;
}

} // namespace user32
} // namespace hosted
