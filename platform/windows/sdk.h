// sdk.h: the SDK's headers for the forwarding sources of this folder, and how the seam's types become the SDK's.
// The SDK's constants are macros that would rewrite platform::NAME. A source therefore lists what its interface
// mirrors, has the values captured under other names (MIRROR_CAPTURE) before this header brings the macros in, and
// compares afterwards (MIRROR_COMPARE). The interface's own header is always included first.
//
//     #include "platform/volumes.h"
//     #include "platform/windows/mirror.h"
//     #define MIRRORED(X) X(DRIVE_FIXED) X(DRIVE_REMOTE)
//     namespace mirror { MIRRORED(MIRROR_CAPTURE) }
//     #include "platform/windows/sdk.h"
//     namespace mirror { MIRRORED(MIRROR_COMPARE) }
#pragma once
#include "platform/kernel.h"

#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cwchar>

namespace platform {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "both are UTF-16 units");

inline const wchar_t *AsWide(const char16_t *pszText)
{
    return reinterpret_cast<const wchar_t *>(pszText);
}

inline wchar_t *AsWide(char16_t *pszText)
{
    return reinterpret_cast<wchar_t *>(pszText);
}

// The 32-bit out-parameters: the SDK's DWORD and ULONG are unsigned long, the seam's uint32_t is unsigned int.
static_assert(sizeof(DWORD) == sizeof(uint32_t) && sizeof(LONG) == sizeof(int32_t), "both have 32 bits");

inline DWORD *AsSdk(uint32_t *pdwValue)
{
    return reinterpret_cast<DWORD *>(pdwValue);
}

// What CreateEveryoneSecurity gave begins with the SDK's structure.
inline ::SECURITY_ATTRIBUTES *AsSdk(SECURITY_ATTRIBUTES *pSecurity)
{
    return reinterpret_cast<::SECURITY_ATTRIBUTES *>(pSecurity);
}

} // namespace platform
