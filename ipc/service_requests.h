// service_requests.h: which of the service's records the agent accepts, and what it does with each.
#pragma once
#include "ipc/ipc_message.h"

// Filters one record of the service (dwSessionId 0) and acts on it or hands it to a worker.
// Never waits. Any thread; takes no lock of its own. The record's texts may lack terminators.
void NetHandleIPC(const IpcMessage *pRecord);
