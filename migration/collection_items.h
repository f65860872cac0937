// collection_items.h: the folders and files of one collection, and sending one of them. Part of the walk
// (collection.h), on its thread; nothing is shared.
#pragma once
#include "migration/failed_items.h"
#include "migration/path_map.h"
#include "migration/string_list.h"
#include "transfer/folder_tree.h"
#include "transfer/send_window.h"
#include <cstdint>

// A requested file, in request order.
struct CollectionFile {
    const char16_t *pszPath; // in the walk's file list
    uint32_t        nOrder;
    bool            bDone; // in completeinfo.ini, or asked for a second time
};
struct CollectionWalk {
    uint64_t          ullExecution;
    StringList        Folders; // requested
    StringList        Files;
    StringList        DoneFolders; // in completeinfo.ini, and what this run has added
    PathMap           Map;
    StringList        Excluded; // what the folder-tree send leaves out: see GetUpgradeFolders
    StringList        UserProfiles;
    StringList        Profiles;
    DestinationLimits Limits;
    FailedItems       Failed;
    uint32_t          bSpaceExhausted; // set by the folder-tree send
    uint32_t          bFatal;          // the link or the peer failed
    bool              bRetry;          // what goes through the window is not requested itself but failed before
    bool              bOk;             // the walk may go on
};

// True while the walk is neither cancelled nor failed; asks the link too, since a tree without files notices nothing of
// its end.
bool MayWalkGoOn(CollectionWalk *pWalk);
// Marks what completeinfo.ini names and what is named twice. New array of pWalk->Files.nCount items, or null without
// memory.
CollectionFile *IndexCollectionFiles(const CollectionWalk *pWalk, const StringList *pDoneFiles);
// Sends one folder and, when it was walked to its end, records and reports it.
//   bResumed  the item records on disk are this folder's; otherwise they are begun anew
void SendCollectionFolder(CollectionWalk *pWalk, const char16_t *pszFolder, bool bResumed);
// The window through which the single files go; its outcomes record, report and stop the walk. Null without memory.
SendWindow *OpenCollectionWindow(CollectionWalk *pWalk);
// Hands one file over; it is sent, or refused by the limits, and recorded and reported in its turn.
void SendCollectionFile(CollectionWalk *pWalk, SendWindow *pWindow, const char16_t *pszFile);
// True for an item that stands for a folder and everything below it; pszFolder (MAP_PATH_UNITS) is the folder.
bool IsFailedTree(const FailedItem *pItem, char16_t *pszFolder);
// Sends such a folder of Walk.Failed, of which nothing was sent before.
void SendFailedTree(CollectionWalk *pWalk, uint32_t nItem);
// One of the other items of Walk.Failed: a file, or a folder's own entry. One that is no longer there is given up.
void SendFailedItem(CollectionWalk *pWalk, SendWindow *pWindow, const FailedItem *pItem);
