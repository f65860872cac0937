// detached_thread.h: threads that nobody waits for.
#pragma once
#include "platform/kernel.h"

namespace platform {

// Starts the thread and closes its handle at once. 1, or 0 (GetLastError): then pParameter is still the caller's.
int32_t StartDetachedThread(ThreadProcedure pStart, void *pParameter);

} // namespace platform
