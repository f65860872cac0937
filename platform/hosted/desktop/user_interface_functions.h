// user_interface_functions.h: the functions behind user32.dll and Wtsapi32.dll, under their Win32 names; programs reach
// them through GetProcAddress alone (user_interface_table.cpp).
#pragma once
#include "platform/user_interface.h"

namespace hosted::user32 {

using namespace platform;

// window_lifetime.cpp
ATOM    RegisterClassExW(const WNDCLASSEXW *pClass);
HWND    CreateWindowExW(uint32_t dwExStyle, const char16_t *pszClass, const char16_t *pszTitle, uint32_t dwStyle,
                        int32_t x, int32_t y, int32_t cx, int32_t cy, HWND hParent, HMENU hMenu, HINSTANCE hInstance,
                        void *pParam);
BOOL    DestroyWindow(HWND hWnd);
LRESULT DefWindowProcW(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam);
HWND    FindWindowW(const char16_t *pszClass, const char16_t *pszTitle);

// messages.cpp
BOOL    GetMessageW(MSG *pMsg, HWND hWnd, uint32_t uFirst, uint32_t uLast);
BOOL    TranslateMessage(const MSG *pMsg);
LRESULT DispatchMessageW(const MSG *pMsg);
BOOL    PostMessageW(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam);
void    PostQuitMessage(int32_t nExitCode);

} // namespace hosted::user32
