// relay.h: records that arrive from the peer's agent, handed to the own service with their direction turned.
// Thread   the peer link's listener (state below too); it only queues, so it never blocks on the service.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>

constexpr uint32_t NO_PROGRESS_TAG = 0xFFFFFFFF;

// Receive progress, set by code 836 with parameter 128 from the peer, consumed by the receiver of type 6 files.
// Listener thread only. The total is what the peer wrote: it may be 0 or negative.
extern uint32_t g_dwReceiveProgressTag;
extern int64_t  g_llReceiveProgressDone;  // bytes
extern int64_t  g_llReceiveProgressTotal; // bytes

// 1 handled, 0 not (unknown code, or its condition fails). The record's texts need not be terminated: each is cut to
// its field. Paths in answers that begin with the ProgramData root are rewritten to begin with the AppData root.
int32_t CallTransferFromNetwork(const IpcMessage *pRecord);
// Back to the initial progress state.
void ResetRelay();
