// relay.h: records that arrive from the peer's agent, handed to the own service with their direction turned.
// Thread   the peer link's listener; it only queues, so it never blocks on the service.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>

// 1 handled, 0 not (unknown code, or its condition fails). The record's texts need not be terminated: each is cut to
// its field. Paths in answers that begin with the ProgramData root are rewritten to begin with the AppData root.
int32_t CallTransferFromNetwork(const IpcMessage *pRecord);
