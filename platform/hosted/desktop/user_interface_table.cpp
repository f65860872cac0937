// user_interface_table.cpp: what user32.dll and Wtsapi32.dll of a hosted machine export, and the small functions among
// it.
// Differences from Windows: icons and cursors are tokens; a registration for power settings is counted and gets no
// first notification; TranslateMessage has nothing to translate.
#include "platform/hosted/desktop/user_interface_table.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/user_interface_functions.h"
#include "platform/hosted/desktop/window_queues.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include <algorithm>
#include <set>

namespace hosted {
namespace {

constexpr uint32_t  ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
constexpr uintptr_t FIRST_SYSTEM_IMAGE = 32512, LAST_SYSTEM_IMAGE = 32651; // IDI_APPLICATION to IDC_HELP
constexpr uint32_t  NOTIFY_FOR_ALL_SESSIONS = 1;
constexpr uint32_t  MSGFLT_RESET = 0, MSGFLT_DISALLOW = 2;

struct PowerRegistrationSet {
    std::mutex          mutex; // guards what follows
    std::set<uintptr_t> open;
    uintptr_t           nLast = 0;
};

PowerRegistrationSet &ThePowerRegistrations()
{
    static PowerRegistrationSet &s_Registrations = *new PowerRegistrationSet;
    return s_Registrations;
}

} // namespace

int PowerRegistrations()
{
    const std::lock_guard<std::mutex> guard(ThePowerRegistrations().mutex);
    return static_cast<int>(ThePowerRegistrations().open.size());
}

namespace user32 {
namespace {

uint32_t RegisterWindowMessageW(const char16_t *pszName)
{
    if (FailsNow("RegisterWindowMessageW")) return 0;
    return AtomOf(pszName == nullptr ? u"" : pszName);
}

// System images have numbers for names and no module.
void *LoadSystemImage(HINSTANCE hInstance, const char16_t *pszName)
{
    const auto nName = reinterpret_cast<uintptr_t>(pszName);
    if (hInstance == nullptr && nName >= FIRST_SYSTEM_IMAGE && nName <= LAST_SYSTEM_IMAGE) {
        return reinterpret_cast<void *>(nName);
    }
    SetError(ERROR_RESOURCE_NAME_NOT_FOUND);
    return nullptr;
}

HICON LoadIconW(HINSTANCE hInstance, const char16_t *pszName)
{
    return FailsNow("LoadIconW") ? nullptr : LoadSystemImage(hInstance, pszName);
}

HCURSOR LoadCursorW(HINSTANCE hInstance, const char16_t *pszName)
{
    return FailsNow("LoadCursorW") ? nullptr : LoadSystemImage(hInstance, pszName);
}

HANDLE RegisterPowerSettingNotification(HANDLE hRecipient, const GUID *pSetting, uint32_t dwFlags)
{
    if (FailsNow("RegisterPowerSettingNotification")) return nullptr;
    if (pSetting == nullptr || dwFlags != DEVICE_NOTIFY_WINDOW_HANDLE || WindowOf(NumberOf(hRecipient)) == nullptr) {
        SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    PowerRegistrationSet             &registrations = ThePowerRegistrations();
    const std::lock_guard<std::mutex> guard(registrations.mutex);
    registrations.open.insert(++registrations.nLast);
    return reinterpret_cast<HANDLE>(registrations.nLast);
}

BOOL UnregisterPowerSettingNotification(HANDLE hRegistration)
{
    if (FailsNow("UnregisterPowerSettingNotification")) return FALSE;
    PowerRegistrationSet             &registrations = ThePowerRegistrations();
    const std::lock_guard<std::mutex> guard(registrations.mutex);
    if (registrations.open.erase(reinterpret_cast<uintptr_t>(hRegistration)) != 0) return TRUE;
    SetError(ERROR_INVALID_HANDLE);
    return FALSE;
}

bool Disallow(WindowRecord &record, uint32_t uMsg)
{
    std::erase(record.aAllowed, uMsg);
    return true;
}

bool Allow(WindowRecord &record, uint32_t uMsg)
{
    Disallow(record, uMsg);
    record.aAllowed.push_back(uMsg);
    return true;
}

bool DisallowAll(WindowRecord &record, uint32_t)
{
    record.aAllowed.clear();
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
    if (pResult != nullptr || dwAction > MSGFLT_DISALLOW) {
        SetError(pResult != nullptr ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return ChangeRecord(NumberOf(hWnd),
                        dwAction == MSGFLT_RESET   ? DisallowAll
                        : dwAction == MSGFLT_ALLOW ? Allow
                                                   : Disallow,
                        uMsg);
}

BOOL WTSRegisterSessionNotification(HWND hWnd, uint32_t dwFlags)
{
    if (FailsNow("WTSRegisterSessionNotification")) return FALSE;
    if (dwFlags > NOTIFY_FOR_ALL_SESSIONS) {
        SetError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return ChangeRecord(NumberOf(hWnd), AddSessionRegistration, 0);
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
        Export<SendMessageWProc>("SendMessageW", user32::SendMessageW),
        Export<FindWindowWProc>("FindWindowW", user32::FindWindowW),
        Export<LoadIconWProc>("LoadIconW", user32::LoadIconW),
        Export<LoadCursorWProc>("LoadCursorW", user32::LoadCursorW),
        Export<RegisterClassExWProc>("RegisterClassExW", user32::RegisterClassExW),
        Export<CreateWindowExWProc>("CreateWindowExW", user32::CreateWindowExW),
        Export<PostQuitMessageProc>("PostQuitMessage", user32::PostQuitMessage),
        Export<DefWindowProcWProc>("DefWindowProcW", user32::DefWindowProcW),
        Export<GetMessageWProc>("GetMessageW", user32::GetMessageW),
        Export<PeekMessageWProc>("PeekMessageW", user32::PeekMessageW),
        Export<TranslateMessageProc>("TranslateMessage", user32::TranslateMessage),
        Export<DispatchMessageWProc>("DispatchMessageW", user32::DispatchMessageW),
        Export<DestroyWindowProc>("DestroyWindow", user32::DestroyWindow),
        Export<RegisterPowerSettingNotificationProc>("RegisterPowerSettingNotification",
                                                     user32::RegisterPowerSettingNotification),
        Export<UnregisterPowerSettingNotificationProc>("UnregisterPowerSettingNotification",
                                                       user32::UnregisterPowerSettingNotification),
        Export<ChangeWindowMessageFilterExProc>("ChangeWindowMessageFilterEx", user32::ChangeWindowMessageFilterEx),
        Export<GetWindowThreadProcessIdProc>("GetWindowThreadProcessId", user32::GetWindowThreadProcessId),
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
