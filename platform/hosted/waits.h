// waits.h: how threads of this process wait, for objects of their own and for named ones that another process signals.
// One mutex and one condition for the process: a state changes under the mutex and everybody who waits looks again. Who
// waits for one unnamed event alone sleeps at that event, so that setting it wakes nobody else.
// What other processes change is announced through the machine's wake word, which a watcher thread passes on to the
// condition.
#pragma once
#include "platform/hosted/internal.h"
#include <condition_variable>
#include <mutex>

namespace hosted {

struct Waits {
    std::mutex              mutex;
    std::condition_variable condition;
    uint64_t                nWakes = 0;   // announcements from the machine so far
    uint32_t                nSeveral = 0; // threads that wait for several objects at once
};
Waits &TheWaits();

// What WaitForSingleObject accepts.
struct Waitable : KernelObject {
    using KernelObject::KernelObject;
    // [held: Waits::mutex] True when signalled; an auto-reset event is then consumed.
    virtual bool TakeSignal() = 0;
    // Where a thread sleeps that waits for nothing else.
    virtual std::condition_variable &Condition() { return TheWaits().condition; }
};

// Waits on the condition; false when the deadline has passed. [held, by the lock]
using Deadline = std::chrono::steady_clock::time_point;
Deadline DeadlineAfter(uint32_t dwMilliseconds); // Deadline::max() for INFINITE
bool     WaitUntil(std::unique_lock<std::mutex> &lock, std::condition_variable &condition, const Deadline &deadline);

// ---- events.cpp ----
// SetEvent or ResetEvent on an event object that a call under way keeps (an overlapped operation's).
void SignalEventObject(KernelObject &event, bool bSet);

// ---- wake_word.cpp ----
// Starts passing the machine's announcements on in this process; before the first wait for anything of run/.
// False with the last error set when there is no machine.
bool ListenForWakes();
// Something in run/ changed: every waiting thread of every process of the machine looks again. Not under Waits::mutex.
void WakeMachine();

} // namespace hosted
