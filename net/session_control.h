// session_control.h: what the migration service asks of the link: PIN codes, roles, release.
// Threads  each request runs on a short-lived thread of its own; newer requests win by their tick-count stamps.
#pragma once
#include "ipc/ipc_message.h"
#include "platform/types.h"
#include <atomic>
#include <cstdint>

// Copies the record and starts CallPinCodeThread on it. 1, or 0. A null record gives a zeroed block and errno 22.
int32_t  StartPinCodeThread(const IpcMessage *pRecord);
uint32_t CallPinCodeThread(void *pBlock);
uint32_t NetInitializationThread(void *pUnused);
// Replaces the password that a listening server asks for by the PIN that g_szServerPin holds by now, unless a peer is
// being admitted. Any thread.
void UpdateServerPW(const char *pszPin);
// dwMode: 1 server, 2 client, 3 disconnect (dwOption 1: the service is told first). 1, or 0 when the thread cannot be
// had.
int32_t  StartNetworkConnect(uint32_t dwMode, uint32_t dwOption);
uint32_t NetworkConnectThread(void *pBlock);
