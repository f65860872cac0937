// events.cpp: events and mutexes.
// Difference from Windows: a mutex is a name and nothing else; a wait for one is refused (waits.cpp), so who owns it
// first cannot be seen.
#include "platform/errors.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/named_objects.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/kernel/waits.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"

namespace hosted {
namespace {

struct Event : Waitable {
    Event() : Waitable(HandleKind::Event) {}
    virtual void Set()   = 0;
    virtual void Reset() = 0;
};

struct LocalEvent : Event {
    LocalEvent(bool bManual, bool bInitial) : bManualReset(bManual), bSignalled(bInitial) {}
    bool TakeSignal() override
    {
        const bool bWas = bSignalled;
        if (!bManualReset) bSignalled = false;
        return bWas;
    }
    void Set() override
    {
        std::unique_lock<std::mutex> lock(TheWaits().mutex);
        bSignalled = true;
        WakeAll(lock, apWaiters);
    }
    Waiters &ListOfWaiters() override { return apWaiters; }
    void     Reset() override
    {
        const std::lock_guard<std::mutex> guard(TheWaits().mutex);
        bSignalled = false;
    }
    const bool bManualReset;
    bool       bSignalled; // this and the next under Waits::mutex
    Waiters    apWaiters;
};

struct NamedEvent : Event {
    explicit NamedEvent(std::unique_ptr<NamedObject> pObject) : pNamed(std::move(pObject))
    {
        bSecured         = pNamed->State().bSecured != 0;
        dwEveryoneAccess = pNamed->State().dwEveryoneAccess;
    }
    bool TakeSignal() override
    {
        NamedState &state     = pNamed->State();
        uint32_t    bExpected = 1; // of all the processes that wait, one gets an auto-reset event
        return state.bManualReset ? state.bSignalled.load() != 0
                                  : state.bSignalled.compare_exchange_strong(bExpected, 0);
    }
    void Set() override
    {
        {
            // The mutex orders what this thread did before with the waiting threads of this process.
            const std::lock_guard<std::mutex> guard(TheWaits().mutex);
            pNamed->State().bSignalled.store(1);
        }
        WakeMachine();
    }
    void Reset() override
    {
        const std::lock_guard<std::mutex> guard(TheWaits().mutex);
        pNamed->State().bSignalled.store(0);
    }
    std::unique_ptr<NamedObject> pNamed;
};

struct Mutex : KernelObject {
    explicit Mutex(std::unique_ptr<NamedObject> pObject) : KernelObject(HandleKind::Mutex), pNamed(std::move(pObject))
    {
        bSecured         = pNamed->State().bSecured != 0;
        dwEveryoneAccess = pNamed->State().dwEveryoneAccess;
    }
    std::unique_ptr<NamedObject> pNamed;
};

bool HasName(const char16_t *pszName)
{
    return pszName != nullptr && pszName[0] != u'\0';
}

void SetState(NamedState *pState, const platform::SECURITY_ATTRIBUTES *pSecurity, bool bManualReset, bool bSignalled)
{
    pState->bManualReset = bManualReset;
    pState->bSignalled.store(bSignalled);
    pState->bSecured         = pSecurity != nullptr;
    pState->dwEveryoneAccess = pSecurity != nullptr ? pSecurity->dwEveryoneAccess : 0;
}

std::shared_ptr<KernelObject> MakeMutex(const platform::SECURITY_ATTRIBUTES *pSecurity, const char16_t *pszName,
                                        bool *pbExisted)
{
    if (!HasName(pszName)) {
        SetError(platform::ERROR_NOT_SUPPORTED); // it would be good for nothing
        return nullptr;
    }
    NamedState state{};
    SetState(&state, pSecurity, false, false);
    std::unique_ptr<NamedObject> pNamed = NamedObject::Open(pszName, HandleKind::Mutex, true, &state, pbExisted);
    return pNamed == nullptr ? nullptr : std::make_shared<Mutex>(std::move(pNamed));
}

std::shared_ptr<KernelObject> MakeEvent(const platform::SECURITY_ATTRIBUTES *pSecurity, bool bManualReset,
                                        bool bInitial, const char16_t *pszName, bool *pbExisted)
{
    if (!HasName(pszName)) {
        auto pEvent              = std::make_shared<LocalEvent>(bManualReset, bInitial);
        pEvent->bSecured         = pSecurity != nullptr;
        pEvent->dwEveryoneAccess = pSecurity != nullptr ? pSecurity->dwEveryoneAccess : 0;
        return pEvent;
    }
    NamedState state{};
    SetState(&state, pSecurity, bManualReset, bInitial);
    if (!ListenForWakes()) return nullptr;
    std::unique_ptr<NamedObject> pNamed = NamedObject::Open(pszName, HandleKind::Event, true, &state, pbExisted);
    return pNamed == nullptr ? nullptr : std::make_shared<NamedEvent>(std::move(pNamed));
}

// The handle of what Make... gave, with the last error that a creator gets.
platform::HANDLE HandleOfNew(std::shared_ptr<KernelObject> pObject, bool bExisted)
{
    if (pObject == nullptr) return nullptr;
    SetError(bExisted ? platform::ERROR_ALREADY_EXISTS : platform::ERROR_SUCCESS);
    return AddHandle(std::move(pObject));
}

// Checks what OpenEventW and OpenMutexW have in common.
bool CanOpen(platform::BOOL bInheritHandle, const char16_t *pszName)
{
    if (!bInheritHandle && HasName(pszName)) return true;
    SetError(bInheritHandle ? platform::ERROR_NOT_SUPPORTED : platform::ERROR_INVALID_PARAMETER);
    return false;
}

} // namespace
} // namespace hosted

