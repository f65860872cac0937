// handles.cpp: the handle table.
// A slot's generation is part of the handle's value: a program that uses a handle after its close is told so every
// time, where Windows might hand it somebody else's new object.
#include "platform/hosted/kernel/handles.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"
#include <deque>
#include <mutex>
#include <vector>

namespace hosted {
namespace {

struct Slot {
    std::shared_ptr<KernelObject> pObject; // null: free
    uint32_t                      nGeneration = 0;
    uint32_t                      dwAccess    = 0;
};

struct Table {
    std::mutex           mutex;
    std::vector<Slot>    aSlots;
    std::deque<uint32_t> aFree;
    int                  nOpen = 0;
};

Table &TheTable()
{
    static Table &s_Table = *new Table;
    return s_Table;
}

// Value: generation above 24 bits of index + 1, above two zero bits, as Windows' handles are multiples of 4.
constexpr int INDEX_BITS = 24;

platform::HANDLE HandleFor(uint32_t nIndex, uint32_t nGeneration)
{
    return reinterpret_cast<platform::HANDLE>((static_cast<uintptr_t>(nGeneration) << INDEX_BITS | (nIndex + 1)) << 2);
}

// [held] The slot of an open handle, or null.
Slot *SlotOf(Table &table, platform::HANDLE hObject)
{
    const uintptr_t ullValue = reinterpret_cast<uintptr_t>(hObject);
    const uintptr_t nIndex   = (ullValue >> 2 & ((1u << INDEX_BITS) - 1)) - 1; // 0 wraps round and is out of range
    if ((ullValue & 3) != 0 || nIndex >= table.aSlots.size()) return nullptr;
    Slot *pSlot = &table.aSlots[nIndex];
    return pSlot->pObject != nullptr && ullValue >> 2 >> INDEX_BITS == pSlot->nGeneration ? pSlot : nullptr;
}

} // namespace

platform::HANDLE AddHandle(std::shared_ptr<KernelObject> pObject, uint32_t dwAccess)
{
    Table                            &table = TheTable();
    const std::lock_guard<std::mutex> guard(table.mutex);
    uint32_t                          nIndex = 0;
    if (!table.aFree.empty()) {
        nIndex = table.aFree.front();
        table.aFree.pop_front();
    } else {
        nIndex = static_cast<uint32_t>(table.aSlots.size());
        if (nIndex >= (1u << INDEX_BITS) - 1) Fatal("16 million handles are open");
        table.aSlots.emplace_back();
    }
    Slot &slot    = table.aSlots[nIndex];
    slot.pObject  = std::move(pObject);
    slot.dwAccess = dwAccess;
    table.nOpen++;
    return HandleFor(nIndex, slot.nGeneration);
}

std::shared_ptr<KernelObject> ObjectOf(platform::HANDLE hObject, uint32_t dwNeeded, uint32_t *pdwAccess)
{
    Table                            &table = TheTable();
    const std::lock_guard<std::mutex> guard(table.mutex);
    const Slot                       *pSlot = SlotOf(table, hObject);
    if (pSlot == nullptr) {
        SetError(platform::ERROR_INVALID_HANDLE);
        return nullptr;
    }
    if ((pSlot->dwAccess & dwNeeded) != dwNeeded) {
        SetError(platform::ERROR_ACCESS_DENIED);
        return nullptr;
    }
    if (pdwAccess != nullptr) *pdwAccess = pSlot->dwAccess;
    return pSlot->pObject;
}

std::shared_ptr<KernelObject> RemoveHandle(platform::HANDLE hObject)
{
    Table                            &table = TheTable();
    const std::lock_guard<std::mutex> guard(table.mutex);
    Slot                             *pSlot = SlotOf(table, hObject);
    if (pSlot == nullptr) {
        SetError(platform::ERROR_INVALID_HANDLE);
        return nullptr;
    }
    std::shared_ptr<KernelObject> pObject = std::move(pSlot->pObject);
    pSlot->pObject                        = nullptr;
    pSlot->nGeneration++;
    table.aFree.push_back(static_cast<uint32_t>(pSlot - table.aSlots.data()));
    table.nOpen--;
    return pObject; // released by the caller, outside the lock
}

int OpenHandles()
{
    Table                            &table = TheTable();
    const std::lock_guard<std::mutex> guard(table.mutex);
    return table.nOpen;
}

} // namespace hosted

platform::HANDLE platform::GetCurrentProcess()
{
    return reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1)); // a pseudo handle: closing it does nothing
}

platform::BOOL platform::CloseHandle(HANDLE hObject)
{
    if (hosted::FailsNow("CloseHandle")) return FALSE;
    if (hObject == GetCurrentProcess()) return TRUE;
    const std::shared_ptr<hosted::KernelObject> pObject = hosted::ObjectOf(hObject);
    if (pObject == nullptr) return FALSE;
    if (pObject->eKind == hosted::HandleKind::Find) {
        hosted::SetError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return hosted::RemoveHandle(hObject) != nullptr;
}

platform::BOOL platform::DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE *phTarget,
                                         uint32_t dwDesiredAccess, BOOL bInheritHandle, uint32_t dwOptions)
{
    if (hosted::FailsNow("DuplicateHandle")) return FALSE;
    if (hSourceProcess != GetCurrentProcess() || hTargetProcess != GetCurrentProcess() || bInheritHandle ||
        (dwOptions & ~DUPLICATE_SAME_ACCESS) != 0) {
        hosted::SetError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    uint32_t                              dwAccess = 0;
    std::shared_ptr<hosted::KernelObject> pObject  = hosted::ObjectOf(hSource, hosted::ACCESS_ANY, &dwAccess);
    if (pObject == nullptr) return FALSE;
    if (pObject->eKind == hosted::HandleKind::Find) {
        hosted::SetError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    *phTarget = hosted::AddHandle(std::move(pObject), dwOptions == DUPLICATE_SAME_ACCESS ? dwAccess : dwDesiredAccess);
    return TRUE;
}
