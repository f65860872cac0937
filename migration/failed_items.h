// failed_items.h: collectioninfo.ini: the peer and the collection that the walk's records belong to, and which items
// did not arrive.
// Contents a request that comes after a collection was reported complete sends exactly the items that failed; one that
//          comes before sends them beside what is left. A peer that is another machine, or another user there, has none
//          of what is recorded.
// File     UTF-16 lines as in completeinfo.ini. Lines that begin with '?' are no paths: "?peer NAME SID",
//          "?items HASH" (of the requested items) and, once the collection was reported complete, "?complete". Every
//          other line is an item; one that stands there twice has arrived since.
// Life     from a walk's beginning until a collection has been reported complete and no item is open; begun anew for
//          another peer, and for other items after "?complete".
// Bound    FAILED_ITEMS_MAX items. What cannot be kept is not recorded as done with, and the walk does not end
//          complete.
// Thread   the walk's; no lock.
#pragma once
#include "migration/string_list.h"
#include <cstdint>

constexpr uint32_t FAILED_ITEMS_MAX   = 65536;
constexpr char16_t FAILED_TREE_TAIL[] = u"*"; // "FOLDER\\*": a folder that could not be read, nothing of it was sent

struct FailedItem {
    char16_t *pszPath; // a folder's own entry with a trailing backslash, a tree with FAILED_TREE_TAIL behind it
    bool      bOpen;   // it has not arrived
    bool      bTried;  // by this walk
};
struct FailedItems {
    FailedItem *pItems; // in the order in which they failed first
    uint32_t    nItems;
    uint32_t    nRoom;
    uint32_t   *pSlots;     // look-up by path: numbers of items from 1 on
    uint32_t    nLoaded;    // of them, from earlier walks
    bool        bUnsettled; // the peer did not say, or was not told, what became of an item: the walk is not complete
    // Of the items since the caller last cleared them:
    bool bUnanswered; // the peer did not say what became of one that went out
    bool bUnkept;     // one could not be kept: whatever it belongs to is not to be recorded
};

// What collectioninfo.ini says of the records that a walk finds.
enum class WalkRecords {
    Current, // they are this peer's, as far as anybody knows
    Done,    // they have to go: the collection was reported complete, and only the open items are to be sent
    Foreign, // they have to go: another peer's, or left by a collection that is over
};
// Once for each walk, first. Writes the file anew where there is none, and where it is another peer's or collection's.
WalkRecords OpenFailedItems(FailedItems *pFailed, const StringList *pFolders, const StringList *pFiles);
// The peer has the item. Null pFailed: nothing, here and below.
void NoteItemSent(FailedItems *pFailed, const char16_t *pszPath);
// It does not; nResult is SendNetworkFile's. After a result that ends the link (EndsLink), and of a cancelled send,
// nothing is kept: the walk ends, and the item is still to be sent.
void NoteItemFailed(FailedItems *pFailed, const char16_t *pszPath, int32_t nResult);
// A folder could not be enumerated to its end: items that nobody has seen are still to be sent.
void NoteUnseenItems(FailedItems *pFailed);
// The result of a report to the peer's service about a failed item.
void NoteItemReport(FailedItems *pFailed, int32_t nResult);
// The peer was told that the collection is complete.
void MarkItemsComplete();
// After that, once no other record is left: the file goes, unless an item is open.
void DropSettledItems(const FailedItems *pFailed);
void FreeFailedItems(FailedItems *pFailed);
