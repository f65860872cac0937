// event_tracing.h: classic (registered-GUID) event-tracing provider calls, and the debugger output.
// Threads  the control callback comes on a system thread, possibly before RegisterTraceGuidsW returns; everything else
//          any.
#pragma once
#include "platform/types.h"

namespace platform {

using TRACEHANDLE = uint64_t;

constexpr uint32_t WMI_ENABLE_EVENTS      = 4;
constexpr uint32_t WMI_DISABLE_EVENTS     = 5;
constexpr uint32_t TRACE_MESSAGE_SEQUENCE = 1, TRACE_MESSAGE_GUID = 2, TRACE_MESSAGE_TIMESTAMP = 8,
                   TRACE_MESSAGE_SYSTEMINFO = 32;

struct TRACE_GUID_REGISTRATION {
    const GUID *Guid;
    HANDLE      RegHandle;
};

using TraceControlCallback = uint32_t (*)(uint32_t nRequestCode, void *pContext, uint32_t *pcbBuffer, void *pBuffer);

uint32_t RegisterTraceGuidsW(TraceControlCallback pCallback, void *pContext, const GUID *pControlGuid, uint32_t nGuids,
                             TRACE_GUID_REGISTRATION *pGuids, const char16_t *pszMofImagePath,
                             const char16_t *pszMofResourceName, TRACEHANDLE *phRegistration);
uint32_t UnregisterTraceGuids(TRACEHANDLE hRegistration);
TRACEHANDLE GetTraceLoggerHandle(void *pBuffer);
uint8_t     GetTraceEnableLevel(TRACEHANDLE hLogger);
uint32_t    GetTraceEnableFlags(TRACEHANDLE hLogger);
// (pointer, size_t length) pairs follow, ended by (null, 0). nMessageNumber: 16 bits, as Win32's USHORT; wider here,
// since va_start must not be given a parameter whose type is promoted.
uint32_t TraceMessage(TRACEHANDLE hLogger, uint32_t dwMessageFlags, const GUID *pMessageGuid, uint32_t nMessageNumber,
                      ...);

// What message numbers mean, for a backend that is its own reader. On Windows a trace session stores the arguments as
// they are and the reader takes the meaning from the program's TMF file, so the call does nothing there. A hosted
// machine renders each message where it is written, and the (pointer, length) pairs alone do not tell a number from a
// text.
struct TraceMessageFormat {
    uint16_t    nNumber;
    const char *pszFormat; // %1 ... %9 stand for the arguments, %% for a percent sign
    const char *pszTypes;  // one letter per argument: s text with its NUL, u 32-bit number in decimal, x in hexadecimal
};
// pTable is not copied and lives as long as the process. Set before the first TraceMessage; a later call replaces it.
// A number that is not in the table, or arguments that do not fit its types, are written with their bytes in
// hexadecimal.
void SetTraceMessageFormats(const TraceMessageFormat *pTable, size_t nFormats);

void OutputDebugStringA(const char *pszText);
void OutputDebugStringW(const char16_t *pszText);

} // namespace platform
