// modules.cpp: the libraries of a hosted machine, and what the program knows of its own file.
// Libraries    user32.dll, shell32.dll and wtsapi32.dll, found by name or in the system folder, case ignored. A name
//              that this system binds but that does nothing on a hosted machine resolves to a procedure which fails
//              with ERROR_NOT_SUPPORTED; any other name does not resolve.
// Own file     inside the machine's folder it has its place on the machine's drives. A program that runs from elsewhere
//              (a test from the build folder) gives its name in the agent's folder.
#include "platform/modules.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/user_interface_table.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/program.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include "platform/version_info.h"
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <set>

namespace {

using namespace platform;

constexpr char16_t SYSTEM_FOLDER[] = u"C:\\Windows\\system32";

// Bound by name, without a behaviour here unless the library's own table has one.
constexpr const char *g_aUser32Names[]  = {"RegisterWindowMessageW",
                                           "PostMessageW",
                                           "FindWindowW",
                                           "FindWindowExW",
                                           "LoadIconW",
                                           "DestroyIcon",
                                           "LoadCursorW",
                                           "RegisterClassExW",
                                           "CreateWindowExW",
                                           "PostQuitMessage",
                                           "DefWindowProcW",
                                           "GetWindowThreadProcessId",
                                           "GetMessageW",
                                           "TranslateMessage",
                                           "DispatchMessageW",
                                           "SetTimer",
                                           "KillTimer",
                                           "DestroyWindow",
                                           "PeekMessageW",
                                           "RegisterPowerSettingNotification",
                                           "UnregisterPowerSettingNotification",
                                           "ChangeWindowMessageFilterEx",
                                           "GetLastInputInfo",
                                           "GetThreadDesktop",
                                           "GetUserObjectInformationW",
                                           "SetWindowPos",
                                           "GetKeyboardState",
                                           "QueryDisplayConfig",
                                           "GetDisplayConfigBufferSizes",
                                           "DisplayConfigGetDeviceInfo",
                                           "SetDisplayConfig",
                                           "IsImmersiveProcess",
                                           "IsWindowVisible",
                                           "GetForegroundWindow",
                                           "SystemParametersInfoW",
                                           "SendMessageW",
                                           "GetDesktopWindow",
                                           "GetCaretBlinkTime",
                                           "SetCaretBlinkTime",
                                           "GetSystemMetrics",
                                           "GetDoubleClickTime",
                                           "EnumWindows",
                                           "GetClassNameW",
                                           "GetShellWindow"};
constexpr const char *g_aShell32Names[] = {
    "ShellExecuteA",   "ShellExecuteW", "ShellExecuteExW", "ExtractIconExW", "SHCreateShellItemArrayFromIDLists",
    "SHFileOperationW"};
constexpr const char *g_aWtsapi32Names[] = {"WTSRegisterSessionNotification", "WTSUnRegisterSessionNotification"};

struct Library {
    const char *pszName;
    std::span<const hosted::NamedProcedure> (*pProcedures)();
    std::span<const char *const> aNames;
    int                          nLoads; // under g_csModules
};
Library g_aLibraries[] = {
    {"user32.dll", hosted::User32Procedures, g_aUser32Names, 0},
    {"shell32.dll", hosted::Shell32Procedures, g_aShell32Names, 0},
    {"wtsapi32.dll", hosted::Wtsapi32Procedures, g_aWtsapi32Names, 0},
};

std::mutex g_csModules; // guards the load counts and what was removed

std::set<std::string> &Removed() // "user32.dll" or "user32.dll!GetMessageW"
{
    static auto &removed = *new std::set<std::string>;
    return removed;
}

const hosted::OnUseMachine g_Reset([] {
    std::lock_guard<std::mutex> lock(g_csModules);
    Removed().clear();
});

std::string LowerAscii(std::string sText)
{
    for (char &ch : sText) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    return sText;
}

// "C:\Windows\system32\User32.dll", "user32.dll" and "user32" alike give "user32.dll"; another folder gives "".
std::string LibraryName(const char16_t *pszFileName)
{
    std::string       sName   = LowerAscii(hosted::ToUtf8(pszFileName));
    const std::string sFolder = LowerAscii(hosted::ToUtf8(SYSTEM_FOLDER)) + "\\";
    if (sName.starts_with(sFolder)) sName.erase(0, sFolder.size());
    if (sName.find_first_of("\\/:") != std::string::npos) return "";
    if (sName.find('.') == std::string::npos) sName += ".dll";
    return sName;
}

// [g_csModules held]
Library *LoadedLibrary(HMODULE hModule)
{
    for (Library &library : g_aLibraries)
        if (hModule == &library && library.nLoads > 0) return &library;
    return nullptr;
}

int64_t FailNotSupported()
{
    hosted::SetError(ERROR_NOT_SUPPORTED);
    return 0;
}

FARPROC FindProcedure(const Library &library, const char *pszName)
{
    for (const hosted::NamedProcedure &procedure : library.pProcedures())
        if (std::strcmp(procedure.pszName, pszName) == 0) return procedure.pProcedure;
    for (const char *pszKnown : library.aNames)
        if (std::strcmp(pszKnown, pszName) == 0) return reinterpret_cast<FARPROC>(FailNotSupported);
    return nullptr;
}

std::string OwnFile()
{
    const std::string &sFile = hosted::ProgramFile();
    char               szMachine[PATH_MAX];
    if (::realpath(hosted::MachineFolder(), szMachine) != nullptr) {
        const std::string sDrives = std::string(szMachine) + "/drive_";
        if (sFile.size() > sDrives.size() + 1 && sFile.starts_with(sDrives) && sFile[sDrives.size() + 1] == '/') {
            std::string sPath = sFile.substr(sDrives.size() + 1);
            std::replace(sPath.begin(), sPath.end(), '/', '\\');
            const int chDrive = std::toupper(static_cast<unsigned char>(sFile[sDrives.size()]));
            return std::string(1, static_cast<char>(chDrive)) + ":" + sPath;
        }
    }
    return std::string(hosted::PROGRAM_FOLDER) + "\\" + sFile.substr(sFile.rfind('/') + 1);
}

} // namespace

