// message_formats.h: how each trace message is displayed: the one table that trace sessions, the trace viewer and the
// generated TMF file share. The program itself formats nothing; the numbers and arguments are fixed by trace_log.cpp.
#pragma once
#include "platform/event_tracing.h"
#include <cstddef>

constexpr platform::GUID TRACE_CLASS_GUID = {
    0xeab78ba6, 0xc61f, 0x3835, {0x08, 0xb6, 0xab, 0x28, 0xbc, 0x8b, 0x57, 0x5d}};
constexpr char   TRACE_PROGRAM_NAME[] = "VornTramsaNet"; // argument 1 of every message
constexpr size_t TRACE_MESSAGE_COUNT  = 15;
constexpr size_t TRACE_ARGUMENT_COUNT = 8; // of the longest message, program name included

extern const platform::TraceMessageFormat g_aTraceMessageFormats[TRACE_MESSAGE_COUNT]; // by ascending number
