// folder_tree.h: one folder and everything below it, sent file by file, resumable.
// Threads  a walk runs on one worker thread and owns all its arguments; nothing is shared, no lock is held between
//          sends.
#pragma once
#include "migration/failed_items.h"
#include "migration/path_map.h"
#include "migration/string_list.h"
#include "transfer/destination_limits.h"
#include <cstdint>

extern int32_t g_bSendDesktopIni; // 0: desktop.ini files are never sent
extern int32_t g_bTypedFiles;     // 0: every file goes as type 3; else files other than ".lnk" as type 5

// What a tree send is given beside the folder. Pointers may be null where "optional".
struct FolderTreeSend {
    const StringList *pExcluded;   // optional: full source paths never entered
    const StringList *pRestricted; // optional: their subfolders are entered only when listed in pIncluded
    const StringList *pIncluded;   // optional: without it pRestricted restricts nothing
    PathMap          *pMap;        // optional: without it destinations are the source paths
    const char16_t
             *pszRecordBase; // optional: base folder with trailing backslash of the resume records; null keeps none
    uint64_t  ullExecution;
    uint32_t *pbSpaceExhausted; // optional, set to 1 when the peer reported a full disk
    uint32_t *pbFatal;          // optional, set to 1 when a send, the folders' own included, ended the link
    DestinationLimits *pLimits; // optional
    FailedItems       *pFailed; // optional: learns what becomes of each item
};
// Files sent or recorded as sent, in this folder and below; 1 for a folder that held nothing to send (0 where something
// was handled, a file or a subfolder, but none counted). A failed item never stops the walk, only cancellation does. 0
// also for a folder that cannot be read.
//   pszFolder  fewer than 1024 units, without trailing backslash
uint32_t SendNetworkFileEx(const char16_t *pszFolder, const FolderTreeSend *pSend);
