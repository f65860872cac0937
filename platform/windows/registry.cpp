// registry.cpp: reading one value, forwarded.
#include "platform/registry.h"
#include "platform/windows/mirror.h"

#define MIRRORED(X) X(KEY_QUERY_VALUE) X(KEY_WOW64_64KEY) X(REG_DWORD)
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"

namespace mirror {
MIRRORED(MIRROR_COMPARE)
}

namespace platform {

// HKEY_LOCAL_MACHINE's value is a cast, not a constant expression; the registry tests read through it.
static ::HKEY AsSdk(HKEY hKey)
{
    return static_cast<::HKEY>(hKey);
}

int32_t RegOpenKeyExW(HKEY hKey, const char16_t *pszSubKey, uint32_t dwOptions, uint32_t dwAccess, HKEY *phResult)
{
    return ::RegOpenKeyExW(AsSdk(hKey), AsWide(pszSubKey), dwOptions, dwAccess, reinterpret_cast<::HKEY *>(phResult));
}

int32_t RegQueryValueExW(HKEY hKey, const char16_t *pszValueName, uint32_t *pdwReserved, uint32_t *pdwType,
                         uint8_t *pbData, uint32_t *pcbData)
{
    return ::RegQueryValueExW(AsSdk(hKey), AsWide(pszValueName), AsSdk(pdwReserved), AsSdk(pdwType), pbData,
                              AsSdk(pcbData));
}

int32_t RegCloseKey(HKEY hKey)
{
    return ::RegCloseKey(AsSdk(hKey));
}

} // namespace platform
