// console.cpp: the console's own calls: the run-time library's would send UTF-8 through the console's code page, byte
// by byte, and take the null device for a console.
#include "platform/console.h"
#include "platform/text.h"
#include "platform/windows/sdk.h"
#include <algorithm>
#include <cstdio>
#include <string>

namespace platform {

constexpr DWORD  CONSOLE_WRITE_UNITS = 8192; // older consoles take no more than 64 KiB at once
constexpr size_t LONGEST_PATH        = 32768;
constexpr DWORD  CLOSE_MS            = 60000; // longer than the system waits

static ::HANDLE HandleOf(Standard eStream)
{
    return ::GetStdHandle(eStream == Standard::Input    ? STD_INPUT_HANDLE
                          : eStream == Standard::Output ? STD_OUTPUT_HANDLE
                                                        : STD_ERROR_HANDLE);
}

bool IsConsole(Standard eStream)
{
    DWORD dwMode = 0;
    return ::GetConsoleMode(HandleOf(eStream), &dwMode);
}

uint32_t ConsoleColumns(Standard eStream)
{
    CONSOLE_SCREEN_BUFFER_INFO info = {};
    if (!::GetConsoleScreenBufferInfo(HandleOf(eStream), &info)) return 0;
    return static_cast<uint32_t>(std::max(0, info.srWindow.Right - info.srWindow.Left + 1));
}

bool WriteStandard(Standard eStream, const char *pszText)
{
    FILE *pFile = eStream == Standard::Error ? stderr : stdout;
    if (!IsConsole(eStream)) return std::fputs(pszText, pFile) >= 0 && std::fflush(pFile) == 0;
    std::fflush(pFile);
    const int cch = MultiByteToWideChar(CP_UTF8, 0, pszText, -1, nullptr, 0);
    if (cch <= 0) return false;
    std::u16string sWide(static_cast<size_t>(cch), u'\0');
    MultiByteToWideChar(CP_UTF8, 0, pszText, -1, sWide.data(), cch);
    sWide.pop_back();
    for (size_t nAt = 0; nAt < sWide.size();) {
        DWORD       cchWritten = 0;
        const DWORD cchNext    = static_cast<DWORD>(std::min<size_t>(sWide.size() - nAt, CONSOLE_WRITE_UNITS));
        if (!::WriteConsoleW(HandleOf(eStream), sWide.data() + nAt, cchNext, &cchWritten, nullptr) || cchWritten == 0)
            return false;
        nAt += cchWritten;
    }
    return true;
}

static void (*g_pStopHandler)() = nullptr;

static ::BOOL WINAPI OnConsoleEvent(DWORD dwEvent)
{
    g_pStopHandler();
    // The system ends the program as soon as this returns; until then the program ends in its own order.
    if (dwEvent != CTRL_C_EVENT && dwEvent != CTRL_BREAK_EVENT) ::Sleep(CLOSE_MS);
    return TRUE;
}

bool WatchConsoleStop(void (*pHandler)())
{
    g_pStopHandler = pHandler;
    // A program that was started with Ctrl-C switched off (a new process group, a background job) gets it back.
    return ::SetConsoleCtrlHandler(nullptr, FALSE) && ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
}

BOOL StartProgramBeside(const char16_t *pszName, char16_t *pszPath)
{
    std::wstring sOwn(LONGEST_PATH, L'\0');
    const DWORD  cch = ::GetModuleFileNameW(nullptr, sOwn.data(), LONGEST_PATH);
    sOwn.resize(cch < LONGEST_PATH ? cch : 0);
    const std::wstring  sFolder  = sOwn.substr(0, sOwn.rfind(L'\\') + 1);
    const std::wstring  sProgram = sFolder + AsWide(pszName);
    std::wstring        sLine    = L"\"" + sProgram + L"\"";
    STARTUPINFOW        startup  = {};
    PROCESS_INFORMATION process  = {};
    startup.cb                   = sizeof(startup);
    CopyTextW(pszPath, MAX_PATH, reinterpret_cast<const char16_t *>(sProgram.c_str()));
    if (!::CreateProcessW(sProgram.c_str(), sLine.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr,
                          sFolder.c_str(), &startup, &process))
        return FALSE;
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    return TRUE;
}

} // namespace platform
