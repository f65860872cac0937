// debug_output.h: printf-style lines to the debugger output, only while g_bSocketDebug is set.
// Threads  any; no lock. The last error and the last Winsock error (one value) stay as they were.
#pragma once
#include <atomic>
#include <cstddef>
#include <cstdint>

// 0 at start; once 1 it is never cleared for the life of the process. Writer: SocketDebugInit. Readers: everything
// below.
extern std::atomic<uint8_t> g_bSocketDebug;

constexpr size_t DEBUG_LINE_UNITS = 4096; // bytes of TraceDebugA's line, UTF-16 units of TraceDebugW's

// Formats (the dialect of platform/text.h) into a zeroed buffer of 4096 bytes or units, cut at its end, and passes it
// to OutputDebugStringA / OutputDebugStringW. With the flag clear nothing is formatted.
void TraceDebugA(const char *pszFormat, ...);
void TraceDebugW(const char16_t *pszFormat, ...);
