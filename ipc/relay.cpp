// relay.cpp: what becomes of a record of the peer.
#include "ipc/relay.h"
#include "ipc/record_rules.h"
#include "ipc/service_pipe_client.h"
#include "ipc/thread_execution.h"
#include "migration/collection.h"
#include "migration/special_folders.h"
#include "net/file_afterwork.h"
#include "net/network_link.h"
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

static void PassLongText(const IpcMessage *pRecord)
{
    char16_t szLongText[IPC_LONG_TEXT_UNITS + 1];
    CopyIpcLongText(szLongText, pRecord);
    CallServiceNamedPipeLongText(pRecord->dwCommand, static_cast<int32_t>(pRecord->dwParam1),
                                 static_cast<int32_t>(pRecord->dwParam2), static_cast<int32_t>(pRecord->dwParam3),
                                 szLongText);
}

// For the own service: the record turned as its row says.
static void Pass(const IpcMessage *pRecord, const RecordRule *pRule)
{
    constexpr uint32_t TEXTS             = 3;
    const char16_t    *apszFields[TEXTS] = {pRecord->szText1, pRecord->szText2, pRecord->szText3};
    const char16_t    *apszTexts[TEXTS]  = {};
    char16_t           aszTexts[TEXTS][IPC_TEXT_UNITS];
    for (uint32_t i = 0; i < pRule->nTexts; ++i) {
        CopyIpcText(aszTexts[i], apszFields[i]);
        if ((pRule->nMapped & 1u << i) != 0) MapPath(aszTexts[i]);
        apszTexts[i] = aszTexts[i];
    }
    const uint32_t dwParam2 = pRule->dwTurnedParam2 == KEEP_PARAM ? pRecord->dwParam2 : pRule->dwTurnedParam2;
    const uint32_t dwParam3 = pRule->dwTurnedParam3 == KEEP_PARAM ? pRecord->dwParam3 : pRule->dwTurnedParam3;
    CallServiceNamedPipe(pRule->dwTurned, static_cast<int32_t>(pRecord->dwParam1), static_cast<int32_t>(dwParam2),
                         static_cast<int32_t>(dwParam3), apszTexts[0], apszTexts[1], apszTexts[2]);
}

int32_t CallTransferFromNetwork(const IpcMessage *pRecord)
{
    char16_t szText[IPC_TEXT_UNITS];
    TraceIpcMessage(pRecord, 0);
    const RecordRule *pRule = FindRecordRule(pRecord, RecordOrigin::Peer);
    if (pRule == nullptr) {
        TraceText("## Unhandle Command");
        return 0;
    }
    CopyIpcText(szText, pRecord->szText1);
    switch (pRule->eAction) {
    case RecordAction::Pass: Pass(pRecord, pRule); break;
    case RecordAction::PassLongText: PassLongText(pRecord); break;
    case RecordAction::BeginProgress: StartReceiveProgress(pRecord->dwParam2, TextToInt64W(szText)); break;
    case RecordAction::BeginCollection: AskForCollection(szText); break; // also when the walk cannot start: understood
    case RecordAction::CancelAndPass:
        CancelAllThreadExecutions();
        Pass(pRecord, pRule);
        break;
    }
    return 1;
}
