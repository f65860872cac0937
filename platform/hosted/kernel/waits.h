// waits.h: how threads of this process wait, for objects of their own and for named ones that another process signals.
// One mutex for the process: a state changes under it. Each waiting thread sleeps on a word of its own and is listed
// with what it waits for, so that setting an unnamed event wakes only those who wait for it. Everything else (threads,
// named objects) is announced to all who wait for any such object; what other processes change comes through the
// machine's wake word, which a watcher thread passes on.
#pragma once
#include "platform/hosted/kernel/handles.h"
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace hosted {

// One call that waits, on its thread's stack; in the lists of its objects for as long as it waits.
struct Waiter {
    std::atomic<uint32_t> nWoken{0}; // what it sleeps on
};
using Waiters = std::vector<Waiter *>;

struct Waits {
    std::mutex              mutex;       // guards what follows, and the lists of the objects
    std::condition_variable condition;   // of those who wait for an announcement itself
    uint64_t                nWakes = 0;  // announcements from the machine so far
    Waiters                 apAnnounced; // who waits for objects that have no list of their own
};
Waits &TheWaits();
// [held, by the lock, which it lets go of] Wakes them. They wake without the mutex, which they want first.
void WakeAll(std::unique_lock<std::mutex> &lock, const Waiters &apWaiters);
// Everybody who does not wait for unnamed events alone looks again. Not under Waits::mutex.
//   bFromMachine  something of run/ has changed
void Announce(bool bFromMachine);

// What WaitForSingleObject accepts.
struct Waitable : KernelObject {
    using KernelObject::KernelObject;
    // [held: Waits::mutex] True when signalled; an auto-reset event is then consumed.
    virtual bool TakeSignal() = 0;
    // [held: Waits::mutex] Where those who wait for it are listed.
    virtual Waiters &ListOfWaiters() { return TheWaits().apAnnounced; }
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
