// send_window.cpp: the items of a walk between being handed over and having their outcome, in a ring in their order.
#include "transfer/send_window.h"
#include "ipc/thread_execution.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "transfer/network_send.h"
#include <algorithm>
#include <cstring>
#include <new>

using namespace platform;

enum class EntryState { Ready, Out, Decided };

struct WindowEntry {
    char16_t    *pszSource; // both texts in one block
    char16_t    *pszDestination;
    uint32_t     dwType;
    EntryState   eState;
    int32_t      nResult; // Decided
    PreparedFile Prepared;
    FileOnTheWay Way; // Out
};

struct SendWindow {
    WindowOwner owner;
    HANDLE      hWake;        // of the walk alone; null: it polls
    uint64_t    ullCancelled; // when the walk was found cancelled; 0: not yet
    uint64_t    ullEnded;     // when a send ended the link; 0: none has
    uint32_t    nFirst;       // of the ring
    uint32_t    nCount;
    uint32_t    nReady; // all behind those that are out; decided ones may stand between them
    int64_t     cbOut;
    WindowEntry aEntries[LINK_WINDOW_FILES];
};

static WindowEntry *EntryAt(SendWindow *pWindow, uint32_t i)
{
    return &pWindow->aEntries[(pWindow->nFirst + i) % LINK_WINDOW_FILES];
}

static bool IsCancelled(SendWindow *pWindow)
{
    if (pWindow->ullCancelled == 0 && IsThreadExecutionCancel(pWindow->owner.ullExecution))
        pWindow->ullCancelled = std::max<uint64_t>(GetTickCount64(), 1);
    return pWindow->ullCancelled != 0;
}

static WindowItem ItemOf(const WindowEntry *pEntry)
{
    return {pEntry->pszSource, pEntry->pszDestination, pEntry->dwType};
}

// Frees what the entry holds.
static void ClearEntry(WindowEntry *pEntry)
{
    ReleasePrepared(&pEntry->Prepared);
    delete[] pEntry->pszSource;
    *pEntry = {};
}

static void Decide(SendWindow *pWindow, WindowEntry *pEntry, int32_t nResult)
{
    if (pEntry->eState == EntryState::Ready) --pWindow->nReady;
    if (pEntry->eState == EntryState::Out) pWindow->cbOut -= pEntry->Prepared.cbSize;
    ReleasePrepared(&pEntry->Prepared);
    pEntry->eState  = EntryState::Decided;
    pEntry->nResult = nResult;
}

// A send has come to nResult. What a stream that broke off in its middle is followed by would be taken for the rest of
// it.
static void NoteEnd(SendWindow *pWindow, int32_t nResult)
{
    if (pWindow->ullEnded == 0 && EndsLink(nResult)) pWindow->ullEnded = std::max<uint64_t>(GetTickCount64(), 1);
}

// What is out on a link that has ended is not waited for file by file.
static void ExpireAfterEnd(SendWindow *pWindow)
{
    if (pWindow->ullEnded == 0 || GetTickCount64() - pWindow->ullEnded < ANSWER_WAIT_MS) return;
    for (uint32_t i = 0; i < pWindow->nCount; ++i) {
        WindowEntry *const pEntry = EntryAt(pWindow, i);
        if (pEntry->eState != EntryState::Out || !pEntry->Way.bAnswerDue) continue;
        DropTicket(&pEntry->Way.Ticket);
        Decide(pWindow, pEntry, SEND_NO_SOCKET);
    }
}

