// event_tracing.cpp: the classic event-tracing provider calls and the debugger output, forwarded.
// Wine's TraceMessage writes nothing and reports success, so what a message carries can only be read back on Windows.
#include "platform/event_tracing.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(TRACE_MESSAGE_SEQUENCE) X(TRACE_MESSAGE_GUID) X(TRACE_MESSAGE_TIMESTAMP) X(TRACE_MESSAGE_SYSTEMINFO)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include <cstdarg>
#include <wmistr.h>
#include <evntrace.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
static_assert(platform::WMI_ENABLE_EVENTS == ::WMI_ENABLE_EVENTS &&
              platform::WMI_DISABLE_EVENTS == ::WMI_DISABLE_EVENTS);
MIRROR_SIZE(TRACEHANDLE)
MIRROR_SIZE(TRACE_GUID_REGISTRATION)
MIRROR_FIELD(TRACE_GUID_REGISTRATION, Guid)
MIRROR_FIELD(TRACE_GUID_REGISTRATION, RegHandle)
} // namespace mirror

namespace platform {

static const ::GUID *AsSdk(const GUID *pGuid)
{
    return reinterpret_cast<const ::GUID *>(pGuid);
}

uint32_t RegisterTraceGuidsW(TraceControlCallback pCallback, void *pContext, const GUID *pControlGuid, uint32_t nGuids,
                             TRACE_GUID_REGISTRATION *pGuids, const char16_t *pszMofImagePath,
                             const char16_t *pszMofResourceName, TRACEHANDLE *phRegistration)
{
    return ::RegisterTraceGuidsW(reinterpret_cast<WMIDPREQUEST>(reinterpret_cast<void *>(pCallback)), pContext,
                                 AsSdk(pControlGuid), nGuids, reinterpret_cast<::TRACE_GUID_REGISTRATION *>(pGuids),
                                 AsWide(pszMofImagePath), AsWide(pszMofResourceName), phRegistration);
}

uint32_t UnregisterTraceGuids(TRACEHANDLE hRegistration)
{
    return ::UnregisterTraceGuids(hRegistration);
}

TRACEHANDLE GetTraceLoggerHandle(void *pBuffer)
{
    return ::GetTraceLoggerHandle(pBuffer);
}

uint8_t GetTraceEnableLevel(TRACEHANDLE hLogger)
{
    return ::GetTraceEnableLevel(hLogger);
}

uint32_t GetTraceEnableFlags(TRACEHANDLE hLogger)
{
    return ::GetTraceEnableFlags(hLogger);
}

uint32_t TraceMessage(TRACEHANDLE hLogger, uint32_t dwMessageFlags, const GUID *pMessageGuid, uint32_t nMessageNumber,
                      ...)
{
    va_list args;
    va_start(args, nMessageNumber);
    const uint32_t dwResult =
        ::TraceMessageVa(hLogger, dwMessageFlags, AsSdk(pMessageGuid), static_cast<USHORT>(nMessageNumber), args);
    va_end(args);
    return dwResult;
}

void SetTraceMessageFormats(const TraceMessageFormat *, size_t)
{
    // The reader of a trace session has the formats from the program's TMF file.
}

void OutputDebugStringA(const char *pszText)
{
    ::OutputDebugStringA(pszText);
}

void OutputDebugStringW(const char16_t *pszText)
{
    ::OutputDebugStringW(AsWide(pszText));
}

} // namespace platform
