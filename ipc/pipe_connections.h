// pipe_connections.h: the clients of the agent's pipe in the order in which they came, and whose records are next.
// A service that opens a connection for each record relies on their order: "disconnect" and then "connect" the other
// way round would leave a person without a link and without a report. So what a connection brings is handled when every
// older one is quiet: nothing that it has written is still to be handled, and it has written something, or has been
// silent for SILENT_CONNECTION_MS. Silences run side by side, so any number of clients that say nothing hold the next
// one up for no longer than that.
// Threads  each connection's own reader, but AddPipeConnection: the accepting thread.
// Lock     the list's own, entered and left inside each call; never held while a call waits.
#pragma once
#include "ipc/ipc_message.h"
#include "platform/types.h"
#include <cstdint>

constexpr uint32_t SILENT_CONNECTION_MS  = 200;  // from the moment it was accepted
constexpr uint32_t LATE_CONNECTION_MS    = 400;  // for an older one whose records take long, from one's own on
constexpr uint32_t CONNECTION_READ_BYTES = 7920; // five records
static_assert(CONNECTION_READ_BYTES == 5 * IPC_MESSAGE_SIZE);

struct PipeConnection {
    IpcMessage aRecords[CONNECTION_READ_BYTES / IPC_MESSAGE_SIZE]; // what the last read gave
    struct Place;
    Place *pPlace;
};

// hPipe: connected, overlapped, and from here on the connection's. Null: no memory or no events; it is still the
// caller's then.
PipeConnection *AddPipeConnection(platform::HANDLE hPipe);
// Waits for what the client writes next. False when it has gone, the read failed, or the agent ends.
bool ReadConnection(PipeConnection *pConnection, uint32_t *pcbRead);
// Waits until what was read may be handled. False when the agent ends.
bool AwaitTurn(PipeConnection *pConnection);
// Closes the pipe; pConnection is gone.
void EndPipeConnection(PipeConnection *pConnection);
