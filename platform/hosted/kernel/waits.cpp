// waits.cpp: WaitForSingleObject and WaitForMultipleObjects.
#include "platform/hosted/kernel/waits.h"
#include "platform/errors.h"
#include "platform/hosted/kernel/clock.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"
#include <algorithm>
#include <cerrno>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace hosted {

Waits &TheWaits()
{
    static Waits &s_Waits = *new Waits;
    return s_Waits;
}

// A waiter whose call has returned meanwhile is no more; waking its address then does nothing, or wakes something that
// looks again, as everything that sleeps on a futex must.
void WakeAll(std::unique_lock<std::mutex> &lock, const Waiters &apWaiters)
{
    constexpr size_t       USUAL = 8;
    std::atomic<uint32_t> *apWords[USUAL];
    size_t                 nWords = 0;
    for (Waiter *pWaiter : apWaiters) {
        pWaiter->nWoken.store(1);
        if (nWords < USUAL) apWords[nWords++] = &pWaiter->nWoken;
        else syscall(SYS_futex, &pWaiter->nWoken, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    lock.unlock();
    for (size_t i = 0; i < nWords; i++) syscall(SYS_futex, apWords[i], FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void Announce(bool bFromMachine)
{
    std::unique_lock<std::mutex> lock(TheWaits().mutex);
    if (bFromMachine) TheWaits().nWakes++;
    WakeAll(lock, TheWaits().apAnnounced);
    TheWaits().condition.notify_all();
}

Deadline DeadlineAfter(uint32_t dwMilliseconds)
{
    return dwMilliseconds == platform::INFINITE ? Deadline::max()
                                                : std::chrono::steady_clock::now() + RealTime(dwMilliseconds);
}

bool WaitUntil(std::unique_lock<std::mutex> &lock, std::condition_variable &condition, const Deadline &deadline)
{
    if (deadline == Deadline::max()) {
        condition.wait(lock);
        return true;
    }
    return condition.wait_until(lock, deadline) == std::cv_status::no_timeout;
}

namespace {

// The calling process, which does not end while somebody here waits for it.
struct OwnProcess : Waitable {
    OwnProcess() : Waitable(HandleKind::Thread) {}
    bool TakeSignal() override { return false; }
};

std::shared_ptr<Waitable> WaitableOf(platform::HANDLE hObject)
{
    if (hObject == platform::GetCurrentProcess()) return std::make_shared<OwnProcess>();
    std::shared_ptr<KernelObject> pObject = ObjectOf(hObject, platform::SYNCHRONIZE);
    if (pObject == nullptr) return nullptr;
    if (pObject->eKind == HandleKind::Event || pObject->eKind == HandleKind::Thread) {
        return std::static_pointer_cast<Waitable>(std::move(pObject));
    }
    SetError(platform::ERROR_NOT_SUPPORTED); // Windows lets a program wait for mutexes, files and pipes too
    return nullptr;
}

// [held, by the lock] Sleeps until somebody wakes it; false when the deadline has passed.
bool SleepUntil(std::unique_lock<std::mutex> &lock, Waiter &waiter, const Deadline &deadline)
{
    constexpr int64_t NS_PER_S = 1000000000;
    const auto        nNs      = std::chrono::nanoseconds(deadline.time_since_epoch()).count();
    const timespec    tEnd     = {static_cast<time_t>(nNs / NS_PER_S), static_cast<long>(nNs % NS_PER_S)};
    int               nErrno   = 0;
    waiter.nWoken.store(0);
    lock.unlock();
    if (syscall(SYS_futex, &waiter.nWoken, FUTEX_WAIT_BITSET_PRIVATE, 0, deadline == Deadline::max() ? nullptr : &tEnd,
                nullptr, FUTEX_BITSET_MATCH_ANY) != 0)
        nErrno = errno;
    lock.lock();
    return nErrno != ETIMEDOUT;
}

// [held: Waits::mutex] The first object that is signalled, or nCount.
uint32_t TakeFirst(uint32_t nCount, const std::shared_ptr<Waitable> *apObjects)
{
    uint32_t i = 0;
    while (i < nCount && !apObjects[i]->TakeSignal()) i++;
    return i;
}

uint32_t WaitForAny(uint32_t nCount, const platform::HANDLE *pHandles, uint32_t dwMilliseconds)
{
    // Kept alive though a handle be closed meanwhile.
    std::shared_ptr<Waitable> aObjects[platform::MAXIMUM_WAIT_OBJECTS];
    for (uint32_t i = 0; i < nCount; i++) {
        aObjects[i] = WaitableOf(pHandles[i]);
        if (aObjects[i] == nullptr) return platform::WAIT_FAILED;
    }
    const Deadline               deadline = DeadlineAfter(dwMilliseconds);
    std::unique_lock<std::mutex> lock(TheWaits().mutex);
    uint32_t                     nTaken = TakeFirst(nCount, aObjects);
    if (nTaken == nCount && dwMilliseconds != 0) {
        Waiter waiter;
        for (uint32_t i = 0; i < nCount; i++) aObjects[i]->ListOfWaiters().push_back(&waiter);
        for (bool bInTime = true; nTaken == nCount && bInTime; nTaken = TakeFirst(nCount, aObjects))
            bInTime = SleepUntil(lock, waiter, deadline);
        for (uint32_t i = 0; i < nCount; i++) {
            Waiters &apWaiters = aObjects[i]->ListOfWaiters();
            apWaiters.erase(std::find(apWaiters.begin(), apWaiters.end(), &waiter));
        }
    }
    return nTaken == nCount ? platform::WAIT_TIMEOUT : platform::WAIT_OBJECT_0 + nTaken;
}

} // namespace
} // namespace hosted

uint32_t platform::WaitForSingleObject(HANDLE hHandle, uint32_t dwMilliseconds)
{
    if (hosted::FailsNow("WaitForSingleObject")) return WAIT_FAILED;
    return hosted::WaitForAny(1, &hHandle, dwMilliseconds);
}

uint32_t platform::WaitForMultipleObjects(uint32_t nCount, const HANDLE *pHandles, BOOL bWaitAll,
                                          uint32_t dwMilliseconds)
{
    if (hosted::FailsNow("WaitForMultipleObjects")) return WAIT_FAILED;
    if (nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS || bWaitAll) {
        hosted::SetError(bWaitAll ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return hosted::WaitForAny(nCount, pHandles, dwMilliseconds);
}
