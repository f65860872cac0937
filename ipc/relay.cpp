// relay.cpp: the table by which a record of the peer becomes one for the own service.
// A request (STON_) arrives as NTOS_ at the service that is to answer it; its answer arrives as STON_ at the service
// that had asked. The third parameter marks the leg of the system-setting and application exchanges, 0 the request and
// 1 the answer: both services test it, so the forced values below are part of the exchange.
#include "ipc/relay.h"
#include "ipc/service_pipe_client.h"
#include "ipc/thread_execution.h"
#include "migration/collection.h"
#include "migration/special_folders.h"
#include "net/network_link.h"
#include "net/received_file.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <cstring>
#include <new>

using namespace platform;

// The peer's files of the shared data folder have been stored below the own application data: the service must look
// there.
//   pszPath  a text of IPC_TEXT_UNITS units, in place; left as it is when the result would not fit
static void MapPath(char16_t *pszPath)
{
    char16_t             szMapped[IPC_TEXT_UNITS];
    const SpecialFolders folders = GetSpecialFolders();
    TransferProgramDataToAppData(&folders, pszPath, szMapped, IPC_TEXT_UNITS, 1);
    CopyTextW(pszPath, IPC_TEXT_UNITS, szMapped);
}

static void AskForCollection(const char16_t *pszListFile)
{
    auto *pRequest = new (std::nothrow) CollectionRequest;
    if (pRequest == nullptr) return;
    CopyTextW(pRequest->szListFile, IPC_TEXT_UNITS, pszListFile);
    // The link that the record came on, even if the role has been torn down meanwhile.
    const uint32_t dwOwnLink   = GetThreadLink();
    pRequest->dwLinkGeneration = dwOwnLink != 0 ? dwOwnLink : g_dwLinkGeneration.load();
    StartCollection(pRequest); // owns the block, also when it fails
}

static bool IsAnswer(uint32_t dwParam1)
{
    return dwParam1 == IPC_PARAM_DONE || dwParam1 == IPC_PARAM_FAILED;
}

// For the service: what one row of the table gives.
static int32_t Pass(uint32_t dwCommand, uint32_t dwParam1, uint32_t dwParam2, uint32_t dwParam3,
                    const char16_t *pszText1 = nullptr, const char16_t *pszText2 = nullptr,
                    const char16_t *pszText3 = nullptr)
{
    CallServiceNamedPipe(dwCommand, static_cast<int32_t>(dwParam1), static_cast<int32_t>(dwParam2),
                         static_cast<int32_t>(dwParam3), pszText1, pszText2, pszText3);
    return 1;
}

static int32_t PassLongText(const IpcMessage *pRecord)
{
    char16_t szLongText[IPC_LONG_TEXT_UNITS + 1];
    CopyIpcLongText(szLongText, pRecord);
    CallServiceNamedPipeLongText(pRecord->dwCommand, static_cast<int32_t>(pRecord->dwParam1),
                                 static_cast<int32_t>(pRecord->dwParam2), static_cast<int32_t>(pRecord->dwParam3),
                                 szLongText);
    return 1;
}

