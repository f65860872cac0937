// collection_items.cpp: one requested folder or file of a collection.
// A file that the peer has stored is recorded whatever else happens meanwhile: sent again, it would be stored beside
// itself under a "(2)" name, since the peer never overwrites what is there. One gap remains, and the protocol leaves no
// honest way to close it: a process killed after the peer's "FileDone" and before its own record is written sends that
// one file a second time. (Sending it so that it overwrites would cost a file of the target's own that bears the same
// name; to skip it would cost the file itself if the peer did not store it.)
#include "migration/collection_items.h"
#include "ipc/thread_execution.h"
#include "migration/peer_reports.h"
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/file_queries.h"
#include "transfer/network_send.h"
#include <algorithm>
#include <new>

using namespace platform;

constexpr int32_t  SEND_UNANSWERED = 0; // of a file that went out whole: the peer did not say what became of it
constexpr int32_t  FILE_REFUSED    = 3; // not sent: the destination is known to be full
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

    // Sorted for the look-ups: a search from the front for each of many thousand files would outlast their sending.
    const auto ByName = [](const CollectionFile &Left, const CollectionFile &Right) {
        const int32_t nOrder = CompareTextNoCaseW(Left.pszPath, Right.pszPath);
        return nOrder != 0 ? nOrder < 0 : Left.nOrder < Right.nOrder;
    };
    std::sort(pFiles, pEnd, ByName);
    for (CollectionFile *pFile = pFiles; pFile + 1 < pEnd; ++pFile)
        if (CompareTextNoCaseW(pFile[0].pszPath, pFile[1].pszPath) == 0) pFile[1].bDone = true;
    for (const StringEntry *pEntry = pDoneFiles->pFirst; pEntry != nullptr; pEntry = pEntry->pNext) {
        CollectionFile *pFound = std::lower_bound(pFiles, pEnd, CollectionFile{StringText(pEntry), 0, false}, ByName);
        if (pFound != pEnd && CompareTextNoCaseW(pFound->pszPath, StringText(pEntry)) == 0) pFound->bDone = true;
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

static void ReportFolder(const char16_t *pszFolder, uint32_t nSent)
{
    char16_t szText[IPC_LONG_TEXT_UNITS];
    if (TextLengthW(pszFolder) >= FOLDER_TEXT_UNITS) return;
    FormatTextW(szText, IPC_LONG_TEXT_UNITS, u"%s\\", pszFolder);
    SendFailItems(nSent == 0 ? 1 : 0, nSent, szText);
}

static void ReportFile(const char16_t *pszFile, bool bFailed)
{
    if (TextLengthW(pszFile) < FILE_TEXT_UNITS) SendFailItems(bFailed ? 1 : 0, 1, pszFile);
}

void SendCollectionFolder(CollectionWalk *pWalk, const char16_t *pszFolder, bool bResumed)
{
    char16_t szBase[PATH_LINE_UNITS + 1];
    FormatTextW(szBase, PATH_LINE_UNITS + 1, u"%s\\", pszFolder);
    uint32_t       bUnanswered = 0;
    FolderTreeSend Send        = {};
    Send.pExcluded             = &pWalk->Excluded;
    // Without a profile that may be entered, the restriction would leave out every user's files, this one's too.
    const bool bRestrict = pWalk->UserProfiles.nCount != 0 && pWalk->Profiles.nCount != 0;
    Send.pRestricted     = bRestrict ? &pWalk->UserProfiles : nullptr;
    Send.pIncluded       = bRestrict ? &pWalk->Profiles : nullptr;
    Send.pMap            = &pWalk->Map;
    // When the records cannot be begun anew, those on disk are another folder's, and would have files of this one
    // skipped.
    Send.pszRecordBase    = bResumed || BeginWorkingFolder(pszFolder) ? szBase : nullptr;
    Send.ullExecution     = pWalk->ullExecution;
    Send.pbSpaceExhausted = &pWalk->bSpaceExhausted;
    Send.pbFatal          = &pWalk->bFatal;
    Send.pLimits          = &pWalk->Limits;
    Send.pbUnanswered     = &bUnanswered;
    const uint32_t nSent  = SendNetworkFileEx(pszFolder, &Send);

    if (bUnanswered) AwaitLinkVerdict(pWalk);
    pWalk->bOk = MayWalkGoOn(pWalk);
    if (!pWalk->bOk) return; // stays the working folder, which the next run resumes
    AppendCompleteInfo(pszFolder, 1);
    AppendString(&pWalk->DoneFolders, pszFolder,
                 TextLengthW(pszFolder) < STRING_INLINE_UNITS ? STRING_INLINE_UNITS : PATH_LINE_UNITS);
    ReportFolder(pszFolder, nSent);
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
    case SEND_LINK_ERROR:
    case SEND_NO_ROLE:
    case SEND_NO_SOCKET: pWalk->bFatal = 1; break;
    default: break;
    }
}

// A file's outcome, in request order.
static void TakeFile(void *pContext, const WindowItem *pItem, int32_t nRet)
{
    auto *const           pWalk   = static_cast<CollectionWalk *>(pContext);
    const char16_t *const pszFile = pItem->pszSource;
    if (nRet == FILE_REFUSED) {
        ReportFile(pszFile, true);
        return;
    }
    if (nRet != SEND_OK) {
        TraceValueText("!!SendNetworkFileEx", static_cast<uint32_t>(nRet), pszFile, MAP_PATH_UNITS);
        LearnFromFailure(pWalk, nRet, pszFile, KeysOf(pItem->pszDestination).szFolder);
    }
    if (nRet == SEND_UNANSWERED) {
        ReportFile(pszFile, true);
        AwaitLinkVerdict(pWalk);
    }
    pWalk->bOk = MayWalkGoOn(pWalk);
    if (pWalk->bOk || nRet == SEND_OK) AppendCompleteInfo(pszFile, 0);
    if (nRet != SEND_UNANSWERED) ReportFile(pszFile, nRet != SEND_OK);
}

SendWindow *OpenCollectionWindow(CollectionWalk *pWalk)
{
    const WindowOwner Owner = {pWalk, pWalk->ullExecution, DecideFile, TakeFile};
    return OpenSendWindow(&Owner);
}

void SendCollectionFile(CollectionWalk *pWalk, SendWindow *pWindow, const char16_t *pszFile)
{
    char16_t szDestination[MAP_PATH_UNITS];
    CopyTextW(szDestination, MAP_PATH_UNITS, pszFile);
    TranslatePath(&pWalk->Map, szDestination, MAP_PATH_UNITS, 0);
    const WindowItem Item = {pszFile, szDestination, FILE_TYPE_COLLECTION};
    HandOver(pWindow, &Item, 0);
}
