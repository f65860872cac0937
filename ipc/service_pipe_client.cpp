// service_pipe_client.cpp: the way of every report to the migration service.
// Callers are listeners and workers that must not wait for a slow or dead service, so the queue is short, drops its
// oldest record when full, and is emptied when nobody serves the pipe.
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include "platform/pipes.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <atomic>
#include <cstring>

using namespace platform;

static constexpr uint32_t SESSION_UNKNOWN  = 0xFFFFFFFF;
static constexpr size_t   TRACE_LINE_UNITS = 1024;

// All under the queue's lock.
static IpcMessage g_aQueue[SERVICE_QUEUE_RECORDS];
static int32_t    g_nQueued;
static HANDLE     g_hQueueEvent; // auto-reset; null while no sender thread waits

static std::atomic<uint32_t> g_dwOwnSession{SESSION_UNKNOWN};

static CRITICAL_SECTION  g_csQueue;
static CRITICAL_SECTION *QueueLock()
{
    return MadeOnce<&g_csQueue>();
}

uint32_t GetOwnSessionId()
{
    uint32_t dwSession = g_dwOwnSession;
    if (dwSession == SESSION_UNKNOWN && ProcessIdToSessionId(GetCurrentProcessId(), &dwSession))
        g_dwOwnSession = dwSession;
    return dwSession;
}

static int32_t Enqueue(const IpcMessage *pRecord)
{
    EnterCriticalSection(QueueLock());
    if (g_nQueued == SERVICE_QUEUE_RECORDS) {
        std::memmove(&g_aQueue[0], &g_aQueue[1], sizeof(IpcMessage) * (SERVICE_QUEUE_RECORDS - 1));
        g_nQueued--;
    }
    g_aQueue[g_nQueued++]    = *pRecord;
    const int32_t bSignalled = g_hQueueEvent != nullptr && SetEvent(g_hQueueEvent);
    LeaveCriticalSection(QueueLock());
    return bSignalled;
}

static int32_t Dequeue(IpcMessage *pRecord)
{
    EnterCriticalSection(QueueLock());
    const int32_t bAny = g_nQueued > 0;
    if (bAny) {
        *pRecord = g_aQueue[0];
        g_nQueued--;
        std::memmove(&g_aQueue[0], &g_aQueue[1], sizeof(IpcMessage) * static_cast<size_t>(g_nQueued));
        std::memset(&g_aQueue[g_nQueued], 0, sizeof(IpcMessage));
    }
    LeaveCriticalSection(QueueLock());
    return bAny;
}

static bool IsQueueEmpty()
{
    EnterCriticalSection(QueueLock());
    const bool bEmpty = g_nQueued == 0;
    LeaveCriticalSection(QueueLock());
    return bEmpty;
}

static void DiscardQueue()
{
    EnterCriticalSection(QueueLock());
    std::memset(g_aQueue, 0, sizeof(g_aQueue));
    g_nQueued = 0;
    LeaveCriticalSection(QueueLock());
}

static void FillRecord(IpcMessage *pRecord, uint32_t dwCommand, int32_t nParam1, int32_t nParam2, int32_t nParam3)
{
    std::memset(pRecord, 0, sizeof(*pRecord));
    pRecord->dwSessionId = GetOwnSessionId();
    pRecord->dwCommand   = dwCommand;
    pRecord->dwParam1    = static_cast<uint32_t>(nParam1);
    pRecord->dwParam2    = static_cast<uint32_t>(nParam2);
    pRecord->dwParam3    = static_cast<uint32_t>(nParam3);
}

int32_t CallServiceNamedPipe(uint32_t dwCommand, int32_t nParam1, int32_t nParam2, int32_t nParam3,
                             const char16_t *pszText1, const char16_t *pszText2, const char16_t *pszText3)
{
    if (IsTraceEnabled()) {
        char16_t szLine[TRACE_LINE_UNITS];
        FormatTextW(szLine, TRACE_LINE_UNITS, u"Net, CallServiceNamedPipe 0x%x, %d, %d, %d, %s, %s, %s", dwCommand,
                    nParam1, nParam2, nParam3, pszText1 != nullptr ? pszText1 : u"",
                    pszText2 != nullptr ? pszText2 : u"", pszText3 != nullptr ? pszText3 : u"");
        TraceWideText(szLine, TRACE_LINE_UNITS);
    }
    IpcMessage record;
    FillRecord(&record, dwCommand, nParam1, nParam2, nParam3);
    CopyTextW(record.szText1, IPC_TEXT_UNITS, pszText1); // null copies as empty
    CopyTextW(record.szText2, IPC_TEXT_UNITS, pszText2);
    CopyTextW(record.szText3, IPC_TEXT_UNITS, pszText3);
    return Enqueue(&record);
}

