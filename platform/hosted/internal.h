// internal.h: what the files of the hosted backend share. Nothing outside platform/hosted includes it.
// Rules    a public function starts with FailsNow("ItsName") (control.h), which reads the environment on first use.
//          Nothing calls another public function inside: a fault and a count belong to the caller's own calls.
//          Globals are constant-initialised or leaked on purpose (function-local `static auto &x = *new ...`): threads
//          may still run while the process ends.
#pragma once
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "platform/types.h"
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>

// The access list of a new object: one entry, for Everyone (CreateEveryoneSecurity in security.cpp makes it).
struct platform::SECURITY_ATTRIBUTES {
    uint32_t dwEveryoneAccess;
};

namespace hosted {

// ---- last error (errors.cpp) ----
void     SetError(uint32_t dwError);         // the thread's last error, what SetLastError and WSASetLastError set
uint32_t ErrorFromErrno(int nErrno); // the Win32 code for files, folders and pipes; ERROR_GEN_FAILURE if none fits
void     SetErrorFromErrno();                // both, from errno
// ---- text (utf.cpp) ----
// Lossless both ways: a lone surrogate is kept (three bytes), a byte that is no UTF-8 becomes U+DC80..U+DCFF and back.
std::string    ToUtf8(std::u16string_view sText);
std::u16string ToUtf16(std::string_view sText);

// ---- machine (control.cpp; machine.ini by machine.cpp) ----
// A setting of machine.ini; sDefault when it is not there. Keys read here: [machine] session = 1.
std::string MachineSetting(const char *pszSection, const char *pszKey, const char *pszDefault);
// Makes what a machine needs at least (machine.ini, registry.ini, drive_c with the known folders) where it is missing;
// UseMachine has made the folder itself and run/ before. False with the last error set.
bool MakeMachine(const std::string &sFolder);
// <machine>/run/<pszSub>, made when missing; "" (ERROR_PATH_NOT_FOUND) when the process is on no machine.
std::string RunFolder(const char *pszSub);
// Called by UseMachine before the process is on the new machine, to drop what belonged to the old one (faults, caches,
// limits):
//   static const hosted::OnUseMachine g_Reset([] { ... });
struct OnUseMachine {
    explicit OnUseMachine(void (*pReset)());
};
// Exclusive among all processes and threads of the machine; short sections only, never held while waiting.
class MachineLock {
public:
    MachineLock();
    ~MachineLock();
    MachineLock(const MachineLock &)            = delete;
    MachineLock &operator=(const MachineLock &) = delete;
    bool         IsHeld() const { return m_nFd >= 0; }

private:
    int m_nFd;
};

// Misuse that Windows would answer with a crash: says so on stderr and aborts.
[[noreturn]] void Fatal(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

// ---- counters behind control.h's counts ----
extern std::atomic<int> g_nSockets;       // OpenSockets
extern std::atomic<int> g_nLiveThreads;   // LiveThreads
extern std::atomic<int> g_nCiphers;       // OpenCiphers
extern std::atomic<int> g_nBlocks;        // LiveBlocks
extern std::atomic<int> g_nWinsockStarts; // WinsockStarts
// Memory that an interface hands out, counted in g_nBlocks; zero-filled. Null: ERROR_NOT_ENOUGH_MEMORY.
void *AllocBlock(size_t cb);
void  FreeBlock(void *pMem); // null is allowed

// ---- clock (clock.cpp) ----
// Real milliseconds for so many of the process's, rounded up, at least 1 for a positive time; INFINITE stays INFINITE.
uint32_t                  ScaledMilliseconds(uint32_t dwMilliseconds);
std::chrono::microseconds RealTime(uint32_t dwMilliseconds); // the same, finer; not for INFINITE

// ---- handles (handles.cpp) ----
// One table for all kinds. A handle names a slot and its generation: a closed handle is ERROR_INVALID_HANDLE for ever.
// Objects are released by their destructor, when the last handle is closed and no call still uses them.
enum class HandleKind : uint8_t { Event, Mutex, Thread, PipeServer, PipeClient, File, Find };
struct KernelObject {
    explicit KernelObject(HandleKind eKindOfObject) : eKind(eKindOfObject) {}
    virtual ~KernelObject()                       = default;
    KernelObject(const KernelObject &)            = delete;
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

// ---- pipes for files.cpp (pipes.cpp) ----
// True for "\\.\pipe\..." in any case: CreateFileW then calls OpenPipeClient, ReadFile and WriteFile (by the object's
// kind) ReadPipe and WritePipe, which set the last error themselves.
bool             IsPipeName(const char16_t *pszName);
platform::HANDLE OpenPipeClient(const char16_t *pszName, uint32_t dwDesiredAccess, uint32_t dwCreationDisposition);
platform::BOOL   ReadPipe(KernelObject &pipe, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead);
platform::BOOL   WritePipe(KernelObject &pipe, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten);

// ---- program (entry.cpp and program.cpp) ----
// The command line as GetCommandLineW gives it: the program quoted, every argument quoted as CommandLineToArgvW undoes
// it.
const std::u16string &ProgramCommandLine();
// The program's own file on the host.
const std::string &ProgramFile();

} // namespace hosted
