// user_interface_table.cpp: what user32.dll and Wtsapi32.dll of a hosted machine export, and the small functions among
// it.
// Differences from Windows: a cursor is a token; a registration for power settings is counted and gets no first
// notification; a message filter only allows; sessions are told of to those who ask for their own.
#include "platform/hosted/desktop/user_interface_table.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/user_interface_functions.h"
#include "platform/hosted/desktop/window_queues.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include <atomic>

namespace hosted {
namespace {

std::atomic<int> g_nPowerRegistrations{0};

} // namespace

int PowerRegistrations()
{
    return g_nPowerRegistrations;
}

namespace user32 {
namespace {

uint32_t RegisterWindowMessageW(const char16_t *pszName)
{
    if (FailsNow("RegisterWindowMessageW")) return 0;
    return AtomOf(pszName == nullptr ? u"" : pszName);
}

HCURSOR LoadCursorW(HINSTANCE hInstance, const char16_t *pszName)
{
    if (FailsNow("LoadCursorW")) return nullptr;
    if (hInstance == nullptr && pszName == IDC_ARROW) return const_cast<char16_t *>(pszName);
    SetError(ERROR_NOT_SUPPORTED);
    return nullptr;
}

HANDLE RegisterPowerSettingNotification(HANDLE hRecipient, const GUID *pSetting, uint32_t dwFlags)
{
    if (FailsNow("RegisterPowerSettingNotification")) return nullptr;
    if (pSetting == nullptr || dwFlags != DEVICE_NOTIFY_WINDOW_HANDLE || WindowOf(NumberOf(hRecipient)) == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    g_nPowerRegistrations++;
    return &g_nPowerRegistrations;
}

BOOL UnregisterPowerSettingNotification(HANDLE hRegistration)
{
    if (FailsNow("UnregisterPowerSettingNotification")) return FALSE;
    if (hRegistration == &g_nPowerRegistrations && g_nPowerRegistrations-- > 0) return TRUE;
    SetError(ERROR_INVALID_HANDLE);
    return FALSE;
}

bool Allow(WindowRecord &record, uint32_t uMsg)
{
    record.aAllowed.push_back(uMsg);
    return true;
}

bool AddSessionRegistration(WindowRecord &record, uint32_t)
{
    record.nSessionRegistrations++;
    return true;
}

bool RemoveSessionRegistration(WindowRecord &record, uint32_t)
{
    if (record.nSessionRegistrations == 0) return false;
    record.nSessionRegistrations--;
    return true;
}

BOOL ChangeWindowMessageFilterEx(HWND hWnd, uint32_t uMsg, uint32_t dwAction, void *pResult)
{
    if (FailsNow("ChangeWindowMessageFilterEx")) return FALSE;
    if (pResult == nullptr && dwAction == MSGFLT_ALLOW) return ChangeRecord(NumberOf(hWnd), Allow, uMsg);
    SetError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

BOOL WTSRegisterSessionNotification(HWND hWnd, uint32_t dwFlags)
{
    if (FailsNow("WTSRegisterSessionNotification")) return FALSE;
    if (dwFlags == NOTIFY_FOR_THIS_SESSION) return ChangeRecord(NumberOf(hWnd), AddSessionRegistration, 0);
    SetError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

BOOL WTSUnRegisterSessionNotification(HWND hWnd)
{
    if (FailsNow("WTSUnRegisterSessionNotification")) return FALSE;
    return ChangeRecord(NumberOf(hWnd), RemoveSessionRegistration, 0);
}

// The seam's type of a function checks the one that stands behind the name.
template <class Procedure> NamedProcedure Export(const char *pszName, Procedure pProcedure)
{
    return {pszName, reinterpret_cast<FARPROC>(pProcedure)};
}

} // namespace
} // namespace user32

std::span<const NamedProcedure> User32Procedures()
{
    using namespace platform;
    using user32::Export;
    static const NamedProcedure s_aProcedures[] = {
        Export<RegisterWindowMessageWProc>("RegisterWindowMessageW", user32::RegisterWindowMessageW),
        Export<PostMessageWProc>("PostMessageW", user32::PostMessageW),
        Export<FindWindowWProc>("FindWindowW", user32::FindWindowW),
        Export<LoadCursorWProc>("LoadCursorW", user32::LoadCursorW),
        Export<RegisterClassExWProc>("RegisterClassExW", user32::RegisterClassExW),
        Export<CreateWindowExWProc>("CreateWindowExW", user32::CreateWindowExW),
        Export<PostQuitMessageProc>("PostQuitMessage", user32::PostQuitMessage),
        Export<DefWindowProcWProc>("DefWindowProcW", user32::DefWindowProcW),
        Export<GetMessageWProc>("GetMessageW", user32::GetMessageW),
        Export<TranslateMessageProc>("TranslateMessage", user32::TranslateMessage),
        Export<DispatchMessageWProc>("DispatchMessageW", user32::DispatchMessageW),
        Export<DestroyWindowProc>("DestroyWindow", user32::DestroyWindow),
        Export<RegisterPowerSettingNotificationProc>("RegisterPowerSettingNotification",
                                                     user32::RegisterPowerSettingNotification),
        Export<UnregisterPowerSettingNotificationProc>("UnregisterPowerSettingNotification",
                                                       user32::UnregisterPowerSettingNotification),
        Export<ChangeWindowMessageFilterExProc>("ChangeWindowMessageFilterEx", user32::ChangeWindowMessageFilterEx),
    };
    return s_aProcedures;
}

std::span<const NamedProcedure> Wtsapi32Procedures()
{
    using namespace platform;
    using user32::Export;
    static const NamedProcedure s_aProcedures[] = {
        Export<WTSRegisterSessionNotificationProc>("WTSRegisterSessionNotification",
                                                   user32::WTSRegisterSessionNotification),
        Export<WTSUnRegisterSessionNotificationProc>("WTSUnRegisterSessionNotification",
                                                     user32::WTSUnRegisterSessionNotification),
    };
    return s_aProcedures;
}

} // namespace hosted
