// collection_items.cpp: one requested folder or file of a collection.
// A file that the peer has stored is recorded whatever else happens meanwhile. A process killed after the peer's
// "FileDone" and before its own record is written sends that one file a second time; the peer knows it again.
#include "migration/collection_items.h"
#include "ipc/thread_execution.h"
#include "migration/peer_reports.h"
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/file_queries.h"
#include "transfer/network_send.h"
#include <algorithm>
#include <new>

using namespace platform;

constexpr int32_t  FILE_REFUSED    = 3; // not sent: the destination is known to be full
constexpr int32_t  ITEM_GONE       = 4; // not sent: nothing is left of it on this machine, now or later
constexpr uint32_t VERDICT_POLLS   = 40;
constexpr uint32_t VERDICT_POLL_MS = 25;

constexpr size_t LIMIT_KEY_UNITS   = 260;
constexpr size_t DRIVE_KEY_UNITS   = 2;                       // "D:", the key of folder trees
constexpr size_t FILE_TEXT_UNITS   = IPC_LONG_TEXT_UNITS;     // longer paths are not reported
constexpr size_t FOLDER_TEXT_UNITS = IPC_LONG_TEXT_UNITS - 1; // room for the backslash

bool MayWalkGoOn(CollectionWalk *pWalk)
{
    if (!IsThreadLinkCurrent()) pWalk->bFatal = 1;
    return !pWalk->bFatal && !IsThreadExecutionCancel(pWalk->ullExecution);
}

CollectionFile *IndexCollectionFiles(const CollectionWalk *pWalk, const StringList *pDoneFiles)
{
    const uint32_t  nFiles = pWalk->Files.nCount;
    CollectionFile *pFiles = new (std::nothrow) CollectionFile[nFiles > 0 ? nFiles : 1];
    if (pFiles == nullptr) return nullptr;
    CollectionFile *pEnd = pFiles;
    for (const StringEntry *pEntry = pWalk->Files.pFirst; pEntry != nullptr; pEntry = pEntry->pNext, ++pEnd)
        *pEnd = {StringText(pEntry), static_cast<uint32_t>(pEnd - pFiles), false};

    // By exact names, which a folder may have side by side. Sorted for the look-ups: a search from the front for each
    // of many thousand files would outlast their sending.
    const auto ByName = [](const CollectionFile &Left, const CollectionFile &Right) {
        const int32_t nOrder = CompareTextW(Left.pszPath, Right.pszPath);
        return nOrder != 0 ? nOrder < 0 : Left.nOrder < Right.nOrder;
    };
    std::sort(pFiles, pEnd, ByName);
    for (CollectionFile *pFile = pFiles; pFile + 1 < pEnd; ++pFile)
        if (CompareTextW(pFile[0].pszPath, pFile[1].pszPath) == 0) pFile[1].bDone = true;
    for (const StringEntry *pEntry = pDoneFiles->pFirst; pEntry != nullptr; pEntry = pEntry->pNext) {
        CollectionFile *pFound = std::lower_bound(pFiles, pEnd, CollectionFile{StringText(pEntry), 0, false}, ByName);
        if (pFound != pEnd && CompareTextW(pFound->pszPath, StringText(pEntry)) == 0) pFound->bDone = true;
    }
    std::sort(pFiles, pEnd,
              [](const CollectionFile &Left, const CollectionFile &Right) { return Left.nOrder < Right.nOrder; });
    return pFiles;
}

// After an item that the peer did not answer for. A peer that left in order is not noticed while one only waits for it;
// but the item's failure has been reported meanwhile, and a machine answers what comes for a connection that is gone
// with a reset. Given a moment, the listener finds it, and the item stays to be sent by the next run.
static void AwaitLinkVerdict(CollectionWalk *pWalk)
{
    for (uint32_t i = 0; i < VERDICT_POLLS && MayWalkGoOn(pWalk); ++i) Sleep(VERDICT_POLL_MS);
}