// Tells every outcome that is known, up to the first that is not.
static void TellOutcomes(SendWindow *pWindow)
{
    ExpireAfterEnd(pWindow);
    while (pWindow->nCount > 0) {
        WindowEntry *const pEntry  = EntryAt(pWindow, 0);
        int32_t            nResult = 0;
        if (pEntry->eState == EntryState::Ready) return;
        if (pEntry->eState == EntryState::Out) {
            if (!TakeNetworkResult(&pEntry->Way, pEntry->pszSource, nullptr, &nResult)) return;
            Decide(pWindow, pEntry, nResult);
        }
        WindowEntry told = *pEntry; // its place is free before it is told
        *pEntry          = {};
        pWindow->nFirst  = (pWindow->nFirst + 1) % LINK_WINDOW_FILES;
        --pWindow->nCount;
        const WindowItem item = ItemOf(&told);
        pWindow->owner.pTake(pWindow->owner.pContext, &item, told.nResult);
        ClearEntry(&told);
    }
}

// True when the entry is to be sent: its walk and the tests before the line have nothing against it.
static bool MaySend(SendWindow *pWindow, WindowEntry *pEntry)
{
    const WindowItem item = ItemOf(pEntry);
    const int32_t    nResult =
        pWindow->ullEnded != 0 ? SEND_NO_SOCKET : pWindow->owner.pDecide(pWindow->owner.pContext, &item);
    if (nResult != 0) Decide(pWindow, pEntry, nResult);
    return nResult == 0;
}

static NetworkFile FileOf(const SendWindow *pWindow, const WindowEntry *pEntry)
{
    return {pEntry->pszSource,
            pEntry->pszDestination,
            pEntry->dwType,
            pWindow->owner.ullExecution,
            1,
            pEntry->Prepared.bReady ? &pEntry->Prepared : nullptr};
}

static void PrepareEntry(void *pContext)
{
    auto *const pEntry = static_cast<WindowEntry *>(pContext);
    if (pEntry->dwType != FILE_TYPE_FOLDER && !pEntry->Prepared.bReady)
        PrepareFile(pEntry->pszSource, &pEntry->Prepared);
}

// Sends an entry and waits for its answer. pNext: the entry to prepare meanwhile, or null.
static void SendSingly(SendWindow *pWindow, WindowEntry *pEntry, WindowEntry *pNext)
{
    if (!MaySend(pWindow, pEntry)) return;
    const NetworkFile file    = FileOf(pWindow, pEntry);
    const WaitingWork work    = {PrepareEntry, pNext};
    const int32_t     nResult = SendPreparedNetworkFile(&file, pNext != nullptr ? &work : nullptr, nullptr);
    NoteEnd(pWindow, nResult);
    Decide(pWindow, pEntry, nResult);
}

// Sends what is ready, as one batch. bButLast: the last entry waits.
static void SendReady(SendWindow *pWindow, bool bButLast = false)
{
    const uint32_t nEntries               = pWindow->nCount - (bButLast ? 1 : 0);
    NetworkFile    aFiles[BATCH_FILES]    = {};
    FileOnTheWay   aWays[BATCH_FILES]     = {};
    WindowEntry   *apEntries[BATCH_FILES] = {};
    uint32_t       nFiles                 = 0;
    for (uint32_t i = 0; i < nEntries && pWindow->nReady > 0; ++i) {
        WindowEntry *const pEntry = EntryAt(pWindow, i);
        if (pEntry->eState != EntryState::Ready || !MaySend(pWindow, pEntry)) continue;
        aFiles[nFiles]       = FileOf(pWindow, pEntry);
        const int32_t nCheck = CheckNetworkFile(&aFiles[nFiles]);
        if (nCheck != 0) Decide(pWindow, pEntry, nCheck);
        else apEntries[nFiles++] = pEntry;
        if (nFiles == BATCH_FILES) break;
    }
    const uint32_t nBegun = BeginNetworkFiles(aFiles, nFiles, aWays);
    if (nBegun > 0) NoteEnd(pWindow, aWays[nBegun - 1].nRet);
    for (uint32_t i = 0; i < nFiles; ++i) {
        if (i >= nBegun) {
            SendSingly(pWindow, apEntries[i], nullptr);
            continue;
        }
        const int64_t cbSize = apEntries[i]->Prepared.cbSize;
        --pWindow->nReady;
        pWindow->cbOut += cbSize;
        ReleasePrepared(&apEntries[i]->Prepared);
        apEntries[i]->Prepared.cbSize = cbSize; // what it has in the window
        apEntries[i]->eState          = EntryState::Out;
        apEntries[i]->Way             = aWays[i];
    }
}

