// types.h: the scalar types of the platform interfaces.
// Names and meanings are Win32's; the widths are those of 64-bit Windows on both backends. Text is char16_t where
// Win32 has WCHAR and char where it has CHAR (the ANSI code page of a hosted machine is UTF-8).
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

using BOOL      = int32_t;
using HANDLE    = void *;
using HMODULE   = void *;
using HINSTANCE = void *;
using HWND      = void *;
using HICON     = void *;
using HCURSOR   = void *;
using HBRUSH    = void *;
using HMENU     = void *;
using HKEY      = void *;
using ATOM      = uint16_t;
using SOCKET    = uint64_t;
using WPARAM    = uint64_t;
using LPARAM    = int64_t;
using LRESULT   = int64_t;
using HRESULT   = int32_t;
using NTSTATUS  = int32_t;
using FARPROC   = void (*)();

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE  = 1;

constexpr uint32_t MAX_PATH = 260; // UTF-16 units or bytes, terminator included

inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));

struct GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t  Data4[8];
};
static_assert(sizeof(GUID) == 16, "the binary form of a GUID is 16 bytes");

} // namespace platform
