// command_pipe_server.h: the agent's own named pipe, on which the migration service writes records.
// Threads  CommandPipeServerThread is started once by the main thread; one NetLoopThread for each connected client,
//          which ends when its client closes the pipe.
#pragma once
#include "platform/types.h"
#include <atomic>
#include <cstdint>

constexpr uint32_t COMMAND_PIPE_BUFFER_BYTES = 7920; // five records: what a client may write before any is read

// Both names end in the session: "%s_0x%x".
constexpr char16_t AGENT_MUTEX_NAME[] = u"Global\\VornMigrationNet_NamedPipeMux";
constexpr char16_t AGENT_PIPE_NAME[]  = u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand";

// Manual-reset, made by the main thread for the time it waits for the server at start-up; null otherwise. Whoever
// exchanges it for null owns it: the server takes it to signal it once its first connection is awaited (the main thread
// then closes it after the signal), the main thread takes it back when its wait is over first.
extern std::atomic<platform::HANDLE> g_hStartupEvent;

// True while the service has still to be told that the agent's pipe is there. Set by the main thread before it starts
// the server; whoever exchanges it for false tells: the main thread after the wait, the server when that was over
// first.
extern std::atomic<bool> g_bReadyUnsaid;
void                     SayReady(); // does so, once; any thread

// Result 0. Ends with the stop signal, or when the pipe cannot be created three times in a row.
uint32_t CommandPipeServerThread(void *pUnused);
