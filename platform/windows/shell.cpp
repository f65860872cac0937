// shell.cpp: known folders, the command line and the computer's name, forwarded. The functions of shell32 and shlwapi
// (which brings user32 with it) are bound at the first call: the program's import table names neither.
#include "platform/shell.h"
#include "platform/windows/mirror.h"

#define MIRRORED(X) X(CSIDL_COMMON_APPDATA) X(S_OK)
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include "platform/windows/bind.h"
#include <objbase.h>
#include <shlobj.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
}

namespace platform {

BOOL SHGetSpecialFolderPathA(HWND hWnd, char *pszPath, int32_t nCsidl, BOOL bCreate)
{
    static const auto pFunction =
        BindSystemFunction<decltype(&::SHGetSpecialFolderPathA)>({L"shell32.dll"}, "SHGetSpecialFolderPathA");
    return pFunction != nullptr ? pFunction(static_cast<::HWND>(hWnd), pszPath, nCsidl, bCreate) : FALSE;
}

HRESULT SHGetKnownFolderPath(const GUID &rfid, uint32_t dwFlags, HANDLE hToken, char16_t **ppszPath)
{
    static const auto pFunction =
        BindSystemFunction<decltype(&::SHGetKnownFolderPath)>({L"shell32.dll"}, "SHGetKnownFolderPath");
    *ppszPath = nullptr;
    if (pFunction == nullptr) return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    return pFunction(reinterpret_cast<const ::GUID &>(rfid), dwFlags, hToken, reinterpret_cast<wchar_t **>(ppszPath));
}

void CoTaskMemFree(void *pMem)
{
    ::CoTaskMemFree(pMem);
}

BOOL PathMakeSystemFolderW(const char16_t *pszPath)
{
    using PathMakeSystemFolderWProc = ::BOOL(WINAPI *)(LPCWSTR);
    static const auto pFunction =
        BindSystemFunction<PathMakeSystemFolderWProc>({L"shlwapi.dll"}, "PathMakeSystemFolderW");
    return pFunction != nullptr ? pFunction(AsWide(pszPath)) : FALSE;
}

const char16_t *GetCommandLineW()
{
    return reinterpret_cast<const char16_t *>(::GetCommandLineW());
}

char16_t **CommandLineToArgvW(const char16_t *pszCommandLine, int32_t *pnArgs)
{
    using CommandLineToArgvWProc = LPWSTR *(WINAPI *)(LPCWSTR, int *);
    static const auto pFunction  = BindSystemFunction<CommandLineToArgvWProc>({L"shell32.dll"}, "CommandLineToArgvW");
    return pFunction != nullptr ? reinterpret_cast<char16_t **>(pFunction(AsWide(pszCommandLine), pnArgs)) : nullptr;
}

BOOL GetComputerNameW(char16_t *pszBuffer, uint32_t *pcch)
{
    return ::GetComputerNameW(AsWide(pszBuffer), AsSdk(pcch));
}

} // namespace platform