int32_t CallServiceNamedPipeLongText(uint32_t dwCommand, int32_t nParam1, int32_t nParam2, int32_t nParam3,
                                     const char16_t *pszLongText)
{
    if (IsTraceEnabled()) {
        char16_t     szText[IPC_LONG_TEXT_UNITS + 1] = {};
        char16_t     szLine[TRACE_LINE_UNITS];
        const size_t cchText = pszLongText != nullptr ? TextLengthBoundedW(pszLongText, IPC_LONG_TEXT_UNITS) : 0;
        if (cchText > 0) std::memcpy(szText, pszLongText, cchText * sizeof(char16_t));
        FormatTextW(szLine, TRACE_LINE_UNITS, u"Net, CallServiceNamedPipe 0x%x, %d, %d, %d, %s", dwCommand, nParam1,
                    nParam2, nParam3, szText);
        TraceWideText(szLine, TRACE_LINE_UNITS);
    }
    IpcMessage record;
    FillRecord(&record, dwCommand, nParam1, nParam2, nParam3);
    if (pszLongText != nullptr) {
        std::memcpy(reinterpret_cast<unsigned char *>(&record) + offsetof(IpcMessage, szText1), pszLongText,
                    TextLengthBoundedW(pszLongText, IPC_LONG_TEXT_UNITS) * sizeof(char16_t));
    }
    return Enqueue(&record);
}

// True when somebody calls himself the service.
static bool IsServiceRunning()
{
    const HANDLE hMutex = OpenMutexW(SYNCHRONIZE, FALSE, SERVICE_MUTEX_NAME);
    if (hMutex == nullptr) return false;
    CloseHandle(hMutex);
    return true;
}

// INVALID_HANDLE_VALUE when nobody serves the pipe, or all its instances stay busy.
static HANDLE OpenServicePipe()
{
    for (;;) {
        const HANDLE hPipe = CreateFileW(SERVICE_PIPE_NAME, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (hPipe != INVALID_HANDLE_VALUE) return hPipe;
        if (GetLastError() != ERROR_PIPE_BUSY) return INVALID_HANDLE_VALUE;
        if (!WaitNamedPipeW(SERVICE_PIPE_NAME, SERVICE_PIPE_WAIT_MS)) return INVALID_HANDLE_VALUE;
    }
}

int32_t PassObjectInQueue()
{
    IpcMessage record;
    HANDLE     hPipe = INVALID_HANDLE_VALUE;

    if (IsQueueEmpty()) return 0;
    if (IsServiceRunning()) hPipe = OpenServicePipe();
    if (hPipe == INVALID_HANDLE_VALUE) {
        DiscardQueue();
        return 0;
    }
    while (Dequeue(&record)) {
        uint32_t cbWritten = 0;
        // Not checked: a record that the service did not take is lost, as one that it had never read would be.
        WriteFile(hPipe, &record, sizeof(record), &cbWritten, nullptr);
        TraceText("PassObjectInQueue WriteFile");
        Sleep(SERVICE_RECORD_PAUSE_MS);
    }
    CloseHandle(hPipe);
    return 1;
}

uint32_t ServicePipeSenderThread(void *)
{
    if (g_hAppEvent == nullptr) return 0;
    const HANDLE hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (hEvent == nullptr) return 0;
    EnterCriticalSection(QueueLock());
    g_hQueueEvent = hEvent;
    LeaveCriticalSection(QueueLock());

    PassObjectInQueue(); // what was queued before the event existed
    for (;;) {
        const HANDLE ahWait[] = {g_hAppEvent, hEvent};
        if (WaitForMultipleObjects(2, ahWait, FALSE, INFINITE) != WAIT_OBJECT_0 + 1) break;
        while (PassObjectInQueue() && !WaitForStop(0)) {
        }
    }

    EnterCriticalSection(QueueLock());
    g_hQueueEvent = nullptr;
    CloseHandle(hEvent);
    LeaveCriticalSection(QueueLock());
    return 0;
}

void ResetServicePipeClient()
{
    DiscardQueue();
    g_dwOwnSession = SESSION_UNKNOWN;
}
