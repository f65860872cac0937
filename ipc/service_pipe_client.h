// service_pipe_client.h: the queue of records for the migration service and the thread that writes them to its pipe.
// Lock     the queue's critical section, held to copy records in and out and to signal the queue event, never while the
//          pipe is used. It is made on first use and lives as long as the process, so that storing a record is safe
//          before the sender thread has run and after it has ended. What the sender's life decides is the queue event
//          alone: it exists while the sender waits, is made, signalled and closed under the lock, and its absence makes
//          a call's result 0.
#pragma once
#include "ipc/ipc_message.h"

constexpr int32_t  SERVICE_QUEUE_RECORDS   = 8;    // a ninth pushes out the oldest
constexpr uint32_t SERVICE_RECORD_PAUSE_MS = 15;   // after each record, so that the service keeps up
constexpr uint32_t SERVICE_PIPE_WAIT_MS    = 2000; // for an instance of a busy pipe, again and again

constexpr char16_t SERVICE_MUTEX_NAME[] = u"Global\\VornMigrationSrv_NamedPipeMux";
constexpr char16_t SERVICE_PIPE_NAME[]  = u"\\\\.\\pipe\\VornMigrationSrv_NamedPipeCommand";

// Queues one record; never blocks on the service. Texts may be null; each is cut to 259 units.
// Result: non-zero when it was queued and the queue event exists. Any thread.
int32_t CallServiceNamedPipe(uint32_t dwCommand, int32_t nParam1, int32_t nParam2, int32_t nParam3,
                             const char16_t *pszText1, const char16_t *pszText2, const char16_t *pszText3);
// The same for a code with one long text of at most 780 units (terminator optional at that length).
int32_t CallServiceNamedPipeLongText(uint32_t dwCommand, int32_t nParam1, int32_t nParam2, int32_t nParam3,
                                     const char16_t *pszLongText);
// Sends what is queued. 1 when it reached the service's pipe; 0 when there was nothing, or the service is not there and
// what was queued has been discarded: stale reports would only confuse a service that starts later. Queue-sender thread
// only.
int32_t PassObjectInQueue();
// Thread procedure, started once by the main thread; ends with the stop signal.
uint32_t ServicePipeSenderThread(void *pUnused);
// The session of this process, asked for once; 0xFFFFFFFF when it cannot be had. Any thread.
uint32_t GetOwnSessionId();
// Empties the queue and forgets the cached session. Tests only, with no sender thread running.
void ResetServicePipeClient();
