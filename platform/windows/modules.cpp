// modules.cpp: libraries bound at run time, forwarded, and the program's own version resource.
#include "platform/modules.h"
#include "platform/windows/sdk.h"

#include <string>
#include <vector>

namespace platform {

uint32_t GetSystemDirectoryW(char16_t *pszBuffer, uint32_t cch)
{
    return ::GetSystemDirectoryW(AsWide(pszBuffer), cch);
}

HMODULE LoadLibraryW(const char16_t *pszFileName)
{
    return ::LoadLibraryW(AsWide(pszFileName));
}

FARPROC GetProcAddress(HMODULE hModule, const char *pszName)
{
    return reinterpret_cast<FARPROC>(::GetProcAddress(static_cast<::HMODULE>(hModule), pszName));
}

BOOL FreeLibrary(HMODULE hModule)
{
    return ::FreeLibrary(static_cast<::HMODULE>(hModule));
}

// A folder with characters that the system's code page lacks has a short name without them: nothing can be opened
// by a path with question marks, or with letters that only look like its own. False when the path lacks nothing, or
// there is no other one.
static bool ShortenToCodePage(::HMODULE hModule, char *pszBuffer, uint32_t cch)
{
    constexpr DWORD LONGEST_PATH = 32768;
    std::wstring    sPath(LONGEST_PATH, L'\0'), sShort(LONGEST_PATH, L'\0');
    const auto      LosesNothing = [](const std::wstring &sText) {
        ::BOOL bLost = FALSE; // a code page that has all characters refuses to tell, and the call fails
        ::WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, sText.c_str(), -1, nullptr, 0, nullptr, &bLost);
        return !bLost;
    };
    sPath.resize(::GetModuleFileNameW(hModule, sPath.data(), LONGEST_PATH));
    if (LosesNothing(sPath)) return false;
    const size_t nName     = sPath.rfind(L'\\') + 1;
    const DWORD  cchFolder = ::GetShortPathNameW(sPath.substr(0, nName).c_str(), sShort.data(), LONGEST_PATH);
    sShort.resize(cchFolder < LONGEST_PATH ? cchFolder : 0);
    if (!sShort.empty() && sShort.back() != L'\\') sShort += L'\\';
    sShort += sPath.substr(nName);
    return cchFolder != 0 && LosesNothing(sShort) &&
           ::WideCharToMultiByte(CP_ACP, 0, sShort.c_str(), -1, pszBuffer, static_cast<int>(cch), nullptr, nullptr) > 0;
}

uint32_t GetModuleFileNameA(HMODULE hModule, char *pszBuffer, uint32_t cch)
{
    if (ShortenToCodePage(static_cast<::HMODULE>(hModule), pszBuffer, cch))
        return static_cast<uint32_t>(::strlen(pszBuffer));
    const uint32_t cb = ::GetModuleFileNameA(static_cast<::HMODULE>(hModule), pszBuffer, cch);
    if (cb == cch && cch != 0) {
        pszBuffer[cch - 1] = '\0'; // Wine leaves a name that did not fit without terminator and error
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    }
    return cb;
}

bool GetOwnVersionText(const char16_t *pszSubBlock, char16_t *pszBuffer, uint32_t cch)
{
    constexpr WORD RT_VERSION_ID = 16;
    if (cch == 0) return false;
    pszBuffer[0] = u'\0';

    const HRSRC hFound = ::FindResourceW(nullptr, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(RT_VERSION_ID));
    if (hFound == nullptr) return false;
    const DWORD   cbResource = ::SizeofResource(nullptr, hFound);
    const HGLOBAL hLoaded    = ::LoadResource(nullptr, hFound);
    const void   *pResource  = hLoaded != nullptr ? ::LockResource(hLoaded) : nullptr;
    if (pResource == nullptr) return false;

    // A query may write into the block it looks through, and the resource lies in read-only pages.
    const auto          *pFirst = static_cast<const uint8_t *>(pResource);
    std::vector<uint8_t> copy(pFirst, pFirst + cbResource);
    void                *pText   = nullptr;
    UINT                 cchText = 0;
    if (!::VerQueryValueW(copy.data(), AsWide(pszSubBlock), &pText, &cchText) || cchText == 0) return false;
    const auto  *pszText = static_cast<const wchar_t *>(pText);
    const size_t cchCopy = wcsnlen(pszText, cchText);
    if (cchCopy >= cch) return false; // half a version would compare as another one
    wmemcpy(AsWide(pszBuffer), pszText, cchCopy);
    pszBuffer[cchCopy] = u'\0';
    return true;
}

} // namespace platform
