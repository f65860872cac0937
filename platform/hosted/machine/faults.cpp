// faults.cpp: which call fails, and how often each was made.
// Every public function of the backend comes through FailsNow, so a call without faults costs a look-up and one atomic
// addition: names live in a table that only grows and is read without a lock.
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

namespace {

struct Fault {
    int64_t  nCall; // in the slot's count
    uint32_t dwError;
    bool     bFromThenOn;
};

struct Slot {
    std::atomic<const char *> pszName{nullptr};
    std::atomic<int64_t>      nCalls{0};
    std::atomic<bool>         bArmed{false};
    std::vector<Fault>        aFaults; // under g_Mutex
};

constexpr size_t SLOTS = 1024; // several times the number of names; a power of two
Slot            &SlotAt(size_t i)
{
    static Slot *const s_pSlots = new Slot[SLOTS];
    return s_pSlots[i & (SLOTS - 1)];
}

std::mutex &Mutex()
{
    static std::mutex &s_Mutex = *new std::mutex;
    return s_Mutex;
}

// The slot of a name; made when it is missing and bMake.
Slot *FindSlot(const char *pszName, bool bMake)
{
    uint32_t dwHash = 2166136261u;
    for (const char *p = pszName; *p != '\0'; p++) dwHash = (dwHash ^ static_cast<unsigned char>(*p)) * 16777619u;
    for (size_t i = 0; i < SLOTS; i++) {
        Slot       &slot      = SlotAt(dwHash + i);
        const char *pszStored = slot.pszName.load(std::memory_order_acquire);
        if (pszStored == nullptr) {
            if (!bMake) return nullptr;
            const std::lock_guard<std::mutex> guard(Mutex());
            pszStored = slot.pszName.load(std::memory_order_acquire);
            if (pszStored == nullptr) {
                slot.pszName.store(strdup(pszName), std::memory_order_release);
                return &slot;
            }
        }
        if (std::strcmp(pszStored, pszName) == 0) return &slot;
    }
    hosted::Fatal("more than %zu call names", SLOTS);
}

const hosted::OnUseMachine g_Reset(hosted::ClearFaults);

} // namespace

namespace hosted {

void FailCall(const char *pszCall, int nth, uint32_t dwError, bool bFromThenOn)
{
    Slot                             *pSlot = FindSlot(pszCall, true);
    const std::lock_guard<std::mutex> guard(Mutex());
    pSlot->aFaults.push_back({pSlot->nCalls.load() + nth, dwError, bFromThenOn});
    pSlot->bArmed.store(true);
}

void ClearFaults()
{
    const std::lock_guard<std::mutex> guard(Mutex());
    for (size_t i = 0; i < SLOTS; i++) {
        SlotAt(i).aFaults.clear();
        SlotAt(i).bArmed.store(false);
        SlotAt(i).nCalls.store(0);
    }
}

int CallCount(const char *pszCall)
{
    const Slot *pSlot = FindSlot(pszCall, false);
    return pSlot == nullptr ? 0 : static_cast<int>(pSlot->nCalls.load());
}

// The slot of a name that is a literal of the backend, mostly found by its address.
static Slot *SlotOfLiteral(const char *pszCall)
{
    struct Known {
        std::atomic<const char *> pszName{nullptr};
        std::atomic<Slot *>       pSlot{nullptr};
    };
    constexpr size_t KNOWN    = 256;
    static Known    *s_pKnown = new Known[KNOWN];
    Known           &known    = s_pKnown[(reinterpret_cast<uintptr_t>(pszCall) >> 2) % KNOWN];
    // A slot never moves, so whoever is first at a place keeps it.
    const char *pszKnown = known.pszName.load(std::memory_order_relaxed);
    if (pszKnown == pszCall)
        if (Slot *pSlot = known.pSlot.load(std::memory_order_acquire)) return pSlot;
    Slot *pSlot = FindSlot(pszCall, true);
    if (pszKnown == nullptr && known.pszName.compare_exchange_strong(pszKnown, pszCall))
        known.pSlot.store(pSlot, std::memory_order_release);
    return pSlot;
}

bool FailsNow(const char *pszCall, uint32_t *pdwError)
{
    Start();
    Slot         *pSlot = SlotOfLiteral(pszCall);
    const int64_t nCall = pSlot->nCalls.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!pSlot->bArmed.load(std::memory_order_acquire)) return false;
    const std::lock_guard<std::mutex> guard(Mutex());
    for (const Fault &fault : pSlot->aFaults) {
        if (nCall == fault.nCall || (fault.bFromThenOn && nCall > fault.nCall)) {
            SetError(fault.dwError);
            if (pdwError != nullptr) *pdwError = fault.dwError;
            return true;
        }
    }
    return false;
}

} // namespace hosted
