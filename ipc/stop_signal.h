// stop_signal.h: the single-instance event, which is also the process-wide stop signal.
#pragma once
#include "platform/types.h"
#include <atomic>
#include <cstdint>

// "VORN Migration Network Application Event", manual-reset. Created, signalled and closed by the main thread alone;
// waited for by every worker. Null before start-up and after shut-down: a worker that finds it null ends. Atomic,
// because a worker that outlives shut-down's bounded waits may still read it while the main thread clears it.
extern std::atomic<platform::HANDLE> g_hAppEvent;

// Waits for the stop signal. Any thread; takes no lock.
//   dwMilliseconds  at most so long; 0 only looks
//   true   signalled, or there is no event any more: the caller ends
//   false  the time is over and the process goes on
bool WaitForStop(uint32_t dwMilliseconds);