namespace hosted {

void RemoveLibrary(const char *pszLibrary)
{
    std::lock_guard<std::mutex> lock(g_csModules);
    Removed().insert(LowerAscii(pszLibrary));
}

void RemoveFunction(const char *pszLibrary, const char *pszFunction)
{
    std::lock_guard<std::mutex> lock(g_csModules);
    Removed().insert(LowerAscii(pszLibrary) + "!" + pszFunction);
}

} // namespace hosted

namespace platform {

uint32_t GetSystemDirectoryW(char16_t *pszBuffer, uint32_t cch)
{
    constexpr uint32_t CCH_FOLDER = std::size(SYSTEM_FOLDER) - 1;
    if (hosted::FailsNow("GetSystemDirectoryW")) return 0;
    if (pszBuffer == nullptr || cch <= CCH_FOLDER) return CCH_FOLDER + 1;
    CopyTextW(pszBuffer, cch, SYSTEM_FOLDER);
    return CCH_FOLDER;
}

HMODULE LoadLibraryW(const char16_t *pszFileName)
{
    if (hosted::FailsNow("LoadLibraryW")) return nullptr;
    if (pszFileName != nullptr) {
        const std::string           sName = LibraryName(pszFileName);
        std::lock_guard<std::mutex> lock(g_csModules);
        for (Library &library : g_aLibraries)
            if (sName == library.pszName && !Removed().contains(sName)) {
                library.nLoads++;
                return &library;
            }
    }
    hosted::SetError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

FARPROC GetProcAddress(HMODULE hModule, const char *pszName)
{
    if (hosted::FailsNow("GetProcAddress")) return nullptr;
    std::lock_guard<std::mutex> lock(g_csModules);
    const Library              *pLibrary   = LoadedLibrary(hModule);
    FARPROC                     pProcedure = nullptr;
    if (pLibrary == nullptr) {
        hosted::SetError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    if (pszName != nullptr && !Removed().contains(std::string(pLibrary->pszName) + "!" + pszName))
        pProcedure = FindProcedure(*pLibrary, pszName);
    if (pProcedure == nullptr) hosted::SetError(ERROR_PROC_NOT_FOUND);
    return pProcedure;
}

BOOL FreeLibrary(HMODULE hModule)
{
    if (hosted::FailsNow("FreeLibrary")) return FALSE;
    std::lock_guard<std::mutex> lock(g_csModules);
    Library                    *pLibrary = LoadedLibrary(hModule);
    if (pLibrary == nullptr) {
        hosted::SetError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    pLibrary->nLoads--;
    return TRUE;
}

uint32_t GetModuleFileNameA(HMODULE hModule, char *pszBuffer, uint32_t cch)
{
    if (hosted::FailsNow("GetModuleFileNameA")) return 0;
    if (hModule != nullptr) {
        hosted::SetError(ERROR_NOT_SUPPORTED);
        return 0;
    }
    if (pszBuffer == nullptr || cch == 0) {
        hosted::SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    const std::string sFile = OwnFile();
    if (CopyTextA(pszBuffer, cch, sFile.c_str())) return static_cast<uint32_t>(sFile.size());
    hosted::SetError(ERROR_INSUFFICIENT_BUFFER);
    return cch;
}

bool GetOwnVersionText(const char16_t *pszSubBlock, char16_t *pszBuffer, uint32_t cch)
{
    if (pszBuffer == nullptr || cch == 0) return false;
    pszBuffer[0] = u'\0';
    if (hosted::FailsNow("GetOwnVersionText") || pszSubBlock == nullptr) return false;
    if (CompareTextNoCaseW(pszSubBlock, u"\\StringFileInfo\\" VORN_VERSION_BLOCK "\\ProductVersion") == 0)
        return CopyTextW(pszBuffer, cch, hosted::ToUtf16(VORN_VERSION_TEXT).c_str());
    hosted::SetError(ERROR_NOT_FOUND);
    return false;
}

} // namespace platform