static void ReportFolder(CollectionWalk *pWalk, const char16_t *pszFolder, uint32_t nSent)
{
    char16_t szText[IPC_LONG_TEXT_UNITS];
    if (TextLengthW(pszFolder) >= FOLDER_TEXT_UNITS) return;
    FormatTextW(szText, IPC_LONG_TEXT_UNITS, u"%s\\", pszFolder);
    const int32_t nRet = SendFailItems(nSent == 0 ? 1 : 0, nSent, szText);
    if (nSent == 0) NoteItemReport(&pWalk->Failed, nRet);
}

static void ReportFile(CollectionWalk *pWalk, const char16_t *pszFile, bool bFailed)
{
    if (TextLengthW(pszFile) >= FILE_TEXT_UNITS) return;
    const int32_t nRet = SendFailItems(bFailed ? 1 : 0, 1, pszFile);
    if (bFailed) NoteItemReport(&pWalk->Failed, nRet);
}

// To be done before an item's outcome is looked at.
static void ClearItemFlags(CollectionWalk *pWalk)
{
    pWalk->Failed.bUnanswered = false;
    pWalk->Failed.bUnkept     = false;
}

// The files sent; the records are those of pszBase, null keeps none.
static uint32_t SendTree(CollectionWalk *pWalk, const char16_t *pszFolder, const char16_t *pszBase)
{
    FolderTreeSend Send = {};
    Send.pExcluded      = &pWalk->Excluded;
    Send.pFailed        = &pWalk->Failed;
    // Without a profile that may be entered, the restriction would leave out every user's files, this one's too.
    const bool bRestrict  = pWalk->UserProfiles.nCount != 0 && pWalk->Profiles.nCount != 0;
    Send.pRestricted      = bRestrict ? &pWalk->UserProfiles : nullptr;
    Send.pIncluded        = bRestrict ? &pWalk->Profiles : nullptr;
    Send.pMap             = &pWalk->Map;
    Send.pszRecordBase    = pszBase;
    Send.ullExecution     = pWalk->ullExecution;
    Send.pbSpaceExhausted = &pWalk->bSpaceExhausted;
    Send.pbFatal          = &pWalk->bFatal;
    Send.pLimits          = &pWalk->Limits;
    ClearItemFlags(pWalk);
    const uint32_t nSent = SendNetworkFileEx(pszFolder, &Send);
    if (pWalk->Failed.bUnanswered) AwaitLinkVerdict(pWalk);
    pWalk->bOk = MayWalkGoOn(pWalk);
    return nSent;
}

void SendCollectionFolder(CollectionWalk *pWalk, const char16_t *pszFolder, bool bResumed)
{
    char16_t szBase[PATH_LINE_UNITS + 1];
    FormatTextW(szBase, PATH_LINE_UNITS + 1, u"%s\\", pszFolder);
    // When the records cannot be begun anew, those on disk are another folder's, and would have files of this one
    // skipped.
    const bool     bRecords = bResumed || BeginWorkingFolder(pszFolder);
    const uint32_t nSent    = SendTree(pWalk, pszFolder, bRecords ? szBase : nullptr);
    if (!pWalk->bOk) return; // stays the working folder, which the next run resumes
    if (!pWalk->Failed.bUnkept) AppendCompleteInfo(pszFolder, 1);
    AppendString(&pWalk->DoneFolders, pszFolder,
                 TextLengthW(pszFolder) < STRING_INLINE_UNITS ? STRING_INLINE_UNITS : PATH_LINE_UNITS);
    ReportFolder(pWalk, pszFolder, nSent);
}

// The keys under which a destination's limits are kept: its folder, and its drive.
struct LimitKeys {
    char16_t szFolder[LIMIT_KEY_UNITS];
    char16_t szDrive[LIMIT_KEY_UNITS];
};
static LimitKeys KeysOf(const char16_t *pszDestination)
{
    LimitKeys Keys = {};
    char16_t  szFolder[MAP_PATH_UNITS];
    if (TextLengthW(pszDestination) <= 1) return Keys;
    CopyTextW(szFolder, MAP_PATH_UNITS, pszDestination);
    PathCchRemoveFileSpec(szFolder, MAP_PATH_UNITS);
    CopyTextW(Keys.szFolder, LIMIT_KEY_UNITS, szFolder);
    CopyTextW(Keys.szDrive, DRIVE_KEY_UNITS + 1, pszDestination);
    return Keys;
}

