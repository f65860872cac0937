// user_interface_table.cpp: one table of names, log names and pointers; binding and unbinding run through it.
// Functions that nobody calls stand in it too: their log lines tell support which Windows the agent met.
#include "app/user_interface_table.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <cstring>
#include <iterator>
#include <type_traits>

using namespace platform;

std::atomic<RegisterWindowMessageWProc>             g_pfnRegisterWindowMessageW;
std::atomic<PostMessageWProc>                       g_pfnPostMessageW;
std::atomic<FindWindowWProc>                        g_pfnFindWindowW;
std::atomic<LoadIconWProc>                          g_pfnLoadIconW;
std::atomic<LoadCursorWProc>                        g_pfnLoadCursorW;
std::atomic<RegisterClassExWProc>                   g_pfnRegisterClassExW;
std::atomic<CreateWindowExWProc>                    g_pfnCreateWindowExW;
std::atomic<PostQuitMessageProc>                    g_pfnPostQuitMessage;
std::atomic<DefWindowProcWProc>                     g_pfnDefWindowProcW;
std::atomic<GetMessageWProc>                        g_pfnGetMessageW;
std::atomic<TranslateMessageProc>                   g_pfnTranslateMessage;
std::atomic<DispatchMessageWProc>                   g_pfnDispatchMessageW;
std::atomic<DestroyWindowProc>                      g_pfnDestroyWindow;
std::atomic<RegisterPowerSettingNotificationProc>   g_pfnRegisterPowerSettingNotification;
std::atomic<UnregisterPowerSettingNotificationProc> g_pfnUnregisterPowerSettingNotification;
std::atomic<ChangeWindowMessageFilterExProc>        g_pfnChangeWindowMessageFilterEx;
std::atomic<SHFileOperationWProc>                   g_pfnSHFileOperationW;

uint32_t g_dwControlMessage = 0;

static HMODULE               g_hUser32;
static HMODULE               g_hShell32;
static std::atomic<uint32_t> g_nBoundCalls; // under way on threads other than the main one

struct BoundFunction {
    const char *pszName;
    const char *pszLogName;
    void (*pStore)(FARPROC); // null: nobody calls it
    FARPROC pProcedure;      // null: not bound
};

template <auto *pPointer> static void Store(FARPROC pProcedure)
{
    *pPointer = reinterpret_cast<typename std::remove_pointer_t<decltype(pPointer)>::value_type>(pProcedure);
}

static BoundFunction g_aUser32[] = {
    {"RegisterWindowMessageW", "RegisterWindowMessageW", Store<&g_pfnRegisterWindowMessageW>, nullptr},
    {"PostMessageW", "PostMessageW", Store<&g_pfnPostMessageW>, nullptr},
    {"FindWindowW", "FindWindowW", Store<&g_pfnFindWindowW>, nullptr},
    {"FindWindowExW", "FindWindowExW", nullptr, nullptr},
    {"LoadIconW", "LoadIconW", Store<&g_pfnLoadIconW>, nullptr},
    {"DestroyIcon", "DestroyIcon", nullptr, nullptr},
    {"LoadCursorW", "LoadCursorW", Store<&g_pfnLoadCursorW>, nullptr},
    {"RegisterClassExW", "RegisterClassExW", Store<&g_pfnRegisterClassExW>, nullptr},
    {"CreateWindowExW", "CreateWindowExW", Store<&g_pfnCreateWindowExW>, nullptr},
    {"PostQuitMessage", "PostQuitMessage", Store<&g_pfnPostQuitMessage>, nullptr},
    {"DefWindowProcW", "DefWindowProcW", Store<&g_pfnDefWindowProcW>, nullptr},
    {"GetWindowThreadProcessId", "GetWindowThreadProcessId", nullptr, nullptr},
    {"GetMessageW", "GetMessageW", Store<&g_pfnGetMessageW>, nullptr},
    {"TranslateMessage", "TranslateMessage", Store<&g_pfnTranslateMessage>, nullptr},
    {"DispatchMessageW", "DispatchMessageW", Store<&g_pfnDispatchMessageW>, nullptr},
    {"SetTimer", "SetTimer", nullptr, nullptr},
    {"KillTimer", "KillTimer", nullptr, nullptr},
    {"DestroyWindow", "DestroyWindow", Store<&g_pfnDestroyWindow>, nullptr},
    {"PeekMessageW", "PeekMessageW", nullptr, nullptr},
    {"RegisterPowerSettingNotification", "RegisterPowerSettingNotification",
     Store<&g_pfnRegisterPowerSettingNotification>, nullptr},
    {"UnregisterPowerSettingNotification", "UnregisterPowerSettingNotification",
     Store<&g_pfnUnregisterPowerSettingNotification>, nullptr},
    {"ChangeWindowMessageFilterEx", "ChangeWindowMessageFilterEx", Store<&g_pfnChangeWindowMessageFilterEx>, nullptr},
    {"GetLastInputInfo", "GetLastInputInfo", nullptr, nullptr},
    {"GetThreadDesktop", "GetThreadDesktop", nullptr, nullptr},
    {"GetUserObjectInformationW", "GetUserObjectInformationW", nullptr, nullptr},
    {"SetWindowPos", "SetWindowPos", nullptr, nullptr},
    {"GetKeyboardState", "GetKeyboardState", nullptr, nullptr},
    {"QueryDisplayConfig", "QueryDisplayConfig", nullptr, nullptr},
    {"GetDisplayConfigBufferSizes", "GetDisplayConfigBufferSizes", nullptr, nullptr},
    {"DisplayConfigGetDeviceInfo", "DisplayConfigGetDeviceInfo", nullptr, nullptr},
    {"SetDisplayConfig", "SetDisplayConfig", nullptr, nullptr},
    {"IsImmersiveProcess", "IsImmersiveProcess", nullptr, nullptr},
    {"IsWindowVisible", "IsWindowVisible", nullptr, nullptr},
    {"GetForegroundWindow", "GetForegroundWindow", nullptr, nullptr},
    {"SystemParametersInfoW", "SystemParametersInfo", nullptr, nullptr},
    {"SendMessageW", "SendMessage", nullptr, nullptr},
    {"GetDesktopWindow", "GetDesktopWindow", nullptr, nullptr},
    {"GetCaretBlinkTime", "GetCaretBlinkTime", nullptr, nullptr},
    {"SetCaretBlinkTime", "SetCaretBlinkTime", nullptr, nullptr},
    {"GetSystemMetrics", "GetSystemMetrics", nullptr, nullptr},
    {"GetDoubleClickTime", "GetDoubleClickTime", nullptr, nullptr},
    {"EnumWindows", "EnumWindows", nullptr, nullptr},
    {"GetClassNameW", "GetClassName", nullptr, nullptr},
    {"GetShellWindow", "GetShellWindow", nullptr, nullptr},
};
static_assert(std::size(g_aUser32) == 44);

