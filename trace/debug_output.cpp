// debug_output.cpp: the socket and file layers' lines for a debugger.
#include "trace/debug_output.h"
#include "platform/errors.h"
#include "platform/event_tracing.h"
#include "platform/text.h"
#include <cstdarg>

using namespace platform;

std::atomic<uint8_t> g_bSocketDebug{0};

void TraceDebugA(const char *pszFormat, ...)
{
    if (!g_bSocketDebug.load(std::memory_order_relaxed)) return;
    const uint32_t dwLastError              = GetLastError();
    char           szLine[DEBUG_LINE_UNITS] = {};
    va_list        args;
    va_start(args, pszFormat);
    FormatTextVA(szLine, DEBUG_LINE_UNITS, pszFormat, args);
    va_end(args);
    OutputDebugStringA(szLine);
    SetLastError(dwLastError);
}

void TraceDebugW(const char16_t *pszFormat, ...)
{
    if (!g_bSocketDebug.load(std::memory_order_relaxed)) return;
    const uint32_t dwLastError              = GetLastError();
    char16_t       szLine[DEBUG_LINE_UNITS] = {};
    va_list        args;
    va_start(args, pszFormat);
    FormatTextVW(szLine, DEBUG_LINE_UNITS, pszFormat, args);
    va_end(args);
    OutputDebugStringW(szLine);
    SetLastError(dwLastError);
}
