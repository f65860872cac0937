// handles.h: the handles of this process and the objects behind them.
#pragma once
#include "platform/errors.h"
#include "platform/hosted/kernel/security.h"
#include "platform/hosted/machine/errors.h"
#include "platform/types.h"
#include <memory>

namespace hosted {

// One table for all kinds. A handle names a slot and its generation: a closed handle is ERROR_INVALID_HANDLE for ever.
// Objects are released by their destructor, when the last handle is closed and no call still uses them.
enum class HandleKind : uint8_t { Event, Mutex, Thread, PipeServer, PipeClient, File, Find };
struct KernelObject {
    explicit KernelObject(HandleKind eKindOfObject) : eKind(eKindOfObject) {}
    virtual ~KernelObject()                          = default;
    KernelObject(const KernelObject &)               = delete;
    KernelObject    &operator=(const KernelObject &) = delete;
    const HandleKind eKind;
    bool             bSecured         = false; // made with an access list, or opened where one was made
    uint32_t         dwEveryoneAccess = 0;
};
constexpr uint32_t ACCESS_ANY = 0; // no right is asked for
constexpr uint32_t ACCESS_ALL = 0xFFFFFFFF;
// A new handle with these rights (bits whose meaning is the kind's own). Never null or INVALID_HANDLE_VALUE.
platform::HANDLE AddHandle(std::shared_ptr<KernelObject> pObject, uint32_t dwAccess = ACCESS_ALL);
// Null with ERROR_INVALID_HANDLE (not open) or ERROR_ACCESS_DENIED (lacks one of the rights). Any kind.
std::shared_ptr<KernelObject> ObjectOf(platform::HANDLE hObject, uint32_t dwNeeded = ACCESS_ANY,
                                       uint32_t *pdwAccess = nullptr);
// As above, and ERROR_INVALID_HANDLE for an object of another kind: ObjectOfKind<FileObject>(hFile, HandleKind::File).
template <class T>
std::shared_ptr<T> ObjectOfKind(platform::HANDLE hObject, HandleKind eKind, uint32_t dwNeeded = ACCESS_ANY)
{
    std::shared_ptr<KernelObject> pObject = ObjectOf(hObject, dwNeeded);
    if (pObject == nullptr) return nullptr;
    if (pObject->eKind != eKind) {
        SetError(platform::ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return std::static_pointer_cast<T>(std::move(pObject));
}
// Takes the handle out of the table; null with ERROR_INVALID_HANDLE. FindClose uses it; CloseHandle (here) refuses
// finds.
std::shared_ptr<KernelObject> RemoveHandle(platform::HANDLE hObject);

} // namespace hosted
