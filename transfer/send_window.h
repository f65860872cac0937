// send_window.h: how a walk sends its files: as many at once as the link allows, with their outcomes in order.
// Order    a walk hands its items over one by one and is told what became of each in that order, whatever the link is.
//          Only then it records, reports or counts an item. What is known without sending (a refused or recorded item)
//          takes its place in the order too.
// Link     with a send window (net/link_window.h) up to its number of files, and WINDOW_BYTES, are unanswered at once;
//          small ones that are ready leave together. Without one, each file waits for the answer to the one before it,
//          and the next is prepared meanwhile (prepared_file.h): so one item is always behind.
//          While the peer sends files too, one file at a time keeps both from filling the line for each other.
// End      a cancelled walk sends nothing more of what it handed over; what is out is waited for at most ANSWER_WAIT_MS
//          in all, and what is then undecided is never told: it stays as if it had not been tried. Items whose link has
//          ended come to SEND_NO_SOCKET; after a send that ended it (EndsLink) nothing more is sent.
// Thread   the walk's. No lock is held between calls.
#pragma once
#include <cstdint>

constexpr int64_t  WINDOW_BYTES = 4 << 20; // unanswered, from which no further file begins
constexpr uint32_t BATCH_FILES  = 16;      // that leave together, at most
constexpr uint32_t BATCH_BYTES  = 96 << 10;

struct WindowItem {
    const char16_t *pszSource;
    const char16_t *pszDestination; // empty where nothing was to be sent
    uint32_t        dwType;
};
struct WindowOwner {
    void    *pContext;
    uint64_t ullExecution;
    // Asked right before an item would go out: 0, or what it comes to without being sent.
    int32_t (*pDecide)(void *pContext, const WindowItem *pItem);
    // SendNetworkFile's result, or the one that was decided. Must not hand over or drain.
    void (*pTake)(void *pContext, const WindowItem *pItem, int32_t nResult);
};
struct SendWindow;

// Null without memory. The owner is copied.
SendWindow *OpenSendWindow(const WindowOwner *pOwner);
// Hands an item over; its texts are copied. Blocks while the window is full. Outcomes of earlier items come meanwhile.
//   nDecided  0: it is to be sent, encrypted; else its outcome
void HandOver(SendWindow *pWindow, const WindowItem *pItem, int32_t nDecided);
// Waits until every item has its outcome, or the walk is cancelled; see above.
void DrainWindow(SendWindow *pWindow);
// After DrainWindow; null is nothing.
void CloseSendWindow(SendWindow *pWindow);
