// answer_queue.cpp: the unanswered files of the link as a ring in the order in which they went out.
#include "transfer/answer_queue.h"
#include "net/command_channel.h"
#include "net/network_link.h"
#include "platform/made_once.h"

using namespace platform;

constexpr uint32_t PLACES = 256; // more than one window and whatever else is sent beside it

struct Place {
    FileOutcome outcome;
    bool        bEnded;   // it has gone out
    bool        bClosed;  // its word has come, or none will
    bool        bDropped; // nobody waits for it
    HANDLE      hWake;    // set when it is closed; null: nobody sleeps
    uint64_t    ullTurn;  // since when nothing but its own word is missing; 0: not yet
};

// Numbers grow by one for each file of the link: nLow <= nOldest, nTurn <= nNext.
struct AnswerQueue {
    uint32_t dwLink;
    uint32_t nLow;    // the first whose place is taken
    uint32_t nOldest; // the first that is not closed
    uint32_t nTurn;   // the first that is neither closed nor dropped
    uint32_t nNext;
    bool     bUnderWay; // the last one has not gone out whole
    Place    aPlaces[PLACES];
};

static CRITICAL_SECTION g_csAnswers;
static AnswerQueue      g_Queue; // g_csAnswers

static CRITICAL_SECTION *AnswerLock()
{
    return MadeOnce<&g_csAnswers>();
}

static Place *PlaceOf(uint32_t nNumber)
{
    return &g_Queue.aPlaces[nNumber % PLACES];
}

// [lock] Null for a void ticket.
static Place *FindPlace(const FileTicket *pTicket)
{
    if (pTicket->dwLink != g_Queue.dwLink || pTicket->dwLink != g_dwLinkGeneration) return nullptr;
    return pTicket->nNumber - g_Queue.nLow < g_Queue.nNext - g_Queue.nLow ? PlaceOf(pTicket->nNumber) : nullptr;
}

// [lock] After a place has changed.
static void Advance()
{
    AnswerQueue *const p = &g_Queue;
    while (p->nOldest != p->nNext && PlaceOf(p->nOldest)->bClosed) ++p->nOldest;
    while (p->nTurn != p->nNext && (PlaceOf(p->nTurn)->bClosed || PlaceOf(p->nTurn)->bDropped)) ++p->nTurn;
    while (p->nLow != p->nNext && PlaceOf(p->nLow)->bClosed && PlaceOf(p->nLow)->bDropped) ++p->nLow;
    if (p->nTurn == p->nNext) return;
    Place *const pTurn = PlaceOf(p->nTurn);
    if (pTurn->bEnded && pTurn->ullTurn == 0) pTurn->ullTurn = GetTickCount64();
}

bool OpenAnswer(FileTicket *pTicket)
{
    const uint32_t dwLink = g_dwLinkGeneration;
    EnterCriticalSection(AnswerLock());
    if (g_Queue.dwLink != dwLink) {
        g_Queue        = {};
        g_Queue.dwLink = dwLink;
    }
    const bool bRoom = g_Queue.nNext - g_Queue.nLow < PLACES;
    if (bRoom) {
        *PlaceOf(g_Queue.nNext) = {};
        *pTicket                = {dwLink, g_Queue.nNext++};
        g_Queue.bUnderWay       = true;
    }
    LeaveCriticalSection(AnswerLock());
    return bRoom;
}

void EndStream(const FileTicket *pTicket, bool bSent)
{
    EnterCriticalSection(AnswerLock());
    if (Place *const pPlace = FindPlace(pTicket)) {
        g_Queue.bUnderWay = false;
        pPlace->bEnded    = true;
        if (!bSent) pPlace->bClosed = true;
        Advance();
    }
    LeaveCriticalSection(AnswerLock());
}

FileOutcome GetCurrentOutcome()
{
    EnterCriticalSection(AnswerLock());
    const bool  bQueued = g_Queue.bUnderWay && g_Queue.dwLink == g_dwLinkGeneration;
    FileOutcome outcome = bQueued ? PlaceOf(g_Queue.nNext - 1)->outcome : FileOutcome{};
    LeaveCriticalSection(AnswerLock());
    if (!bQueued)
        outcome = {g_bRemoteFileError != 0, g_bRemoteFileDone != 0, g_bRemoteFileFull != 0, g_bRemoteFileAllFull != 0,
                   g_bRemoteFileTypeUnknown != 0};
    return outcome;
}

AnswerState LookAtAnswer(const FileTicket *pTicket, HANDLE hWake, FileOutcome *pOutcome)
{
    AnswerState eState = AnswerState::LinkGone;
    EnterCriticalSection(AnswerLock());
    if (Place *const pPlace = FindPlace(pTicket)) {
        *pOutcome     = pPlace->outcome;
        pPlace->hWake = hWake;
        eState        = AnswerState::Owed;
        if (pPlace->bClosed) eState = AnswerState::Closed;
        else if (pPlace->ullTurn != 0 && GetTickCount64() - pPlace->ullTurn >= ANSWER_WAIT_MS)
            eState = AnswerState::Overdue;
    }
    LeaveCriticalSection(AnswerLock());
    return eState;
}

void DropTicket(const FileTicket *pTicket)
{
    EnterCriticalSection(AnswerLock());
    if (Place *const pPlace = FindPlace(pTicket)) {
        pPlace->bDropped = true;
        Advance();
    }
    LeaveCriticalSection(AnswerLock());
}

bool NoteAnswer(AnswerWord eWord)
{
    EnterCriticalSection(AnswerLock());
    const bool bOwed =
        g_Queue.dwLink == g_dwLinkGeneration && g_Queue.nOldest != g_Queue.nNext && IsThreadLinkCurrent();
    if (bOwed) {
        Place *const pPlace = PlaceOf(g_Queue.nOldest);
        switch (eWord) {
        case AnswerWord::Done: pPlace->outcome.bDone = true; break;
        case AnswerWord::None: break;
        case AnswerWord::Error: pPlace->outcome.bError = true; break;
        case AnswerWord::AllFull: pPlace->outcome.bAllFull = true; [[fallthrough]];
        case AnswerWord::Full: pPlace->outcome.bFull = true; break;
        case AnswerWord::TypeUnknown: pPlace->outcome.bTypeUnknown = true; break;
        }
        if (eWord == AnswerWord::Done || eWord == AnswerWord::None) {
            pPlace->bClosed = true;
            if (pPlace->hWake != nullptr) SetEvent(pPlace->hWake); // inside: a sleeper may close it once it knows
            Advance();
        }
    }
    LeaveCriticalSection(AnswerLock());
    return bOwed;
}

bool IsAnswerOwed()
{
    EnterCriticalSection(AnswerLock());
    const bool bOwed = g_Queue.dwLink == g_dwLinkGeneration && g_Queue.nTurn != g_Queue.nNext;
    LeaveCriticalSection(AnswerLock());
    return bOwed;
}

void ResetAnswerQueue()
{
    EnterCriticalSection(AnswerLock());
    g_Queue = {};
    LeaveCriticalSection(AnswerLock());
}
