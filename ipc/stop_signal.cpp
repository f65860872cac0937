// stop_signal.cpp: the stop signal's one definition, and the wait that also ends when the event is gone.
#include "ipc/stop_signal.h"
#include "platform/errors.h"
#include "platform/kernel.h"

using namespace platform;

std::atomic<HANDLE> g_hAppEvent{nullptr};

bool WaitForStop(uint32_t dwMilliseconds)
{
    const HANDLE hEvent = g_hAppEvent;
    // A failing wait means that shut-down has closed the event meanwhile: nothing is left to work for.
    return hEvent == nullptr || WaitForSingleObject(hEvent, dwMilliseconds) != WAIT_TIMEOUT;
}
