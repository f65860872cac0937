// pipe_connections.cpp: see pipe_connections.h.
// The reads are overlapped. The pipe is made for that, and only so another reader can see that a client has written
// something which its own reader has not come round to: the system ends the read as part of the client's write.
#include "ipc/pipe_connections.h"
#include "ipc/stop_signal.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include "platform/pipes.h"
#include <new>

using namespace platform;

// All but the handles under the list's lock.
struct PipeConnection::Place {
    HANDLE                 hPipe, hRead;
    HANDLE                 hQuiet; // manual-reset: set when a read begins to wait; who waits for that resets it before
    OVERLAPPED             overlapped;
    uint64_t               ullAccepted;
    bool                   bReading, bSpoken, bEnded;
    int32_t                nUsers; // the connection's reader and who waits for hQuiet; the last one frees it
    PipeConnection::Place *pOlder, *pNewer;
};
using Place = PipeConnection::Place;

static Place *g_pOldest; // both under the lock
static Place *g_pNewest;

static CRITICAL_SECTION  g_csConnections;
static CRITICAL_SECTION *ListLock()
{
    return MadeOnce<&g_csConnections>();
}

static void CloseEvents(Place *pPlace)
{
    if (pPlace->hRead != nullptr) CloseHandle(pPlace->hRead);
    if (pPlace->hQuiet != nullptr) CloseHandle(pPlace->hQuiet);
    delete pPlace;
}

// [list lock held]
static void ReleasePlace(Place *pPlace)
{
    if (--pPlace->nUsers != 0) return;
    if (pPlace->pOlder != nullptr) pPlace->pOlder->pNewer = pPlace->pNewer;
    else g_pOldest = pPlace->pNewer;
    if (pPlace->pNewer != nullptr) pPlace->pNewer->pOlder = pPlace->pOlder;
    else g_pNewest = pPlace->pOlder;
    CloseEvents(pPlace);
}

PipeConnection *AddPipeConnection(HANDLE hPipe)
{
    auto *pConnection = new (std::nothrow) PipeConnection;
    auto *pPlace      = new (std::nothrow) Place{};
    if (pConnection == nullptr || pPlace == nullptr) {
        delete pConnection;
        delete pPlace;
        return nullptr;
    }
    pConnection->pPlace = pPlace;
    pPlace->hPipe       = hPipe;
    pPlace->hRead       = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    pPlace->hQuiet      = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    pPlace->ullAccepted = GetTickCount64();
    pPlace->nUsers      = 1;
    if (pPlace->hRead == nullptr || pPlace->hQuiet == nullptr) {
        CloseEvents(pPlace);
        delete pConnection;
        return nullptr;
    }
    EnterCriticalSection(ListLock());
    pPlace->pOlder = g_pNewest;
    if (g_pNewest != nullptr) g_pNewest->pNewer = pPlace;
    else g_pOldest = pPlace;
    g_pNewest = pPlace;
    LeaveCriticalSection(ListLock());
    return pConnection;
}

// False when the agent ends.
static bool AwaitEvent(HANDLE hEvent, uint32_t dwMilliseconds)
{
    const HANDLE   ahWait[] = {g_hAppEvent, hEvent};
    const uint32_t dwResult = WaitForMultipleObjects(2, ahWait, FALSE, dwMilliseconds);
    return dwResult == WAIT_OBJECT_0 + 1 || dwResult == WAIT_TIMEOUT;
}

bool ReadConnection(PipeConnection *pConnection, uint32_t *pcbRead)
{
    Place *pPlace = pConnection->pPlace;
    EnterCriticalSection(ListLock());
    pPlace->overlapped        = {};
    pPlace->overlapped.hEvent = pPlace->hRead;
    const bool bDone =
        ReadFile(pPlace->hPipe, pConnection->aRecords, CONNECTION_READ_BYTES, pcbRead, &pPlace->overlapped);
    pPlace->bReading = !bDone && GetLastError() == ERROR_IO_PENDING;
    pPlace->bSpoken  = pPlace->bSpoken || bDone;
    if (pPlace->bReading) SetEvent(pPlace->hQuiet);
    LeaveCriticalSection(ListLock());
    if (bDone || !pPlace->bReading) return bDone;

    const bool bGoOn = AwaitEvent(pPlace->hRead, INFINITE);
    if (!bGoOn) {
        CancelIoEx(pPlace->hPipe, &pPlace->overlapped); // the system writes to the buffer until the read has ended
        WaitForSingleObject(pPlace->hRead, INFINITE);
    }
    EnterCriticalSection(ListLock());
    const bool bRead = GetOverlappedResult(pPlace->hPipe, &pPlace->overlapped, pcbRead, FALSE);
    pPlace->bReading = false;
    pPlace->bSpoken  = pPlace->bSpoken || bRead;
    LeaveCriticalSection(ListLock());
    return bGoOn && bRead;
}

// [list lock held] True when its client has written nothing since the last handled records.
static bool IsQuiet(Place *pPlace)
{
    uint32_t cb = 0;
    return pPlace->bReading && !GetOverlappedResult(pPlace->hPipe, &pPlace->overlapped, &cb, FALSE) &&
           GetLastError() == ERROR_IO_INCOMPLETE;
}

static uint32_t Remaining(uint64_t ullSince, uint32_t dwMilliseconds)
{
    const uint64_t ullGone = GetTickCount64() - ullSince;
    return ullGone < dwMilliseconds ? static_cast<uint32_t>(dwMilliseconds - ullGone) : 0;
}

// [list lock held] How long an older connection is to be waited for, at most; 0: no more.
static uint32_t PatienceWith(Place *pOlder, uint64_t ullStart)
{
    if (pOlder->bEnded) return 0;
    if (!IsQuiet(pOlder)) return Remaining(ullStart, LATE_CONNECTION_MS);
    return pOlder->bSpoken ? 0 : Remaining(pOlder->ullAccepted, SILENT_CONNECTION_MS);
}

bool AwaitTurn(PipeConnection *pConnection)
{
    const uint64_t ullStart = GetTickCount64();
    bool           bGoOn    = !WaitForStop(0);
    EnterCriticalSection(ListLock());
    for (Place *pOlder = g_pOldest; bGoOn && pOlder != pConnection->pPlace;) {
        const uint32_t dwWait = PatienceWith(pOlder, ullStart);
        Place         *pNext  = pOlder->pNewer;
        if (dwWait != 0) {
            ResetEvent(pOlder->hQuiet);
            pOlder->nUsers++;
            LeaveCriticalSection(ListLock());
            bGoOn = AwaitEvent(pOlder->hQuiet, dwWait);
            EnterCriticalSection(ListLock());
            pNext = PatienceWith(pOlder, ullStart) != 0 ? pOlder : pOlder->pNewer;
            ReleasePlace(pOlder);
        }
        pOlder = pNext;
    }
    LeaveCriticalSection(ListLock());
    return bGoOn;
}

void EndPipeConnection(PipeConnection *pConnection)
{
    Place *pPlace = pConnection->pPlace;
    DisconnectNamedPipe(pPlace->hPipe);
    EnterCriticalSection(ListLock());
    CloseHandle(pPlace->hPipe);
    pPlace->bEnded = true;
    SetEvent(pPlace->hQuiet);
    ReleasePlace(pPlace);
    LeaveCriticalSection(ListLock());
    delete pConnection;
}
