// command_pipe_server.cpp: accepting the service's connections and reading its records.
// Every pass creates one further instance of the pipe, so that a client always finds one that waits while its
// predecessors are still being read. Whose records are handled next is the readers' concern (pipe_connections.h).
#include "ipc/command_pipe_server.h"
#include "ipc/pipe_connections.h"
#include "ipc/service_pipe_client.h"
#include "ipc/service_requests.h"
#include "ipc/stop_signal.h"
#include "platform/detached_thread.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/pipes.h"
#include "platform/security.h"
#include "platform/text.h"
#include "trace/trace_log.h"

using namespace platform;

static constexpr uint32_t PIPE_DEFAULT_TIMEOUT_MS = 200;
static constexpr int32_t  CREATE_ATTEMPTS         = 3;
static constexpr uint32_t CREATE_PAUSE_MS         = 500;
static constexpr uint32_t CONNECT_PAUSE_MS        = 1000;

std::atomic<HANDLE> g_hStartupEvent{nullptr};
std::atomic<bool>   g_bReadyUnsaid{false};

enum class Accepted {
    Connected, // the pipe has a client
    TryAgain,  // this instance is of no use
    Stop,
};

void SayReady()
{
    if (g_bReadyUnsaid.exchange(false)) CallServiceNamedPipe(NTOS_IPCREADY, 1, 0, 0, nullptr, nullptr, nullptr);
}

static void SignalStartup()
{
    const HANDLE hEvent = g_hStartupEvent.exchange(nullptr);
    if (hEvent != nullptr) SetEvent(hEvent);
    else SayReady();
}

// Waits for a client of this instance. No overlapped call is pending when it returns.
static Accepted AwaitClient(HANDLE hPipe)
{
    const HANDLE hConnected = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (hConnected == nullptr) return WaitForStop(CONNECT_PAUSE_MS) ? Accepted::Stop : Accepted::TryAgain;

    Accepted   result     = Accepted::TryAgain;
    OVERLAPPED overlapped = {};
    overlapped.hEvent     = hConnected;
    if (ConnectNamedPipe(hPipe, &overlapped)) {
        // Not what an overlapped call may answer: nobody knows who is at the other end.
        if (WaitForStop(CONNECT_PAUSE_MS)) result = Accepted::Stop;
    } else {
        const uint32_t dwError = GetLastError();
        SignalStartup();
        // A client may come, write and leave between the pipe's creation and this call (ERROR_NO_DATA); what it wrote
        // waits in the pipe, and a request of the service must not be lost.
        if (dwError == ERROR_PIPE_CONNECTED || dwError == ERROR_NO_DATA) {
            result = Accepted::Connected;
        } else if (dwError == ERROR_IO_PENDING) {
            const HANDLE ahWait[] = {g_hAppEvent, hConnected};
            if (WaitForMultipleObjects(2, ahWait, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
                result = Accepted::Connected;
            } else {
                result = Accepted::Stop;
                CancelIoEx(hPipe, &overlapped); // the system writes to the structure until the call has ended
                WaitForSingleObject(hConnected, INFINITE);
            }
        }
    }
    CloseHandle(hConnected);
    return result;
}

// Reads a connection, which it owns, until its client closes it. Result 0.
static uint32_t NetLoopThread(void *pParameter)
{
    auto    *pConnection = static_cast<PipeConnection *>(pParameter);
    uint32_t cbRead      = 0;
    while (ReadConnection(pConnection, &cbRead)) {
        TracePipeRead(cbRead);
        if (!AwaitTurn(pConnection)) break;
        for (uint32_t n = 0; n < cbRead / IPC_MESSAGE_SIZE; n++) { // what follows the last whole record is dropped
            if (pConnection->aRecords[n].dwSessionId == 0) NetHandleIPC(&pConnection->aRecords[n]);
        }
    }
    EndPipeConnection(pConnection);
    return 0;
}

// Hands a connected pipe to a reader of its own, or closes it.
static void StartReader(HANDLE hPipe)
{
    PipeConnection *pConnection = AddPipeConnection(hPipe);
    if (pConnection == nullptr) CloseHandle(hPipe);
    else if (!StartDetachedThread(NetLoopThread, pConnection)) EndPipeConnection(pConnection);
}

static void AcceptClients(const char16_t *pszPipeName, SECURITY_ATTRIBUTES *pSecurity)
{
    int32_t nFailures = 0;
    for (;;) {
        const HANDLE hPipe =
            CreateNamedPipeW(pszPipeName, PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                             PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                             COMMAND_PIPE_BUFFER_BYTES, COMMAND_PIPE_BUFFER_BYTES, PIPE_DEFAULT_TIMEOUT_MS, pSecurity);
        if (hPipe == INVALID_HANDLE_VALUE) {
            if (++nFailures == CREATE_ATTEMPTS || WaitForStop(CREATE_PAUSE_MS)) return;
            continue;
        }
        nFailures = 0;

        const Accepted result = AwaitClient(hPipe);
        if (result == Accepted::Connected) StartReader(hPipe);
        else CloseHandle(hPipe);
        if (result == Accepted::Stop) return;
    }
}

// By the mutex a service sees that an agent is there. One that still holds it from an agent that has died keeps it
// alive, with that one's access list: that gives Everyone the right to wait, but not all that creating it anew asks
// for.
static HANDLE CreateOrOpenMutex(SECURITY_ATTRIBUTES *pSecurity, const char16_t *pszName)
{
    const HANDLE hMutex = CreateMutexW(pSecurity, FALSE, pszName);
    return hMutex != nullptr || GetLastError() != ERROR_ACCESS_DENIED ? hMutex
                                                                      : OpenMutexW(SYNCHRONIZE, FALSE, pszName);
}

uint32_t CommandPipeServerThread(void *)
{
    char16_t szMutexName[MAX_PATH];
    char16_t szPipeName[MAX_PATH];

    if (WaitForStop(0)) return 0;
    const uint32_t dwSession = GetOwnSessionId();
    // The service runs under another account. Without the access list the objects get the system's default one.
    SECURITY_ATTRIBUTES *pSecurity = CreateEveryoneSecurity(PIPE_EVERYONE_ACCESS);
    FormatTextW(szMutexName, MAX_PATH, u"%s_0x%x", AGENT_MUTEX_NAME, dwSession);
    FormatTextW(szPipeName, MAX_PATH, u"%s_0x%x", AGENT_PIPE_NAME, dwSession);
    const HANDLE hMutex = CreateOrOpenMutex(pSecurity, szMutexName);
    if (hMutex != nullptr) {
        AcceptClients(szPipeName, pSecurity);
        CloseHandle(hMutex);
    }
    FreeSecurity(pSecurity);
    return 0;
}
