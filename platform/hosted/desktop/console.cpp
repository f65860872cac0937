// console.cpp: a hosted machine's console is the terminal that the tool runs on. There is no close button: the end of
// the terminal (SIGHUP) and the request to end (SIGTERM) stand for it.
#include "platform/console.h"
#include "platform/errors.h"
#include "platform/hosted/machine/errors.h"
#include "platform/modules.h"
#include "platform/path.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "platform/user_interface.h"
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {

static int DescriptorOf(Standard eStream)
{
    return eStream == Standard::Input ? STDIN_FILENO : eStream == Standard::Output ? STDOUT_FILENO : STDERR_FILENO;
}

bool IsConsole(Standard eStream)
{
    return ::isatty(DescriptorOf(eStream)) == 1;
}

uint32_t ConsoleColumns(Standard eStream)
{
    struct winsize size = {};
    return ::ioctl(DescriptorOf(eStream), TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool WriteStandard(Standard eStream, const char *pszText)
{
    FILE *pFile = eStream == Standard::Error ? stderr : stdout;
    return std::fputs(pszText, pFile) >= 0 && std::fflush(pFile) == 0;
}

static void (*g_pStopHandler)() = nullptr;

bool WatchConsoleStop(void (*pHandler)())
{
    struct sigaction action = {};
    g_pStopHandler          = pHandler;
    action.sa_handler       = [](int) { g_pStopHandler(); };
    action.sa_flags         = SA_RESTART;
    bool bAll               = true;
    for (const int nSignal : {SIGINT, SIGHUP, SIGTERM}) bAll &= ::sigaction(nSignal, &action, nullptr) == 0;
    return bAll;
}

BOOL StartProgramBeside(const char16_t *pszName, char16_t *pszPath)
{
    char szPath[MAX_PATH] = "", szName[MAX_PATH] = "";
    if (GetModuleFileNameA(nullptr, szPath, MAX_PATH) == 0) return FALSE;
    WideCharToMultiByte(CP_UTF8, 0, pszName, -1, szName, MAX_PATH, nullptr, nullptr);
    PathRemoveFileSpecA(szPath);
    AppendTextA(szPath, MAX_PATH, "\\");
    AppendTextA(szPath, MAX_PATH, szName);
    MultiByteToWideChar(CP_UTF8, 0, szPath, -1, pszPath, MAX_PATH);
    const HMODULE hShell = LoadSystemLibrary(u"shell32.dll");
    const auto    pStart =
        reinterpret_cast<ShellExecuteAProc>(hShell != nullptr ? GetProcAddress(hShell, "ShellExecuteA") : nullptr);
    const bool bStarted = pStart != nullptr &&
                          reinterpret_cast<uintptr_t>(pStart(nullptr, "open", szPath, nullptr, nullptr, SW_HIDE)) > 32;
    if (!bStarted) hosted::SetError(ERROR_FILE_NOT_FOUND);
    FreeLibrary(hShell);
    return bStarted;
}

} // namespace platform
