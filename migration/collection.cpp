// collection.cpp: the walk over a collection: resume, folders, files, and how it ends.
// The walk belongs to the link it began on. Its thread is bound to that link, so that after the link's end nothing of
// it, no file, no report, reaches a later one; and a link that has ended is not released a second time.
#include "migration/collection.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/collection_items.h"
#include "migration/known_folders.h"
#include "migration/peer_reports.h"
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/session_state.h"
#include "platform/detached_thread.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/network_send.h"
#include <atomic>
#include <new>

using namespace platform;

constexpr char16_t COMPLETE_VALUE[] = u"1";
constexpr uint32_t PEER_DISK_FULL   = 107; // parameters of 0x332
constexpr int32_t  LINK_BROKEN      = 102;
constexpr uint32_t TURN_PAUSE_MS    = 25;

static std::atomic<uint32_t> g_bWalkRunning; // 1 while a walk has the state files; set and cleared by walks

// One walk at a time has the state files. A second one is most often the next run after a broken link, whose walk has
// still to notice: it ends as soon as its send does. False when this walk is over before its turn comes.
static bool AwaitTurn(CollectionWalk *pWalk)
{
    while (g_bWalkRunning.exchange(1) != 0) {
        if (!MayWalkGoOn(pWalk) || WaitForStop(TURN_PAUSE_MS)) return false;
    }
    return true;
}

// ERROR_SUCCESS, or the error of the last try: both lists are empty then.
static uint32_t ReadLines(const char16_t *pszFile, StringList *pFolders, StringList *pFiles)
{
    for (uint32_t nTry = 1;; ++nTry) {
        if (ReadPathLines(pszFile, pFolders, pFiles)) return ERROR_SUCCESS;
        const uint32_t dwErr = GetLastError();
        FreeStringList(pFolders);
        FreeStringList(pFiles);
        const bool bHopeless = dwErr == ERROR_FILE_TOO_LARGE || dwErr == ERROR_NOT_ENOUGH_MEMORY;
        if (!bHopeless && AwaitStateFileTry(nTry, dwErr)) continue;
        TraceValueText("!!ReadPathLines", dwErr, pszFile, STATE_PATH_UNITS);
        return dwErr;
    }
}

// True for a file on a drive of this machine, also behind every link on its way. The name is the peer's: that of a
// share would log on to another machine, and a pipe or a device may never come to an end.
static bool IsOnDrive(const char16_t *pszFile)
{
    constexpr size_t PREFIX_UNITS = 4; // "\\?\"
    const auto       IsDrive      = [](const char16_t *psz) {
        return ((psz[0] | 0x20) >= u'a' && (psz[0] | 0x20) <= u'z') && psz[1] == u':' && psz[2] == u'\\';
    };
    char16_t szFinal[PATH_LINE_UNITS];
    return IsDrive(pszFile) && GetFinalPath(pszFile, szFinal, PATH_LINE_UNITS) && IsDrive(szFinal + PREFIX_UNITS);
}

// The requested items. A list that is not there or cannot be read leaves nothing to send, and a walk with nothing left
// to send is complete. One that is there and too long, or finds no memory, is none of that: the walk may not go on.
static bool ReadItems(CollectionWalk *pWalk, const char16_t *pszListFile)
{
    if (!IsOnDrive(pszListFile)) {
        TraceValueText("!!ReadPathLines", ERROR_PATH_NOT_FOUND, pszListFile, STATE_PATH_UNITS);
        return false;
    }
    const uint32_t dwErr = ReadLines(pszListFile, &pWalk->Folders, &pWalk->Files);
    if (dwErr == ERROR_FILE_TOO_LARGE || dwErr == ERROR_NOT_ENOUGH_MEMORY) pWalk->bOk = false;
    return dwErr == ERROR_SUCCESS;
}

static void ReadCompleteInfo(CollectionWalk *pWalk, StringList *pDoneFiles)
{
    char16_t szFile[STATE_PATH_UNITS];
    if (!GetProgressFile(COMPLETE_INFO_FILE, szFile)) return;
    const bool bFirstRun =
        GetFileAttributesW(szFile) == INVALID_FILE_ATTRIBUTES && GetLastError() == ERROR_FILE_NOT_FOUND;
    if (bFirstRun || ReadLines(szFile, &pWalk->DoneFolders, pDoneFiles) != ERROR_SUCCESS) CreateStateFile(szFile);
}