static BoundFunction g_aShell32[] = {
    {"ShellExecuteW", "ShellExecute", nullptr, nullptr},
    {"ShellExecuteExW", "ShellExecuteEx", nullptr, nullptr},
    {"ExtractIconExW", "ExtractIconEx", nullptr, nullptr},
    {"SHCreateShellItemArrayFromIDLists", "SHCreateShellItemArrayFromIDLists", nullptr, nullptr},
    {"SHFileOperationW", "SHFileOperation", Store<&g_pfnSHFileOperationW>, nullptr},
};
static_assert(std::size(g_aShell32) == 5);

template <size_t nFunctions> static void BindFunctions(HMODULE hModule, BoundFunction (&aFunctions)[nFunctions])
{
    for (BoundFunction &function : aFunctions) {
        if (function.pProcedure != nullptr) continue;
        function.pProcedure = GetProcAddress(hModule, function.pszName);
        if (function.pStore != nullptr) function.pStore(function.pProcedure);
        if (IsTraceEnabled()) {
            char szLine[128];
            FormatTextA(szLine, sizeof(szLine), "GetProcAddress \"%s\"", function.pszLogName);
            TraceTwoTexts(szLine, function.pProcedure != nullptr ? "success" : "fail");
        }
    }
}

template <size_t nFunctions> static void ReleaseFunctions(HMODULE *phModule, BoundFunction (&aFunctions)[nFunctions])
{
    for (BoundFunction &function : aFunctions) {
        function.pProcedure = nullptr;
        if (function.pStore != nullptr) function.pStore(nullptr);
    }
    // A call that began before the pointers went is counted; one that begins now finds them null.
    if (*phModule != nullptr && g_nBoundCalls == 0) FreeLibrary(*phModule);
    *phModule = nullptr;
}

int32_t BindUser32Functions()
{
    if (g_hUser32 == nullptr) g_hUser32 = LoadSystemLibrary(u"user32.dll");
    if (g_hUser32 == nullptr) return 0;
    BindFunctions(g_hUser32, g_aUser32);
    const RegisterWindowMessageWProc pfnRegisterWindowMessageW = g_pfnRegisterWindowMessageW;
    if (pfnRegisterWindowMessageW != nullptr) g_dwControlMessage = pfnRegisterWindowMessageW(CONTROL_MESSAGE_NAME);
    return 1;
}

int32_t UnbindUser32Functions()
{
    ReleaseFunctions(&g_hUser32, g_aUser32);
    g_dwControlMessage = 0;
    return 1;
}

int32_t BindShell32Functions()
{
    if (g_hShell32 == nullptr) g_hShell32 = LoadSystemLibrary(u"Shell32.dll");
    if (g_hShell32 == nullptr) return 0;
    BindFunctions(g_hShell32, g_aShell32);
    return 1;
}

void ReleaseShell32Functions()
{
    if (g_hShell32 != nullptr) ReleaseFunctions(&g_hShell32, g_aShell32);
}

void EnterBoundCall()
{
    g_nBoundCalls++;
}

void LeaveBoundCall()
{
    g_nBoundCalls--;
}

FARPROC GetBoundFunction(const char *pszName)
{
    for (const BoundFunction &function : g_aUser32) {
        if (std::strcmp(function.pszName, pszName) == 0) return function.pProcedure;
    }
    for (const BoundFunction &function : g_aShell32) {
        if (std::strcmp(function.pszName, pszName) == 0) return function.pProcedure;
    }
    return nullptr;
}
