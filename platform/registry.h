// registry.h: reading one value.
#pragma once
#include "platform/types.h"

namespace platform {

inline const HKEY HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<intptr_t>(static_cast<int32_t>(0x80000002)));

constexpr uint32_t KEY_QUERY_VALUE = 0x0001;
constexpr uint32_t KEY_WOW64_64KEY = 0x0100;
constexpr uint32_t REG_DWORD       = 4;

// All give 0 or an error code.
int32_t RegOpenKeyExW(HKEY hKey, const char16_t *pszSubKey, uint32_t dwOptions, uint32_t dwAccess, HKEY *phResult);
int32_t RegQueryValueExW(HKEY hKey, const char16_t *pszValueName, uint32_t *pdwReserved, uint32_t *pdwType,
                         uint8_t *pbData, uint32_t *pcbData);
int32_t RegCloseKey(HKEY hKey);

} // namespace platform