static void GatherPaths(CollectionWalk *pWalk)
{
    char16_t szFile[STATE_PATH_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szFile); // empty without a progress folder: nothing is paired then
    InitPathMap(&pWalk->Map, szFile, 0);
    GetUpgradeFolders(&pWalk->Excluded, &pWalk->UserProfiles, &pWalk->Profiles);
}

// The folder that the run before was sending, if it is one of this collection's.
static void ResumeFolder(CollectionWalk *pWalk)
{
    char16_t szFolder[PATH_LINE_UNITS];
    if (IsThreadExecutionCancel(pWalk->ullExecution)) return;
    if (!ReadWorkingFolder(szFolder, PATH_LINE_UNITS)) return;
    if (!ContainsString(&pWalk->Folders, szFolder) || ContainsString(&pWalk->DoneFolders, szFolder)) return;
    SendCollectionFolder(pWalk, szFolder, true);
}

static void SendFolders(CollectionWalk *pWalk)
{
    for (const StringEntry *pEntry = pWalk->Folders.pFirst; pEntry != nullptr && pWalk->bOk; pEntry = pEntry->pNext) {
        const char16_t *pszFolder = StringText(pEntry);
        if (ContainsString(&pWalk->DoneFolders, pszFolder)) continue;
        pWalk->bOk = MayWalkGoOn(pWalk); // before the records of the folder that was under way are given up
        if (pWalk->bOk) SendCollectionFolder(pWalk, pszFolder, false);
    }
}

static void SendFiles(CollectionWalk *pWalk, const StringList *pDoneFiles)
{
    CollectionFile *pFiles  = IndexCollectionFiles(pWalk, pDoneFiles);
    SendWindow     *pWindow = OpenCollectionWindow(pWalk);
    if (pFiles == nullptr || pWindow == nullptr) {
        pWalk->bOk = false;
        delete[] pFiles;
        CloseSendWindow(pWindow);
        return;
    }
    for (uint32_t i = 0; i < pWalk->Files.nCount && pWalk->bOk; ++i) {
        if (pFiles[i].bDone) continue;
        pWalk->bOk = MayWalkGoOn(pWalk);
        if (pWalk->bOk) SendCollectionFile(pWalk, pWindow, pFiles[i].pszPath);
    }
    DrainWindow(pWindow);
    if (pWalk->bOk) pWalk->bOk = MayWalkGoOn(pWalk);
    CloseSendWindow(pWindow);
    delete[] pFiles;
}

static bool IsToBeTried(const FailedItem *pItem)
{
    return pItem->bOpen && !pItem->bTried;
}

// What failed in earlier walks and has not been sent by this one.
static void SendFailedItems(CollectionWalk *pWalk)
{
    char16_t    szFolder[MAP_PATH_UNITS];
    SendWindow *pWindow = OpenCollectionWindow(pWalk);
    pWalk->bRetry       = true;
    pWalk->bOk          = pWindow != nullptr;
    for (uint32_t i = 0; i < pWalk->Failed.nLoaded && pWalk->bOk; ++i) {
        if (!IsToBeTried(&pWalk->Failed.pItems[i]) || IsFailedTree(&pWalk->Failed.pItems[i], szFolder)) continue;
        pWalk->bOk = MayWalkGoOn(pWalk);
        if (pWalk->bOk) SendFailedItem(pWalk, pWindow, &pWalk->Failed.pItems[i]);
    }
    if (pWindow != nullptr) DrainWindow(pWindow);
    if (pWalk->bOk) pWalk->bOk = MayWalkGoOn(pWalk);
    CloseSendWindow(pWindow);
    // Trees have a window of their own.
    for (uint32_t i = 0; i < pWalk->Failed.nLoaded && pWalk->bOk; ++i)
        if (IsToBeTried(&pWalk->Failed.pItems[i])) SendFailedTree(pWalk, i);
}

static bool IsWalkLinkOpen()
{
    return (g_ServerSendSocket != INVALID_SOCKET || g_ClientRecvSocket != INVALID_SOCKET) && IsThreadLinkCurrent();
}

static void MarkComplete()
{
    char16_t szFile[STATE_PATH_UNITS];
    if (GetProgressFile(PROGRESS_INFO_FILE, szFile) &&
        !WritePrivateProfileStringW(COLLECTION_SECTION, COMPLETE_KEY, COMPLETE_VALUE, szFile))
        TraceValueText("!!MarkComplete", GetLastError(), szFile, STATE_PATH_UNITS);
}

