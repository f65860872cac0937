// kernel.cpp: events, mutexes, threads, critical sections, waits, clocks and processes, forwarded.
// A critical section's storage holds the SDK's object at its start. Whether the calling thread is inside is read from
// its OwningThread field: the value can only equal the caller's own id while the caller is inside, so the unlocked read
// is safe.
#include "platform/kernel.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(SYNCHRONIZE) X(EVENT_MODIFY_STATE) X(INFINITE) X(WAIT_OBJECT_0) X(WAIT_FAILED) X(STILL_ACTIVE)                   \
    X(DUPLICATE_SAME_ACCESS) X(MAXIMUM_WAIT_OBJECTS) X(FALSE) X(TRUE) X(MAX_PATH)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"

namespace mirror {
MIRRORED(MIRROR_COMPARE)
MIRROR_SIZE(BOOL)
MIRROR_SIZE(HANDLE)
MIRROR_SIZE(HMODULE)
MIRROR_SIZE(HWND)
MIRROR_SIZE(HKEY)
MIRROR_SIZE(ATOM)
MIRROR_SIZE(SOCKET)
MIRROR_SIZE(WPARAM)
MIRROR_SIZE(LPARAM)
MIRROR_SIZE(LRESULT)
MIRROR_SIZE(HRESULT)
MIRROR_SIZE(FARPROC)
MIRROR_SIZE(GUID)
MIRROR_FIELD(GUID, Data1)
MIRROR_FIELD(GUID, Data2)
MIRROR_FIELD(GUID, Data3)
MIRROR_FIELD(GUID, Data4)
static_assert(sizeof(platform::CRITICAL_SECTION) >= sizeof(::CRITICAL_SECTION) &&
                  alignof(platform::CRITICAL_SECTION) >= alignof(::CRITICAL_SECTION),
              "the storage holds the SDK's object");
} // namespace mirror

namespace platform {

static ::CRITICAL_SECTION *AsSdk(CRITICAL_SECTION *pSection)
{
    return reinterpret_cast<::CRITICAL_SECTION *>(pSection->aStorage);
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES *pSecurity, BOOL bManualReset, BOOL bInitialState, const char16_t *pszName)
{
    return ::CreateEventW(AsSdk(pSecurity), bManualReset, bInitialState, AsWide(pszName));
}

HANDLE OpenEventW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName)
{
    return ::OpenEventW(dwDesiredAccess, bInheritHandle, AsWide(pszName));
}

BOOL SetEvent(HANDLE hEvent)
{
    return ::SetEvent(hEvent);
}

BOOL ResetEvent(HANDLE hEvent)
{
    return ::ResetEvent(hEvent);
}

HANDLE CreateMutexW(SECURITY_ATTRIBUTES *pSecurity, BOOL bInitialOwner, const char16_t *pszName)
{
    return ::CreateMutexW(AsSdk(pSecurity), bInitialOwner, AsWide(pszName));
}

HANDLE OpenMutexW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName)
{
    return ::OpenMutexW(dwDesiredAccess, bInheritHandle, AsWide(pszName));
}

BOOL CloseHandle(HANDLE hObject)
{
    return ::CloseHandle(hObject);
}

BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE *phTarget,
                     uint32_t dwDesiredAccess, BOOL bInheritHandle, uint32_t dwOptions)
{
    return ::DuplicateHandle(hSourceProcess, hSource, hTargetProcess, phTarget, dwDesiredAccess, bInheritHandle,
                             dwOptions);
}

HANDLE GetCurrentProcess()
{
    return ::GetCurrentProcess();
}

uint32_t WaitForSingleObject(HANDLE hHandle, uint32_t dwMilliseconds)
{
    return ::WaitForSingleObject(hHandle, dwMilliseconds);
}

uint32_t WaitForMultipleObjects(uint32_t nCount, const HANDLE *pHandles, BOOL bWaitAll, uint32_t dwMilliseconds)
{
    return ::WaitForMultipleObjects(nCount, pHandles, bWaitAll, dwMilliseconds);
}

HANDLE CreateThread(void *pSecurity, size_t dwStackSize, ThreadProcedure pStart, void *pParameter,
                    uint32_t dwCreationFlags, uint32_t *pdwThreadId)
{
    return ::CreateThread(static_cast<::SECURITY_ATTRIBUTES *>(pSecurity), dwStackSize,
                          reinterpret_cast<LPTHREAD_START_ROUTINE>(pStart), pParameter, dwCreationFlags,
                          AsSdk(pdwThreadId));
}

BOOL GetExitCodeThread(HANDLE hThread, uint32_t *pdwExitCode)
{
    return ::GetExitCodeThread(hThread, AsSdk(pdwExitCode));
}

void InitializeCriticalSection(CRITICAL_SECTION *pSection)
{
    ::InitializeCriticalSection(AsSdk(pSection));
}

void EnterCriticalSection(CRITICAL_SECTION *pSection)
{
    ::EnterCriticalSection(AsSdk(pSection));
}

void LeaveCriticalSection(CRITICAL_SECTION *pSection)
{
    ::LeaveCriticalSection(AsSdk(pSection));
}

bool HoldsCriticalSection(const CRITICAL_SECTION *pSection)
{
    const auto *pSdk   = reinterpret_cast<const ::CRITICAL_SECTION *>(pSection->aStorage);
    const auto  hOwner = __atomic_load_n(&pSdk->OwningThread, __ATOMIC_RELAXED);
    return reinterpret_cast<uintptr_t>(hOwner) == ::GetCurrentThreadId();
}

uint64_t GetTickCount64()
{
    return ::GetTickCount64();
}

uint32_t GetTickCount()
{
    return ::GetTickCount();
}

void Sleep(uint32_t dwMilliseconds)
{
    ::Sleep(dwMilliseconds);
}

uint32_t GetCurrentProcessId()
{
    return ::GetCurrentProcessId();
}

BOOL ProcessIdToSessionId(uint32_t dwProcessId, uint32_t *pdwSessionId)
{
    return ::ProcessIdToSessionId(dwProcessId, AsSdk(pdwSessionId));
}

} // namespace platform
