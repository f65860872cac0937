// stop_request.cpp: see the header.
#include "tools/discovery/stop_request.h"
#include "platform/kernel.h"

using namespace platform;

namespace {

constexpr char16_t STOP_EVENT[] = u"Global\\VORN discovery stop";
constexpr uint32_t SEEN_MS      = 250; // longer than the other program's waits
constexpr uint32_t TRIES = 1000, TRY_MS = 10;

} // namespace

void SendStopRequest()
{
    const HANDLE hRunning = OpenEventW(EVENT_MODIFY_STATE, FALSE, STOP_EVENT);
    if (hRunning == nullptr) return;
    SetEvent(hRunning);
    CloseHandle(hRunning);
}

HANDLE OpenStopRequest()
{
    // Manual-reset: a stop ends every program that runs now. One that starts while the last is ending waits for it to
    // let go of the signalled event, so that a stop never reaches a later start.
    for (uint32_t nTry = 0; nTry < TRIES; nTry++) {
        const HANDLE hStop = CreateEventW(nullptr, TRUE, FALSE, STOP_EVENT);
        if (hStop == nullptr || WaitForSingleObject(hStop, 0) != WAIT_OBJECT_0) return hStop;
        CloseHandle(hStop);
        Sleep(TRY_MS);
    }
    return nullptr;
}

StopKind AwaitStopRequest(HANDLE hStop, uint64_t ullBegin, uint32_t dwMilliseconds)
{
    if (WaitForSingleObject(hStop, dwMilliseconds) != WAIT_OBJECT_0) return STOP_NONE;
    if (GetTickCount64() - ullBegin >= EARLY_STOP_MS) return STOP_NOW;
    Sleep(SEEN_MS);
    ResetEvent(hStop);
    return STOP_EARLY;
}
