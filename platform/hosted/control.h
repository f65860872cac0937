// control.h: what tests and tools ask of the hosted backend beside the Win32 interfaces: which machine this process is
// on, faults, the clock, pretended events, and counts of what is open.
// Every setting also has a variable of the environment, read once at process start, so that whole processes can be
// driven:
//   VORN_MACHINE=FOLDER                 the machine
//   VORN_FAULTS=CALL:N:ERROR[:on],...   FailCall for each
//   VORN_CLOCK_RATE=R                   SetClockRate
//   VORN_SOCKET_TIMEOUT_MS=N            SetSocketTimeout
//   VORN_DRIVE_FULL=D:BYTES,...         SetDriveLimit
//   VORN_LINK_DELAY_MS=N                SetLinkDelay
//   VORN_LINK_CUT_AFTER=BYTES           CutLinkAfter
//   VORN_REUSE_SOCKETS=1                ReuseSocketValues
//   VORN_INTEGRITY=low                  SetLowStanding
//   VORN_MISSING=user32.dll,user32.dll!GetMessageW,...   RemoveLibrary / RemoveFunction
// Threads  settings may be changed from any thread; they hold from the next call of the operation on.
#pragma once
#include "platform/types.h"

namespace hosted {

// Moves this process to a machine: an absolute folder, made with its minimum (machine.ini, drive C, run/) when it is
// not one yet. Drops faults, limits and the clock rate. Call with no handles, sockets, windows or threads of the old
// one open.
bool UseMachine(const char *pszFolder);
// The folder of the current machine, "" when none is set.
const char *MachineFolder();
// The POSIX path behind a Windows path of this machine (whether it exists or not). False when its drive does not exist.
bool HostPath(const char16_t *pszPath, char *pszOut, size_t cb);

// From the n-th call on from now (1 is the next), pszCall (a Win32 name: "CreateFileW", "send", "BCryptImportKey")
// fails once, or from then on, with dwError as its last error, Winsock error, NTSTATUS or result, whichever the call
// reports by.
void FailCall(const char *pszCall, int nth, uint32_t dwError, bool bFromThenOn = false);
void ClearFaults();
// Calls of pszCall since the last ClearFaults.
int CallCount(const char *pszCall);

// What is open in this process. A clean function leaves each as it found it.
int OpenHandles(); // events, mutexes, threads, pipes, files, finds
int OpenSockets();
int LiveThreads();   // made by CreateThread and not yet ended
int OpenCiphers();   // providers and keys
int LiveBlocks();    // memory handed out by the interfaces (CoTaskMem, LocalAlloc, security, tables)
int WinsockStarts(); // WSAStartup less WSACleanup

// Time of this process runs nRate times as fast: tick counts, sleeps, waits, socket time-outs. 1 is real time.
void SetClockRate(uint32_t nRate);
// Moves the tick counts forward; waits under way are not shortened.
void AdvanceClock(uint64_t ullMilliseconds);
// Every socket's send and receive time-out of 8000 ms becomes this many real milliseconds. 0: as set.
void SetSocketTimeout(uint32_t dwMilliseconds);

// The drive takes so many further bytes, then writes fail with ERROR_DISK_FULL. Negative: no limit.
void SetDriveLimit(char chDrive, int64_t cbFree);
void SetLinkDelay(uint32_t dwMilliseconds); // each real send waits so long first
// after so many sent bytes every connected socket breaks (WSAECONNRESET). Negative: never
void CutLinkAfter(int64_t cbSent);
// The value of a closed socket is the next one's, as it may be on Windows. Without this it never comes again, so that a
// use after the close shows as WSAENOTSOCK.
void ReuseSocketValues(bool bReuse);

void RemoveLibrary(const char *pszLibrary);                           // LoadLibraryW fails: ERROR_MOD_NOT_FOUND
void RemoveFunction(const char *pszLibrary, const char *pszFunction); // GetProcAddress fails: ERROR_PROC_NOT_FOUND

// Everything that OutputDebugStringA/W received in this process since the last call, oldest first, as UTF-8 lines. Kept
// only after the first call with bKeep true.
void        KeepDebugOutput(bool bKeep);
const char *TakeDebugOutput(); // valid until the next call

// A session event (WTS_CONSOLE_CONNECT and its like) as the system would send it, to the windows of every process of
// this machine that are registered for them. Result: how many windows got it.
int BroadcastSessionChange(uint64_t wParam);
// This process counts as one of lower integrity: its messages reach only windows whose filter allows them.
void SetLowStanding(bool bLow);
int  OpenWindows();          // of this process
int  PowerRegistrations();   // RegisterPowerSettingNotification less Unregister
int  SessionRegistrations(); // WTSRegisterSessionNotification less WTSUnRegister

} // namespace hosted