// The table. 0 when the record has no row.
static int32_t RelayRecord(const IpcMessage *pRecord)
{
    const uint32_t p1 = pRecord->dwParam1;
    const uint32_t p2 = pRecord->dwParam2;
    const uint32_t p3 = pRecord->dwParam3;
    char16_t       t1[IPC_TEXT_UNITS];
    char16_t       t2[IPC_TEXT_UNITS];
    char16_t       t3[IPC_TEXT_UNITS];
    CopyIpcText(t1, pRecord->szText1);
    CopyIpcText(t2, pRecord->szText2);
    CopyIpcText(t3, pRecord->szText3);

    switch (pRecord->dwCommand) {
    case NTOS_ERRORCONTROL:
        if (p1 > 100) return Pass(NTOS_ERRORCONTROL, p1, p2, p3);
        break;
    case NTOS_FAILITEMS:
        if (p1 < 3) return PassLongText(pRecord);
        break;
    case NTOS_USERCONTROL:
        if (p1 == 1) return Pass(NTOS_USERCONTROL, 1, p2, p3);
        break;
    case ATOS_UPDATEPERCENTAGE:
        if (p1 < 101) return Pass(ATOS_UPDATEPERCENTAGE, p1, p2, p3, t1);
        if (p1 == IPC_PARAM_TOTAL) {
            StartReceiveProgress(p2, TextToInt64W(t1));
            return 1;
        }
        break;
    case STON_COLLECTIONFOLDERS:
        if (p1 == IPC_PARAM_REQUEST) return Pass(NTOS_COLLECTIONFOLDERS, 1, p2, p3, t1, t2);
        break;
    case NTOS_COLLECTIONFOLDERS:
        if (p1 < 2 || p1 > 27) break;
        MapPath(t1);
        MapPath(t2);
        return Pass(STON_COLLECTIONFOLDERS, p1, p2, p3, t1, t2);
    case STON_COLLECTIONFILES:
        if (p1 == IPC_PARAM_REQUEST) return Pass(NTOS_COLLECTIONFILES, 1, p2, p3, t1, t2, t3);
        break;
    case NTOS_COLLECTIONFILES:
        if (p1 != IPC_PARAM_DONE) break;
        MapPath(t2);
        MapPath(t3);
        return Pass(STON_COLLECTIONFILES, p1, p2, 0, t1, t2, t3);
    case STON_SYSTEMSETTINGSUPPORTED:
        if (p1 == IPC_PARAM_REQUEST) return Pass(NTOS_SYSTEMSETTINGSUPPORTED, 1, p2, p3, t1);
        break;
    case NTOS_SYSTEMSETTINGSUPPORTED:
        if (p1 != IPC_PARAM_DONE) break;
        MapPath(t1);
        return Pass(STON_SYSTEMSETTINGSUPPORTED, p1, p2, p3, t1);
    case STON_APPLICATIONSUPPORTED:
        if (p1 == IPC_PARAM_REQUEST) return Pass(NTOS_APPLICATIONSUPPORTED, 1, 0, 1, t1);
        break;
    case NTOS_APPLICATIONSUPPORTED:
        if (p1 != IPC_PARAM_DONE) break;
        MapPath(t1);
        return Pass(STON_APPLICATIONSUPPORTED, p1, p2, 1, t1);
    case STON_MIGRATIONOPTIONS:
        if (p1 == IPC_PARAM_REQUEST) return Pass(NTOS_MIGRATIONOPTIONS, 1, p2, 0);
        break;
    case STON_MIGRATIONCOLLECTION:
        if (p1 == IPC_PARAM_REQUEST) {
            AskForCollection(t1);
            return 1; // also when the walk could not start: the record was understood
        }
        if (IsAnswer(p1)) return Pass(STON_MIGRATIONCOLLECTION, p1, 0, 0, t1);
        break;
    case STON_MIGRATIONSYSTEMSETTING:
        if (p1 == IPC_PARAM_REQUEST && p3 == 0) return Pass(NTOS_MIGRATIONSYSTEMSETTING, 1, p2, 1, t1);
        break;
    case NTOS_MIGRATIONSYSTEMSETTING:
        if (IsAnswer(p1) && p3 == 1) return Pass(STON_MIGRATIONSYSTEMSETTING, p1, p2, 0, t1);
        break;
    case STON_MIGRATIONAPPLICATION:
        if (p1 == IPC_PARAM_REQUEST && p3 == 0) return Pass(NTOS_MIGRATIONAPPLICATION, 1, p2, 1, t1, t2);
        break;
    case NTOS_MIGRATIONAPPLICATION:
        if (IsAnswer(p1) && p3 == 1) return Pass(STON_MIGRATIONAPPLICATION, p1, p2, 0, t1, t2);
        break;
    case STON_SETPROGRESS:
        if (p1 != 3 && p1 != 4) break;
        CancelAllThreadExecutions();
        return Pass(NTOS_SETPROGRESS, p1, 0, 0);
    default: break;
    }
    return 0;
}

int32_t CallTransferFromNetwork(const IpcMessage *pRecord)
{
    TraceIpcMessage(pRecord, 0);
    if (RelayRecord(pRecord)) return 1;
    TraceText("## Unhandle Command");
    return 0;
}
