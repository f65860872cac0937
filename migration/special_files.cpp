// special_files.cpp: files of special data, each sent to where the peer expects it.
#include "migration/special_files.h"
#include "ipc/ipc_message.h"
#include "ipc/thread_execution.h"
#include "migration/special_folders.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/file_queries.h"
#include "transfer/network_send.h"
#include <cstring>

using namespace platform;

std::atomic<uint64_t> g_ullSpecialBytes;
std::atomic<uint64_t> g_ullSpecialMeasure;

constexpr size_t TRACED_PATH_UNITS = 1024;
constexpr double FULL_WEIGHT_BYTES = 786432.0;
constexpr double WEIGHT_MAX        = 10.0;
constexpr double FIGURE_MAX        = 4294967295.0;

// False: the translated path does not fit.
static bool MakeDestination(const SpecialFolders *pFolders, const PathMap *pMap, uint32_t dwMode,
                            const char16_t *pszSource, char16_t (&szDestination)[MAP_PATH_UNITS])
{
    switch (dwMode) {
    case SPECIAL_MODE_A_TO_P:
        TransferAppDataToProgramData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 1);
        break;
    case SPECIAL_MODE_B_TO_P:
        TransferAppDataToProgramData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 0);
        return true;
    case SPECIAL_MODE_P_TO_A:
        TransferProgramDataToAppData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 1);
        break;
    case SPECIAL_MODE_P_TO_B:
        TransferProgramDataToAppData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 0);
        return true;
    default: CopyTextW(szDestination, MAP_PATH_UNITS, pszSource); break;
    }
    return TranslateForTarget(pMap, szDestination, MAP_PATH_UNITS) >= 0;
}

int32_t SendSpecialFileList(const StringList *pList, uint32_t dwMode, uint32_t dwAccountingMode, uint64_t ullExecution,
                            uint32_t dwRequestCode)
{
    return SendSpecialFiles(pList, dwMode, dwAccountingMode, ullExecution, dwRequestCode, nullptr);
}

int32_t SendSpecialFiles(const StringList *pList, uint32_t dwMode, uint32_t dwAccountingMode, uint64_t ullExecution,
                         uint32_t dwRequestCode, SpecialFileOutcome *pLast)
{
    if (pList->pFirst == nullptr) return 1; // a record alone does not wait for state files to be read
    char16_t szTargetInfo[STATE_PATH_UNITS];
    char16_t szDestination[MAP_PATH_UNITS];
    PathMap  Map = {};
    GetProgressFile(TARGET_INFO_FILE, szTargetInfo); // empty when there is no progress folder: nothing is paired then
    InitPathMap(&Map, szTargetInfo, 0);
    const SpecialFolders Folders = GetSpecialFolders();
    const bool           bCount  = dwAccountingMode != NO_ACCOUNTING;
    const uint32_t       dwType =
        dwRequestCode == NTOS_MIGRATIONAPPLICATION && g_bSpecialTransfer ? FILE_TYPE_SPECIAL : FILE_TYPE_PLAIN;

    for (const StringEntry *pEntry = pList->pFirst; pEntry != nullptr; pEntry = pEntry->pNext) {
        const char16_t *pszSource  = StringText(pEntry);
        uint64_t        ullElapsed = 0;
        int32_t         nRet       = SEND_FILE_ERROR;
        if (IsThreadExecutionCancel(ullExecution)) break;
        TraceTextPath("SendNetworkFile from", pszSource, TRACED_PATH_UNITS);
        if (!MakeDestination(&Folders, &Map, dwMode, pszSource, szDestination)) {
            nRet = SEND_BAD_DESTINATION;
            TraceValueText("!!SendNetworkFile", static_cast<uint32_t>(nRet), pszSource, TRACED_PATH_UNITS);
        }
        TraceTextPath("SendNetworkFile to", szDestination, TRACED_PATH_UNITS);
        for (int32_t nTry = 0; nTry < SPECIAL_SEND_TRIES && nRet == SEND_FILE_ERROR; ++nTry) {
            if (nTry > 0 && IsThreadExecutionCancel(ullExecution)) break;
            nRet = SendNetworkFile(pszSource, szDestination, dwType, ullExecution, 1, bCount ? &ullElapsed : nullptr);
            if (nRet == SEND_FILE_ERROR)
                TraceValueText("!!SendNetworkFile", static_cast<uint32_t>(nRet), pszSource, TRACED_PATH_UNITS);
        }
        const int64_t llSize = bCount && ullElapsed != 0 ? GetFileSize64(pszSource) : 0;
        if (llSize > 0) {
            g_ullSpecialBytes += static_cast<uint64_t>(llSize);
            g_ullSpecialMeasure += ullElapsed;
        }
        if (pLast != nullptr) {
            pLast->nResult = nRet;
            CopyTextW(pLast->szDestination, MAP_PATH_UNITS, szDestination);
        }
    }
    ReleasePathMap(&Map);
    return 1;
}

uint32_t GetThroughputFigure(uint64_t ullBytes, uint64_t ullMilliseconds)
{
    if (ullBytes == 0 || ullMilliseconds == 0) return 0;
    const double dBytes  = static_cast<double>(ullBytes);
    double       dWeight = 1.0;
    if (dBytes <= FULL_WEIGHT_BYTES) {
        dWeight = FULL_WEIGHT_BYTES / dBytes;
        if (dWeight > WEIGHT_MAX) dWeight = WEIGHT_MAX;
    }
    const double dFigure = dBytes * dWeight * 1000.0 / static_cast<double>(ullMilliseconds);
    return static_cast<uint32_t>(dFigure > FIGURE_MAX ? FIGURE_MAX : dFigure);
}