// 0, or FILE_REFUSED when the limits refuse it.
static int32_t DecideFile(void *pContext, const WindowItem *pItem)
{
    auto *const     pWalk = static_cast<CollectionWalk *>(pContext);
    const LimitKeys Keys  = KeysOf(pItem->pszDestination);
    if (pItem->dwType == FILE_TYPE_FOLDER) return 0;
    return IsRefusedByLimit(FindDestinationLimit(&pWalk->Limits, Keys.szFolder), pItem->pszSource) ||
                   IsRefusedByLimit(FindDestinationLimit(&pWalk->Limits, Keys.szDrive), pItem->pszSource)
               ? FILE_REFUSED
               : 0;
}

// What a failure says of the files that come after it.
static void LearnFromFailure(CollectionWalk *pWalk, int32_t nRet, const char16_t *pszFile, const char16_t *pszFolderKey)
{
    switch (nRet) {
    case SEND_DISK_FULL: {
        const int64_t llSize = GetFileSize64(pszFile);
        if (llSize > 0) LowerDestinationLimit(&pWalk->Limits, pszFolderKey, llSize); // 0 would refuse everything
        break;
    }
    case SEND_DISK_ALL_FULL: LowerDestinationLimit(&pWalk->Limits, pszFolderKey, 0); break;
    default:
        if (EndsLink(nRet)) pWalk->bFatal = 1;
        break;
    }
}

// A file's outcome, in request order. What the peer did not answer is never recorded; what it refused is, as done with:
// collectioninfo.ini keeps it for a further request.
static void TakeFile(CollectionWalk *pWalk, const WindowItem *pItem, int32_t nRet)
{
    const char16_t *const pszFile = pItem->pszSource;
    ClearItemFlags(pWalk);
    if (nRet == ITEM_GONE) {
        NoteItemSent(&pWalk->Failed, pszFile);
        ReportFile(pWalk, pszFile, true);
        return;
    }
    if (nRet == FILE_REFUSED) {
        NoteItemFailed(&pWalk->Failed, pszFile, SEND_DISK_FULL);
        ReportFile(pWalk, pszFile, true);
        return;
    }
    if (nRet != SEND_OK) {
        TraceValueText("!!SendNetworkFileEx", static_cast<uint32_t>(nRet), pszFile, MAP_PATH_UNITS);
        LearnFromFailure(pWalk, nRet, pszFile, KeysOf(pItem->pszDestination).szFolder);
        if (!IsThreadExecutionCancel(pWalk->ullExecution)) NoteItemFailed(&pWalk->Failed, pszFile, nRet);
    }
    const bool bOpen = pWalk->Failed.bUnanswered || pWalk->Failed.bUnkept;
    if (pWalk->Failed.bUnanswered) {
        ReportFile(pWalk, pszFile, true);
        AwaitLinkVerdict(pWalk);
    }
    pWalk->bOk = MayWalkGoOn(pWalk);
    if (!pWalk->bRetry && (nRet == SEND_OK || (pWalk->bOk && !bOpen))) AppendCompleteInfo(pszFile, 0);
    if (nRet == SEND_OK) NoteItemSent(&pWalk->Failed, pszFile);
    if (!pWalk->Failed.bUnanswered) ReportFile(pWalk, pszFile, nRet != SEND_OK);
}

// The entry of a folder, tried again.
static void TakeFolder(CollectionWalk *pWalk, const WindowItem *pItem, int32_t nRet)
{
    char16_t szFolder[MAP_PATH_UNITS + 1];
    FormatTextW(szFolder, MAP_PATH_UNITS + 1, u"%s\\", pItem->pszSource);
    if (nRet == SEND_OK || nRet == ITEM_GONE) NoteItemSent(&pWalk->Failed, szFolder);
    else NoteItemFailed(&pWalk->Failed, szFolder, nRet);
    if (EndsLink(nRet)) pWalk->bFatal = 1;
    pWalk->bOk = MayWalkGoOn(pWalk);
}

