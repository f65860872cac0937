// service_pipes.h: the migration service's side of both named pipes, for the console.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>
#include <functional>
#include <string>

// Holds the service's mutex and serves its pipe until StopServicePipe. onRecord is called on a pipe thread for each
// record, onNote for everything else worth a line. False when another service runs on this machine or the pipe cannot
// be made.
bool StartServicePipe(std::function<void(const IpcMessage &)> onRecord, std::function<void(const std::string &)> onNote,
                      std::string *psError);
void StopServicePipe();

// Writes one record to the agent's pipe of a session, waiting up to dwTimeoutMs for the pipe to be there and free.
bool SendToAgent(uint32_t dwSession, const IpcMessage &record, uint32_t dwTimeoutMs, std::string *psError);
// Writes raw bytes in one write, to try an agent with records of a wrong size.
bool SendBytesToAgent(uint32_t dwSession, const std::string &sBytes, uint32_t dwTimeoutMs, std::string *psError);
// True when the agent of that session holds its mutex within dwTimeoutMs; with bPresent false: no longer holds it.
bool WaitForAgent(uint32_t dwSession, bool bPresent, uint32_t dwTimeoutMs);
