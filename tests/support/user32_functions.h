// user32_functions.h: the user32 and Wtsapi32 functions of the machine, bound on first use.
#pragma once
#include "platform/modules.h"
#include "platform/user_interface.h"
#include <gtest/gtest.h>

struct User32Functions {
    platform::RegisterWindowMessageWProc             RegisterWindowMessageW;
    platform::PostMessageWProc                       PostMessageW;
    platform::FindWindowWProc                        FindWindowW;
    platform::LoadCursorWProc                        LoadCursorW;
    platform::RegisterClassExWProc                   RegisterClassExW;
    platform::CreateWindowExWProc                    CreateWindowExW;
    platform::PostQuitMessageProc                    PostQuitMessage;
    platform::DefWindowProcWProc                     DefWindowProcW;
    platform::GetMessageWProc                        GetMessageW;
    platform::DispatchMessageWProc                   DispatchMessageW;
    platform::DestroyWindowProc                      DestroyWindow;
    platform::ChangeWindowMessageFilterExProc        ChangeWindowMessageFilterEx;
    platform::RegisterPowerSettingNotificationProc   RegisterPowerSettingNotification;
    platform::UnregisterPowerSettingNotificationProc UnregisterPowerSettingNotification;
    platform::WTSRegisterSessionNotificationProc     WTSRegisterSessionNotification;
    platform::WTSUnRegisterSessionNotificationProc   WTSUnRegisterSessionNotification;
};

template <class Procedure> void BindFunction(platform::HMODULE hModule, const char *pszName, Procedure *ppProcedure)
{
    *ppProcedure = reinterpret_cast<Procedure>(platform::GetProcAddress(hModule, pszName));
    EXPECT_NE(nullptr, *ppProcedure) << pszName;
}

inline const User32Functions &User32()
{
    static const User32Functions s_Functions = [] {
        User32Functions         f{};
        const platform::HMODULE hUser32 = platform::LoadLibraryW(u"user32.dll");
        const platform::HMODULE hWts    = platform::LoadLibraryW(u"wtsapi32.dll");
        BindFunction(hUser32, "RegisterWindowMessageW", &f.RegisterWindowMessageW);
        BindFunction(hUser32, "PostMessageW", &f.PostMessageW);
        BindFunction(hUser32, "FindWindowW", &f.FindWindowW);
        BindFunction(hUser32, "LoadCursorW", &f.LoadCursorW);
        BindFunction(hUser32, "RegisterClassExW", &f.RegisterClassExW);
        BindFunction(hUser32, "CreateWindowExW", &f.CreateWindowExW);
        BindFunction(hUser32, "PostQuitMessage", &f.PostQuitMessage);
        BindFunction(hUser32, "DefWindowProcW", &f.DefWindowProcW);
        BindFunction(hUser32, "GetMessageW", &f.GetMessageW);
        BindFunction(hUser32, "DispatchMessageW", &f.DispatchMessageW);
        BindFunction(hUser32, "DestroyWindow", &f.DestroyWindow);
        BindFunction(hUser32, "ChangeWindowMessageFilterEx", &f.ChangeWindowMessageFilterEx);
        BindFunction(hUser32, "RegisterPowerSettingNotification", &f.RegisterPowerSettingNotification);
        BindFunction(hUser32, "UnregisterPowerSettingNotification", &f.UnregisterPowerSettingNotification);
        BindFunction(hWts, "WTSRegisterSessionNotification", &f.WTSRegisterSessionNotification);
        BindFunction(hWts, "WTSUnRegisterSessionNotification", &f.WTSUnRegisterSessionNotification);
        return f;
    }();
    return s_Functions;
}
