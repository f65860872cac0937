// folder_tree.h: one folder and everything below it, sent file by file, resumable; and what walks ask of files and
// keep of full disks.
// Threads  a walk runs on one worker thread and owns all its arguments; nothing is shared, no lock is held between
//          sends.
#pragma once
#include "migration/path_map.h"
#include "migration/string_list.h"
#include <cstdint>

extern int32_t g_bSendDesktopIni; // 0: desktop.ini files are never sent
extern int32_t g_bTypedFiles;     // 0: every file goes as type 3; else files other than ".lnk" as type 5

// A destination key (a drive such as "D:", or a folder) and the size from which files for it are refused; 0 refuses
// all.
struct DestinationLimit {
    char16_t          szKey[260];
    int64_t           llLimit; // bytes
    DestinationLimit *pNext;
};
struct DestinationLimits { // zeroed: none
    DestinationLimit *pFirst;
};
// Null when there is none. Keys compare without regard to case.
DestinationLimit *FindDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey);
// Lowers the key's limit to llLimit, or adds it. An empty key is not added. 1, or 0 without memory.
int32_t LowerDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey, int64_t llLimit);
// True when the limit (null: none) refuses a file of that path.
bool IsRefusedByLimit(const DestinationLimit *pLimit, const char16_t *pszPath);
void FreeDestinationLimits(DestinationLimits *pLimits);

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
    uint32_t *pbUnanswered;     // optional, set to 1 when the peer never said what became of an item that went out whole
};
// Files sent or recorded as sent, in this folder and below; 1 for a folder that held nothing to send (0 where something
// was handled, a file or a subfolder, but none counted). A failed item never stops the walk, only cancellation does. 0
// also for a folder that cannot be read.
//   pszFolder  fewer than 1024 units, without trailing backslash
uint32_t SendNetworkFileEx(const char16_t *pszFolder, const FolderTreeSend *pSend);

// "\\?\" is used for paths of 260 units and more.
bool    IsFolderReadOnly(const char16_t *pszFolder); // false also when it cannot be asked
int64_t GetFileSize64(const char16_t *pszPath);      // bytes, 0 when it cannot be asked
