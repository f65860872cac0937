// profile.cpp: private-profile files, forwarded.
#include "platform/profile.h"
#include "platform/windows/sdk.h"

namespace platform {

uint32_t GetPrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszDefault, char *pszBuffer,
                                  uint32_t cch, const char *pszFile)
{
    return ::GetPrivateProfileStringA(pszSection, pszKey, pszDefault, pszBuffer, cch, pszFile);
}

uint32_t GetPrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszDefault,
                                  char16_t *pszBuffer, uint32_t cch, const char16_t *pszFile)
{
    return ::GetPrivateProfileStringW(AsWide(pszSection), AsWide(pszKey), AsWide(pszDefault), AsWide(pszBuffer), cch,
                                      AsWide(pszFile));
}

uint32_t GetPrivateProfileIntA(const char *pszSection, const char *pszKey, int32_t nDefault, const char *pszFile)
{
    return ::GetPrivateProfileIntA(pszSection, pszKey, nDefault, pszFile);
}

uint32_t GetPrivateProfileIntW(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault,
                               const char16_t *pszFile)
{
    return ::GetPrivateProfileIntW(AsWide(pszSection), AsWide(pszKey), nDefault, AsWide(pszFile));
}

BOOL WritePrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszValue, const char *pszFile)
{
    return ::WritePrivateProfileStringA(pszSection, pszKey, pszValue, pszFile);
}

BOOL WritePrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue,
                                const char16_t *pszFile)
{
    return ::WritePrivateProfileStringW(AsWide(pszSection), AsWide(pszKey), AsWide(pszValue), AsWide(pszFile));
}

} // namespace platform
