// trace_control.cpp: the answer to a session that enables or disables a provider.
#include "trace/trace_control.h"
#include "platform/errors.h"

using namespace platform;

uint32_t ControlCallback(uint32_t nRequestCode, void *pContext, uint32_t *pcbBuffer, void *pBuffer)
{
    TRACEHANDLE hLogger = 0;
    uint8_t     bLevel  = 0;
    uint32_t    dwFlags = 0;

    *pcbBuffer = 0;
    switch (nRequestCode) {
    case WMI_ENABLE_EVENTS:
        hLogger = GetTraceLoggerHandle(pBuffer);
        bLevel  = GetTraceEnableLevel(hLogger);
        dwFlags = GetTraceEnableFlags(hLogger);
        break;
    case WMI_DISABLE_EVENTS: break;
    default: return ERROR_INVALID_PARAMETER;
    }

    auto *pBlock = static_cast<TraceControlBlock *>(pContext);
    if ((pBlock->bOptions & TRACE_OPTION_DELIVER_TO_ALTERNATE) != 0 && pBlock->pAlternate != nullptr) {
        pBlock = pBlock->pAlternate;
    }
    // The gate opens last and closes first: who passes it finds a logger.
    if (dwFlags == 0) pBlock->dwEnableFlags = 0;
    pBlock->hLogger       = hLogger;
    pBlock->bEnableLevel  = bLevel;
    pBlock->dwEnableFlags = dwFlags;
    return ERROR_SUCCESS;
}
