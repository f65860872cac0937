// kernel.h: events, mutexes, threads, critical sections, waits, clocks, processes.
// Names    "X" and "Local\X" name one object of the session, "Global\X" another one that all sessions of the machine
//          see. A named object ends with its last handle, however its holder dies.
// Threads  everything here may be called from any thread.
#pragma once
#include "platform/types.h"

namespace platform {

constexpr uint32_t SYNCHRONIZE           = 0x00100000;
constexpr uint32_t EVENT_MODIFY_STATE    = 0x0002;
constexpr uint32_t INFINITE              = 0xFFFFFFFF;
constexpr uint32_t WAIT_OBJECT_0         = 0;
constexpr uint32_t WAIT_FAILED           = 0xFFFFFFFF;
constexpr uint32_t STILL_ACTIVE          = 259;
constexpr uint32_t DUPLICATE_SAME_ACCESS = 2;
constexpr uint32_t MAXIMUM_WAIT_OBJECTS  = 64;

// An access list for a new object; made by CreateEveryoneSecurity (security.h). Opaque.
struct SECURITY_ATTRIBUTES;

// Creates or opens; close once. Null on failure. After success GetLastError is 0 or ERROR_ALREADY_EXISTS.
HANDLE CreateEventW(SECURITY_ATTRIBUTES *pSecurity, BOOL bManualReset, BOOL bInitialState, const char16_t *pszName);
// dwDesiredAccess: SYNCHRONIZE, EVENT_MODIFY_STATE or both. Null: ERROR_FILE_NOT_FOUND when nobody holds that name.
HANDLE OpenEventW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName);
BOOL   SetEvent(HANDLE hEvent);
BOOL   ResetEvent(HANDLE hEvent);

// A mutex serves here as a sign that its owner runs: it is created, opened and closed, never waited for.
HANDLE CreateMutexW(SECURITY_ATTRIBUTES *pSecurity, BOOL bInitialOwner, const char16_t *pszName);
HANDLE OpenMutexW(uint32_t dwDesiredAccess, BOOL bInheritHandle, const char16_t *pszName);

// Closes any handle of kernel.h, pipes.h and files.h. A close from another thread wakes nobody; stop the user first.
BOOL CloseHandle(HANDLE hObject);
// A second handle to the same object of this process (both process arguments GetCurrentProcess()).
BOOL   DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE *phTarget,
                       uint32_t dwDesiredAccess, BOOL bInheritHandle, uint32_t dwOptions);
HANDLE GetCurrentProcess();

// WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_FAILED. Events, threads and processes may be waited for; an auto-reset event is
// consumed by exactly one wait.
uint32_t WaitForSingleObject(HANDLE hHandle, uint32_t dwMilliseconds);
// bWaitAll must be FALSE. WAIT_OBJECT_0 + index of the first signalled handle in array order; only that one is
// consumed.
uint32_t WaitForMultipleObjects(uint32_t nCount, const HANDLE *pHandles, BOOL bWaitAll, uint32_t dwMilliseconds);

using ThreadProcedure = uint32_t (*)(void *pParameter);
// pSecurity null, dwStackSize 0 and dwCreationFlags 0. Null on failure. The handle is signalled when the thread ends.
HANDLE CreateThread(void *pSecurity, size_t dwStackSize, ThreadProcedure pStart, void *pParameter,
                    uint32_t dwCreationFlags, uint32_t *pdwThreadId);
BOOL   GetExitCodeThread(HANDLE hThread, uint32_t *pdwExitCode);

// Recursive lock, as on Windows. A zeroed object is not initialised.
struct CRITICAL_SECTION {
    alignas(16) unsigned char aStorage[64];
};
void InitializeCriticalSection(CRITICAL_SECTION *pSection);
void EnterCriticalSection(CRITICAL_SECTION *pSection);
void LeaveCriticalSection(CRITICAL_SECTION *pSection);
// True when the calling thread is inside. Not a Win32 call: what functions that expect a lock assert with.
bool HoldsCriticalSection(const CRITICAL_SECTION *pSection);

uint64_t GetTickCount64(); // milliseconds
uint32_t GetTickCount();   // milliseconds, wraps after 49.7 days
void     Sleep(uint32_t dwMilliseconds);

uint32_t GetCurrentProcessId();
// The terminal-services session of a process. FALSE on failure.
BOOL ProcessIdToSessionId(uint32_t dwProcessId, uint32_t *pdwSessionId);

} // namespace platform