static void TakeItem(void *pContext, const WindowItem *pItem, int32_t nRet)
{
    auto *const pWalk = static_cast<CollectionWalk *>(pContext);
    if (pItem->dwType == FILE_TYPE_FOLDER) TakeFolder(pWalk, pItem, nRet);
    else TakeFile(pWalk, pItem, nRet);
}

SendWindow *OpenCollectionWindow(CollectionWalk *pWalk)
{
    const WindowOwner Owner = {pWalk, pWalk->ullExecution, DecideFile, TakeItem};
    return OpenSendWindow(&Owner);
}

void SendCollectionFile(CollectionWalk *pWalk, SendWindow *pWindow, const char16_t *pszFile)
{
    char16_t szDestination[MAP_PATH_UNITS];
    CopyTextW(szDestination, MAP_PATH_UNITS, pszFile);
    const bool       bFits = TranslateForTarget(&pWalk->Map, szDestination, MAP_PATH_UNITS) >= 0;
    const WindowItem Item  = {pszFile, bFits ? szDestination : u"", FILE_TYPE_COLLECTION};
    HandOver(pWindow, &Item, bFits ? 0 : SEND_BAD_DESTINATION);
}

void SendFailedItem(CollectionWalk *pWalk, SendWindow *pWindow, const FailedItem *pItem)
{
    char16_t     szSource[MAP_PATH_UNITS];
    char16_t     szDestination[MAP_PATH_UNITS];
    char16_t     szLong[LONG_PATH_UNITS];
    const size_t cch = TextLengthW(pItem->pszPath);
    if (cch == 0 || !CopyTextW(szSource, MAP_PATH_UNITS, pItem->pszPath)) return;
    CopyTextW(szDestination, MAP_PATH_UNITS, szSource);
    const bool   bFits   = TranslateForTarget(&pWalk->Map, szDestination, MAP_PATH_UNITS) >= 0;
    const bool   bFolder = szSource[cch - 1] == u'\\';
    const size_t cchTo   = TextLengthW(szDestination);
    if (bFolder) szSource[cch - 1] = 0;
    if (bFolder && cchTo > 0) szDestination[cchTo - 1] = 0;
    const bool bGone = GetFileAttributesW(LongPathForm(szSource, MAX_PATH, szLong)) == INVALID_FILE_ATTRIBUTES &&
                       (GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND);
    const WindowItem Item = {szSource, szDestination, bFolder ? FILE_TYPE_FOLDER : FILE_TYPE_COLLECTION};
    HandOver(pWindow, &Item, bGone ? ITEM_GONE : bFits ? 0 : SEND_BAD_DESTINATION);
}

bool IsFailedTree(const FailedItem *pItem, char16_t *pszFolder)
{
    const size_t cch = TextLengthW(pItem->pszPath);
    if (cch < 3 || CompareTextW(pItem->pszPath + cch - 2, u"\\*") != 0) return false;
    if (!CopyTextW(pszFolder, MAP_PATH_UNITS, pItem->pszPath)) return false;
    pszFolder[cch - 2] = 0;
    return true;
}

void SendFailedTree(CollectionWalk *pWalk, uint32_t nItem)
{
    char16_t              szFolder[MAP_PATH_UNITS];
    const char16_t *const pszItem = pWalk->Failed.pItems[nItem].pszPath;
    if (!IsFailedTree(&pWalk->Failed.pItems[nItem], szFolder)) return;
    const uint32_t nSent = SendTree(pWalk, szFolder, nullptr);
    if (!pWalk->bOk) return;
    const FailedItem *const pItem = &pWalk->Failed.pItems[nItem]; // the walk may have moved them
    if (!pItem->bTried && !pWalk->Failed.bUnkept) NoteItemSent(&pWalk->Failed, pszItem);
    ReportFolder(pWalk, szFolder, nSent);
}
