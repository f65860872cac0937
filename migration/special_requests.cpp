// special_requests.cpp: one request of the service carried to the peer: its files first, then its record, then the
// cache. The record goes last because the peer's service acts on it at once and expects the files to be there. Each
// request runs on a thread of its own and belongs to the link it began on.
#include "migration/special_requests.h"
#include "app/user_interface_table.h"
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/cache_folders.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "net/network_link.h"
#include "platform/detached_thread.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/folder_listing.h"
#include "transfer/network_send.h"
#include <new>

using namespace platform;

std::atomic<uint32_t> g_nTotalsUnderWay;

constexpr char16_t CACHE_RESERVED_EVENT[] = u"Global\\VORN VornMigrationService Cache Reserved Event";
constexpr uint32_t TWO_PATHS_KIND         = 2; // of an answer 0x1130: its second text names a file too
constexpr uint32_t LIST_OPTION_GATHERED   = 8; // what these callers ask of the folder listing
constexpr uint32_t LIST_OPTION_CACHE      = 0;
constexpr uint32_t TOTAL_PAUSE_MS         = 10;
constexpr uint16_t CACHE_DELETE_FLAGS     = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI;
static_assert(CACHE_DELETE_FLAGS == 0x0414);

// What a request makes the worker do beside forwarding its record.
struct SpecialPlan {
    StringList Files;
    uint32_t   dwMode;
    char16_t   szCacheFolder[IPC_TEXT_UNITS]; // removed at the end; empty: none
};

static void AddFile(SpecialPlan *pPlan, const char16_t *pszPath)
{
    if (pszPath[0] != u'\0') AppendString(&pPlan->Files, pszPath, IPC_TEXT_UNITS);
}

static void AddTree(SpecialPlan *pPlan, const char16_t *pszFolder, uint32_t dwOption)
{
    char16_t szFolder[IPC_TEXT_UNITS];
    CopyTextW(szFolder, IPC_TEXT_UNITS, pszFolder);
    const size_t cch = TextLengthW(szFolder);
    if (cch > 0 && szFolder[cch - 1] == u'\\') szFolder[cch - 1] = u'\0';
    if (!IsListableFolder(szFolder)) return;
    StringList Found = {};
    if (ListFolderFiles(szFolder, dwOption, 1, &Found) <
        0) { // one that breaks off is taken once more, from its beginning
        FreeStringList(&Found);
        ListFolderFiles(szFolder, dwOption, 1, &Found);
    }
    for (const StringEntry *pEntry = Found.pFirst; pEntry != nullptr; pEntry = pEntry->pNext)
        AppendString(&pPlan->Files, StringText(pEntry), static_cast<uint32_t>(TextLengthW(StringText(pEntry))) + 1);
    FreeStringList(&Found);
}

