// detached_thread.cpp: the same on both backends.
#include "platform/detached_thread.h"

namespace platform {

int32_t StartDetachedThread(ThreadProcedure pStart, void *pParameter)
{
    const HANDLE hThread = CreateThread(nullptr, 0, pStart, pParameter, 0, nullptr);
    if (hThread == nullptr) return 0;
    CloseHandle(hThread);
    return 1;
}

} // namespace platform
