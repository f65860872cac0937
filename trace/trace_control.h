// trace_control.h: the control blocks behind trace_log.h: one per provider, how sessions switch them, and their list.
// Threads  RegisterTraceProviders and UnregisterTraceProviders on the main thread; ControlCallback on a thread of the
//          system, possibly while RegisterTraceGuidsW has not returned yet; readers any. No lock: a reader that sees a
//          new flag with an old logger handle writes one message to a session that has gone, which the system refuses.
#pragma once
#include "platform/event_tracing.h"
#include <atomic>
#include <cstdint>

constexpr uint8_t TRACE_OPTION_DELIVER_TO_ALTERNATE = 2; // the enable state goes to pAlternate

struct TraceControlBlock {
    platform::TRACEHANDLE              hRegistration; // 0: not registered; main thread
    std::atomic<platform::TRACEHANDLE> hLogger;       // this and the next two: written by ControlCallback
    std::atomic<uint8_t>               bEnableLevel;
    uint8_t                            bOptions;
    std::atomic<uint32_t>              dwEnableFlags;
    const platform::GUID              *pControlGuid;
    TraceControlBlock                 *pAlternate;
    std::atomic<TraceControlBlock *>   pNext;
};

constexpr platform::GUID MAIN_TRACE_CONTROL_GUID = {
    0x99d1324c, 0x0b93, 0x435a, {0xb6, 0x2b, 0x93, 0xa0, 0xbe, 0xbe, 0x2f, 0x28}};
constexpr platform::GUID SECOND_TRACE_CONTROL_GUID = {
    0x80fdab85, 0x97c9, 0x4e1c, {0x9a, 0x15, 0x84, 0xa1, 0x49, 0xee, 0x85, 0x5f}};

constexpr uint32_t MAIN_TRACE_FLAG   = 2; // the enable flag that opens the main provider's gate
constexpr uint32_t SECOND_TRACE_FLAG = 1; // and the second provider's

// What a session's start or end calls. pContext is the TraceControlBlock that was registered. *pcbBuffer becomes 0.
//    0  the block (or its alternate) has the new state      87 (ERROR_INVALID_PARAMETER)  neither enable nor disable
uint32_t ControlCallback(uint32_t nRequestCode, void *pContext, uint32_t *pcbBuffer, void *pBuffer);