// Decides by the request's code; requests of the own service get the shared folder's paths for the peer in place of
// their own.
static void PlanRequest(IpcMessage *pRecord, SpecialPlan *pPlan)
{
    char16_t szParent[IPC_TEXT_UNITS];
    pPlan->dwMode = SPECIAL_MODE_DEFAULT;
    switch (pRecord->dwCommand) {
    case STON_COLLECTIONFOLDERS:
        RedirectAppDataPath(pRecord->szText1);
        RedirectAppDataPath(pRecord->szText2);
        break;
    case STON_COLLECTIONFILES:
        RedirectAppDataPath(pRecord->szText2);
        RedirectAppDataPath(pRecord->szText3);
        break;
    case STON_SYSTEMSETTINGSUPPORTED:
    case STON_APPLICATIONSUPPORTED: RedirectAppDataPath(pRecord->szText1); break;
    case NTOS_COLLECTIONFOLDERS:
        pPlan->dwMode = SPECIAL_MODE_P_TO_B;
        AddFile(pPlan, pRecord->szText1);
        if (pRecord->dwParam1 == TWO_PATHS_KIND) AddFile(pPlan, pRecord->szText2);
        break;
    case NTOS_COLLECTIONFILES:
        pPlan->dwMode = SPECIAL_MODE_P_TO_B;
        AddFile(pPlan, pRecord->szText2);
        AddTree(pPlan, pRecord->szText3, LIST_OPTION_GATHERED);
        break;
    case NTOS_SYSTEMSETTINGSUPPORTED:
        pPlan->dwMode = SPECIAL_MODE_P_TO_B;
        AddFile(pPlan, pRecord->szText1);
        break;
    case NTOS_APPLICATIONSUPPORTED:
        pPlan->dwMode = SPECIAL_MODE_P_TO_B;
        AddFile(pPlan, pRecord->szText1);
        CopyTextW(szParent, IPC_TEXT_UNITS, pRecord->szText1);
        if (PathCchRemoveFileSpec(szParent, IPC_TEXT_UNITS) == 0) AddTree(pPlan, szParent, LIST_OPTION_GATHERED);
        break;
    case STON_MIGRATIONCOLLECTION: AddFile(pPlan, pRecord->szText1); break;
    case NTOS_MIGRATIONSYSTEMSETTING:
    case NTOS_MIGRATIONAPPLICATION:
        AddTree(pPlan, pRecord->szText1, LIST_OPTION_CACHE);
        CopyTextW(pPlan->szCacheFolder, IPC_TEXT_UNITS, pRecord->szText1);
        break;
    default: // options, progress, requests without files: the record alone
        break;
    }
}

// Answers 0x1130 carry a size in their third parameter; the others keep a mark there that the peer insists on.
static uint32_t AccountingMode(const IpcMessage *pRecord)
{
    if (pRecord->dwCommand != NTOS_COLLECTIONFOLDERS) return NO_ACCOUNTING;
    return static_cast<int32_t>(pRecord->dwParam3) > 0 ? 2 : 1;
}

// Names the list file of a collection as the peer knows it. False when the peer has no such file: a list that cannot be
// read means to it that nothing is left to send, so it must not be asked. (A list that does not exist here either is
// the requester's word that there is nothing.)
static bool NameListForPeer(IpcMessage *pRecord, const SpecialFileOutcome *pLast)
{
    if (pRecord->szText1[0] == u'\0' || pLast->nResult == SEND_SOURCE_MISSING) return true;
    if (pLast->nResult != SEND_OK) return false;
    if (TextLengthW(pLast->szDestination) >= IPC_TEXT_UNITS) return false;
    CopyTextW(pRecord->szText1, IPC_TEXT_UNITS, pLast->szDestination);
    return true;
}

// Each record has a worker of its own, and nothing else keeps the total's ahead of that of the files.
static void AwaitTotals(uint64_t ullExecution)
{
    while (g_nTotalsUnderWay != 0 && !IsThreadExecutionCancel(ullExecution) && !WaitForStop(TOTAL_PAUSE_MS)) {
    }
}

static bool IsCacheReserved()
{
    HANDLE hReserved = OpenEventW(SYNCHRONIZE, FALSE, CACHE_RESERVED_EVENT);
    if (hReserved == nullptr) return false;
    const bool bReserved = WaitForSingleObject(hReserved, 0) == WAIT_OBJECT_0;
    CloseHandle(hReserved);
    return bReserved;
}

static void RemoveCache(const char16_t *pszFolder)
{
    char16_t szFrom[IPC_TEXT_UNITS + 1] = {}; // ends with two zeros, as the shell wants its list of names
    CopyTextW(szFrom, IPC_TEXT_UNITS, pszFolder);
    size_t cch = TextLengthW(szFrom);
    while (cch > 0 && szFrom[cch - 1] == u'\\') szFrom[--cch] = u'\0';
    if (!IsRemovableCache(szFrom) || IsCacheReserved()) return;
    TraceTextPath("Remove cache ", pszFolder, IPC_TEXT_UNITS);
    SHFILEOPSTRUCTW Operation = {};
    Operation.wFunc           = FO_DELETE;
    Operation.pFrom           = szFrom;
    Operation.fFlags          = CACHE_DELETE_FLAGS;
    EnterBoundCall(); // shut-down may unbind the function, but not unload it under the call
    const SHFileOperationWProc pfnSHFileOperationW = g_pfnSHFileOperationW;
    if (pfnSHFileOperationW != nullptr) pfnSHFileOperationW(&Operation);
    LeaveBoundCall();
}