// Sleeps until half of the entries that are out have their word, or for a poll's time.
static void AwaitWords(SendWindow *pWindow)
{
    uint32_t nOut = 0;
    while (nOut < pWindow->nCount && EntryAt(pWindow, nOut)->eState != EntryState::Ready) ++nOut;
    for (uint32_t i = (nOut + 1) / 2; i-- > 0;) { // a decided one has no word to wait for
        FileOutcome              outcome;
        const WindowEntry *const pEntry = EntryAt(pWindow, i);
        if (pEntry->eState != EntryState::Out || !pEntry->Way.bAnswerDue) continue;
        if (LookAtAnswer(&pEntry->Way.Ticket, pWindow->hWake, &outcome) != AnswerState::Owed) return;
        break;
    }
    if (pWindow->hWake == nullptr) Sleep(ANSWER_POLL_MS);
    else WaitForSingleObject(pWindow->hWake, ANSWER_POLL_MS);
}

// True when nothing further may be sent for now.
static bool IsFull(const SendWindow *pWindow)
{
    const uint32_t nWindow = IsPeerSending() ? 1 : GetLinkWindow();
    return pWindow->nCount >= nWindow || pWindow->cbOut >= WINDOW_BYTES;
}

// Makes room for one more item. False: cancelled.
static bool MakeRoom(SendWindow *pWindow)
{
    TellOutcomes(pWindow);
    while (IsFull(pWindow) && pWindow->nCount > 0) {
        if (IsCancelled(pWindow)) return false;
        if (pWindow->nReady > 0) SendReady(pWindow);
        else AwaitWords(pWindow);
        TellOutcomes(pWindow);
    }
    return true;
}

static bool IsBatchFull(SendWindow *pWindow)
{
    int64_t cbReady = 0;
    for (uint32_t i = 0; i < pWindow->nCount; ++i)
        if (EntryAt(pWindow, i)->eState == EntryState::Ready) cbReady += EntryAt(pWindow, i)->Prepared.cbSize;
    return pWindow->nReady == BATCH_FILES || cbReady >= BATCH_BYTES;
}

// The item as the last entry. Null without memory.
static WindowEntry *Append(SendWindow *pWindow, const WindowItem *pItem)
{
    const size_t cchSource      = TextLengthW(pItem->pszSource) + 1;
    const size_t cchDestination = TextLengthW(pItem->pszDestination) + 1;
    char16_t    *pszTexts       = new (std::nothrow) char16_t[cchSource + cchDestination];
    if (pszTexts == nullptr) return nullptr;
    std::memcpy(pszTexts, pItem->pszSource, cchSource * sizeof(char16_t));
    std::memcpy(pszTexts + cchSource, pItem->pszDestination, cchDestination * sizeof(char16_t));
    WindowEntry *const pEntry = EntryAt(pWindow, pWindow->nCount++);
    pEntry->pszSource         = pszTexts;
    pEntry->pszDestination    = pszTexts + cchSource;
    pEntry->dwType            = pItem->dwType;
    pEntry->eState            = EntryState::Ready;
    ++pWindow->nReady;
    return pEntry;
}

// Before a file that takes its time: what is out is recorded before it, not after it. The last entry stays.
static void AwaitOlder(SendWindow *pWindow)
{
    TellOutcomes(pWindow);
    while (pWindow->nCount > 1 && !IsCancelled(pWindow)) {
        if (pWindow->nReady > 1) SendReady(pWindow, true);
        else AwaitWords(pWindow);
        TellOutcomes(pWindow);
    }
}

