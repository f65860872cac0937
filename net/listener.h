// listener.h: the one reader of a link.
#pragma once
#include "platform/kernel.h"
#include "platform/sockets.h"
#include <cstdint>

// The listener's argument: what it needs of its link, taken while the role's starter still owned it. The thread frees
// it.
struct ListenerStart;
// Starts the listener of a role on its socket, with a duplicate of the exit event of its own, on the link that is
// current. The socket is the listener's from then on. [role lock] 1, or 0 when it cannot start (reported).
int32_t  StartServerListener(platform::SOCKET hSocket, platform::HANDLE hExitEvent);
int32_t  StartClientListener(platform::SOCKET hSocket, platform::HANDLE hExitEvent);
uint32_t ServerListenThread(void *pStart);
uint32_t ClientListenThread(void *pStart);

// Listener. 0, or -2 when the record was not received.
int32_t SendDataCMDHandler(platform::SOCKET hSocket);