// The record, once its files have gone; or the own service's answer to a collection whose list could not be stored.
static void SendRecord(IpcMessage *pRecord, uint32_t dwAccounting, const SpecialFileOutcome *pLast,
                       uint64_t ullExecution)
{
    if (dwAccounting == 2) pRecord->dwParam3 = GetThroughputFigure(g_ullSpecialBytes, g_ullSpecialMeasure);
    if (pRecord->dwCommand == STON_MIGRATIONCOLLECTION && !NameListForPeer(pRecord, pLast))
        CallServiceNamedPipe(STON_MIGRATIONCOLLECTION, static_cast<int32_t>(IPC_PARAM_FAILED), 0, 0, pRecord->szText1,
                             nullptr, nullptr);
    else SendNetworkCommand(pRecord, 0, ullExecution);
}

uint32_t SpecialTransferThread(void *pRequest)
{
    SpecialRequest    *pSpecial       = static_cast<SpecialRequest *>(pRequest);
    IpcMessage        *pRecord        = &pSpecial->Record;
    SpecialPlan        Plan           = {};
    SpecialFileOutcome Last           = {};
    const uint32_t     dwPreviousLink = GetThreadLink();
    const uint64_t     ullExecution   = pSpecial->ullExecution;
    const uint32_t     dwAccounting   = AccountingMode(pRecord);
    BindThreadToLink(pSpecial->dwLinkGeneration);

    PlanRequest(pRecord, &Plan);
    if (pRecord->dwCommand == NTOS_MIGRATIONAPPLICATION) AwaitTotals(ullExecution);
    if (!IsThreadExecutionCancel(ullExecution)) {
        SendSpecialFiles(&Plan.Files, Plan.dwMode, dwAccounting, ullExecution, pRecord->dwCommand, &Last);
        if (!IsThreadExecutionCancel(ullExecution)) SendRecord(pRecord, dwAccounting, &Last, ullExecution);
        if (Plan.szCacheFolder[0] != u'\0') RemoveCache(Plan.szCacheFolder);
    }
    FreeStringList(&Plan.Files);
    RemoveThreadExecution(ullExecution);
    BindThreadToLink(dwPreviousLink);
    if (pSpecial->bTotal) --g_nTotalsUnderWay;
    delete pSpecial;
    return 0;
}

int32_t StartSpecialTransfer(const IpcMessage *pRequest)
{
    SpecialRequest *pSpecial = pRequest != nullptr ? new (std::nothrow) SpecialRequest : nullptr;
    if (pSpecial == nullptr) return 0;
    pSpecial->Record                             = *pRequest;
    pSpecial->Record.szText1[IPC_TEXT_UNITS - 1] = u'\0';
    pSpecial->Record.szText2[IPC_TEXT_UNITS - 1] = u'\0';
    pSpecial->Record.szText3[IPC_TEXT_UNITS - 1] = u'\0';
    pSpecial->dwLinkGeneration                   = g_dwLinkGeneration;
    pSpecial->bTotal = pRequest->dwCommand == ATOS_UPDATEPERCENTAGE && pRequest->dwParam1 == IPC_PARAM_TOTAL;
    if (pSpecial->bTotal) ++g_nTotalsUnderWay;
    pSpecial->ullExecution = AddThreadExecution();
    if (StartDetachedThread(SpecialTransferThread, pSpecial)) return 1;
    RemoveThreadExecution(pSpecial->ullExecution);
    if (pSpecial->bTotal) --g_nTotalsUnderWay;
    delete pSpecial;
    return 0;
}