// An item for which there is no memory, in its turn.
static void TellUnsent(SendWindow *pWindow, const WindowItem *pItem, int32_t nDecided)
{
    DrainWindow(pWindow);
    if (!IsCancelled(pWindow))
        pWindow->owner.pTake(pWindow->owner.pContext, pItem, nDecided != 0 ? nDecided : SEND_FILE_ERROR);
}

// One at a time: the item before this one goes out, and this one is prepared while the answer is awaited.
static void HandOverSingly(SendWindow *pWindow, const WindowItem *pItem, int32_t nDecided)
{
    WindowEntry *const pWaiting = pWindow->nReady > 0 ? EntryAt(pWindow, pWindow->nCount - 1) : nullptr;
    WindowEntry *const pEntry   = Append(pWindow, pItem);
    if (pEntry == nullptr) {
        TellUnsent(pWindow, pItem, nDecided);
        return;
    }
    if (nDecided != 0) Decide(pWindow, pEntry, nDecided);
    if (pWaiting != nullptr) SendSingly(pWindow, pWaiting, nDecided == 0 ? pEntry : nullptr);
    TellOutcomes(pWindow);
}

SendWindow *OpenSendWindow(const WindowOwner *pOwner)
{
    auto *const pWindow = new (std::nothrow) SendWindow();
    if (pWindow != nullptr) {
        pWindow->owner = *pOwner;
        pWindow->hWake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    }
    return pWindow;
}

void HandOver(SendWindow *pWindow, const WindowItem *pItem, int32_t nDecided)
{
    if (GetLinkWindow() == 1) {
        HandOverSingly(pWindow, pItem, nDecided);
        return;
    }
    if (!MakeRoom(pWindow)) return;
    WindowEntry *const pEntry = Append(pWindow, pItem);
    if (pEntry == nullptr) {
        TellUnsent(pWindow, pItem, nDecided);
        return;
    }
    if (nDecided != 0) {
        Decide(pWindow, pEntry, nDecided);
    } else {
        PrepareEntry(pEntry);
        if (pEntry->Prepared.cbSize >= WINDOW_BYTES) AwaitOlder(pWindow);
        // At once while the peer has nothing to do, else with others.
        if (pWindow->nReady == pWindow->nCount || IsBatchFull(pWindow) || IsFull(pWindow)) SendReady(pWindow);
    }
    TellOutcomes(pWindow);
}

void DrainWindow(SendWindow *pWindow)
{
    TellOutcomes(pWindow);
    while (pWindow->nCount > 0) {
        const bool bCancelled = IsCancelled(pWindow);
        // A folder is made whatever comes, as it is where nothing waits.
        const bool bReady = EntryAt(pWindow, 0)->eState == EntryState::Ready;
        if (bCancelled && bReady && EntryAt(pWindow, 0)->dwType != FILE_TYPE_FOLDER) break;
        if (bCancelled && !bReady && GetTickCount64() - pWindow->ullCancelled >= ANSWER_WAIT_MS) break;
        if (bReady || (!bCancelled && pWindow->nReady > 0)) {
            if (GetLinkWindow() > 1) SendReady(pWindow);
            else SendSingly(pWindow, EntryAt(pWindow, 0), nullptr);
        } else {
            AwaitWords(pWindow);
        }
        TellOutcomes(pWindow);
    }
    for (; pWindow->nCount > 0; --pWindow->nCount) { // cancelled: undecided
        WindowEntry *const pEntry = EntryAt(pWindow, pWindow->nCount - 1);
        if (pEntry->eState == EntryState::Out && pEntry->Way.bAnswerDue) DropTicket(&pEntry->Way.Ticket);
        ClearEntry(pEntry);
    }
    pWindow->nReady = 0;
    pWindow->cbOut  = 0;
}

void CloseSendWindow(SendWindow *pWindow)
{
    if (pWindow != nullptr && pWindow->hWake != nullptr) CloseHandle(pWindow->hWake);
    delete pWindow;
}