// What stays behind would have the next collection's files taken for sent.
static void DeleteRecords()
{
    if (!DeleteRecordStore()) DeleteStateFile(RECORD_INFO_FILE);
    DeleteStateFile(COMPLETE_INFO_FILE);
}

// Everything that the request names, as far as it is not done with.
static void SendItems(CollectionWalk *pWalk)
{
    StringList        DoneFiles = {};
    const WalkRecords eRecords  = OpenFailedItems(&pWalk->Failed, &pWalk->Folders, &pWalk->Files);
    if (eRecords != WalkRecords::Current) DeleteRecords();
    GatherPaths(pWalk);
    if (eRecords != WalkRecords::Done) {
        ReadCompleteInfo(pWalk, &DoneFiles);
        ResumeFolder(pWalk);
        if (pWalk->bOk) SendFolders(pWalk);
        if (pWalk->bOk) SendFiles(pWalk, &DoneFiles);
    }
    if (pWalk->bOk) SendFailedItems(pWalk);
    FreeStringList(&DoneFiles);
}

// The end as the peer's service is told of it. The records go only after that: a peer that never heard of the end asks
// again, and is not to get everything a second time.
static void ReportEnd(CollectionWalk *pWalk)
{
    const bool bComplete = pWalk->bOk && !pWalk->Failed.bUnsettled && IsWalkLinkOpen();
    if (bComplete) MarkComplete();
    if (pWalk->bSpaceExhausted) SendPeerCommand(NTOS_ERRORCONTROL, PEER_DISK_FULL, nullptr);
    const int32_t nRet =
        SendPeerCommand(STON_MIGRATIONCOLLECTION, bComplete ? IPC_PARAM_DONE : IPC_PARAM_FAILED, nullptr);
    if (!bComplete || nRet != SEND_OK) return;
    // Killed in between, the records say that they are over, and another collection never takes them for its own.
    MarkItemsComplete();
    DeleteRecords();
    DropSettledItems(&pWalk->Failed);
}

// Once for each broken link: its listener notices too, and whoever is first ends it and says so.
static void ReleaseBrokenLink(LinkRelease Link)
{
    Link.dwLink = ClaimBrokenLink(Link.dwLink);
    if (Link.dwLink == 0) return;
    if (!StartReleaseOfLink(&Link)) {
        auto *pBlock = new (std::nothrow) LinkRelease(Link);
        if (pBlock != nullptr) ReleaseNetworkThread(pBlock); // no thread to be had: this one is as good
    }
    CallServiceNamedPipe(NTOS_ERRORCONTROL, LINK_BROKEN, 0, 0, nullptr, nullptr, nullptr);
}

void ProcessCollection(CollectionRequest *pRequest)
{
    CollectionWalk    Walk           = {};
    const uint32_t    dwPreviousLink = GetThreadLink();
    const bool        bServer        = g_bServer;
    const LinkRelease Link           = {bServer, pRequest->dwLinkGeneration};
    Walk.ullExecution                = pRequest->ullExecution;
    BindThreadToLink(Link.dwLink);

    if (AwaitTurn(&Walk)) {
        Walk.bOk = true;
        if (ReadItems(&Walk, pRequest->szListFile)) SendItems(&Walk);
        CloseRecordStore();
        ReportEnd(&Walk);
        g_bWalkRunning = 0;
    } else {
        ReportEnd(&Walk);
    }

    ReleasePathMap(&Walk.Map);
    FreeStringList(&Walk.Folders);
    FreeStringList(&Walk.Files);
    FreeStringList(&Walk.DoneFolders);
    FreeStringList(&Walk.Excluded);
    FreeStringList(&Walk.UserProfiles);
    FreeStringList(&Walk.Profiles);
    FreeDestinationLimits(&Walk.Limits);
    FreeFailedItems(&Walk.Failed);

    delete pRequest;
    TraceText("Collection migration finish");
    RemoveThreadExecution(Walk.ullExecution);
    if (!Walk.bSpaceExhausted && Walk.bFatal) ReleaseBrokenLink(Link);
    BindThreadToLink(dwPreviousLink);
}

static uint32_t CollectionThread(void *pRequest)
{
    ProcessCollection(static_cast<CollectionRequest *>(pRequest));
    return 0;
}

int32_t StartCollection(CollectionRequest *pRequest)
{
    pRequest->ullExecution = AddThreadExecution();
    if (StartDetachedThread(CollectionThread, pRequest)) return 1;
    RemoveThreadExecution(pRequest->ullExecution);
    delete pRequest;
    return 0;
}