platform::HANDLE platform::CreateEventW(SECURITY_ATTRIBUTES *pSecurity, BOOL bManualReset, BOOL bInitialState,
                                        const char16_t *pszName)
{
    if (hosted::FailsNow("CreateEventW")) return nullptr;
    bool bExisted = false;
    auto pEvent   = hosted::MakeEvent(pSecurity, bManualReset != FALSE, bInitialState != FALSE, pszName, &bExisted);
    return hosted::HandleOfNew(std::move(pEvent), bExisted);
}

platform::HANDLE platform::OpenEventW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName)
{
    if (hosted::FailsNow("OpenEventW")) return nullptr;
    if (!hosted::CanOpen(bInheritHandle, pszName) || !hosted::ListenForWakes()) return nullptr;
    auto pNamed = hosted::NamedObject::Open(pszName, hosted::HandleKind::Event, false, nullptr, nullptr);
    if (pNamed == nullptr) return nullptr;
    return hosted::AddHandle(std::make_shared<hosted::NamedEvent>(std::move(pNamed)), dwDesiredAccess);
}

platform::BOOL platform::SetEvent(HANDLE hEvent)
{
    if (hosted::FailsNow("SetEvent")) return FALSE;
    auto pEvent = hosted::ObjectOfKind<hosted::Event>(hEvent, hosted::HandleKind::Event, EVENT_MODIFY_STATE);
    if (pEvent == nullptr) return FALSE;
    pEvent->Set();
    return TRUE;
}

platform::BOOL platform::ResetEvent(HANDLE hEvent)
{
    if (hosted::FailsNow("ResetEvent")) return FALSE;
    auto pEvent = hosted::ObjectOfKind<hosted::Event>(hEvent, hosted::HandleKind::Event, EVENT_MODIFY_STATE);
    if (pEvent == nullptr) return FALSE;
    pEvent->Reset();
    return TRUE;
}

void hosted::SignalEventObject(KernelObject &event, bool bSet)
{
    if (bSet) {
        static_cast<Event &>(event).Set();
    } else {
        static_cast<Event &>(event).Reset();
    }
}

platform::HANDLE platform::CreateMutexW(SECURITY_ATTRIBUTES *pSecurity, BOOL, const char16_t *pszName)
{
    if (hosted::FailsNow("CreateMutexW")) return nullptr;
    bool bExisted = false;
    auto pMutex   = hosted::MakeMutex(pSecurity, pszName, &bExisted);
    return hosted::HandleOfNew(std::move(pMutex), bExisted);
}

platform::HANDLE platform::OpenMutexW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName)
{
    if (hosted::FailsNow("OpenMutexW")) return nullptr;
    if (!hosted::CanOpen(bInheritHandle, pszName)) return nullptr;
    auto pNamed = hosted::NamedObject::Open(pszName, hosted::HandleKind::Mutex, false, nullptr, nullptr);
    if (pNamed == nullptr) return nullptr;
    return hosted::AddHandle(std::make_shared<hosted::Mutex>(std::move(pNamed)), dwDesiredAccess);
}
