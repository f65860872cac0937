// special_data.cpp: the roots between which application data moves, and the files and records that go to the peer.
// Application data reaches the peer by way of a shared folder: each side's service gathers and applies it in its own
// mapping folder, and neither knows the other's paths.
#include "migration/special_data.h"
#include "ipc/thread_execution.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/folder_tree.h"
#include "transfer/network_send.h"
#include <cstring>

using namespace platform;

SpecialFolders        g_SpecialFolders;
std::atomic<uint32_t> g_bSpecialTransfer;
std::atomic<uint32_t> g_nTotalsUnderWay;
std::atomic<uint64_t> g_ullSpecialBytes;
std::atomic<uint64_t> g_ullSpecialMeasure;

constexpr size_t ROOT_UNITS        = 260;
constexpr size_t TRACED_PATH_UNITS = 1024;
constexpr double FULL_WEIGHT_BYTES = 786432.0;
constexpr double WEIGHT_MAX        = 10.0;
constexpr double FIGURE_MAX        = 4294967295.0;

// Guards g_SpecialFolders.
static CRITICAL_SECTION *FoldersLock()
{
    static CRITICAL_SECTION csFolders;
    static const bool       bMade = (InitializeCriticalSection(&csFolders), true);
    (void)bMade;
    return &csFolders;
}

void SetSpecialRoot(SpecialRoot eRoot, const char16_t *pszPath)
{
    EnterCriticalSection(FoldersLock());
    char16_t *pszRoot = eRoot == SpecialRoot::AppData       ? g_SpecialFolders.szAppDataRoot
                        : eRoot == SpecialRoot::ProgramData ? g_SpecialFolders.szProgramDataRoot
                                                            : g_SpecialFolders.szSecondAppDataRoot;
    if (!CopyTextW(pszRoot, ROOT_UNITS, pszPath)) pszRoot[0] = u'\0';
    LeaveCriticalSection(FoldersLock());
}

SpecialFolders GetSpecialFolders()
{
    EnterCriticalSection(FoldersLock());
    const SpecialFolders Folders = g_SpecialFolders;
    LeaveCriticalSection(FoldersLock());
    return Folders;
}

void ClearSpecialFolders()
{
    EnterCriticalSection(FoldersLock());
    g_SpecialFolders = {};
    LeaveCriticalSection(FoldersLock());
    g_bSpecialTransfer = 0;
}

// 1 with pszOut := pszTo and what follows pszFrom in the path, else 0 with pszOut := the path.
static int32_t MoveRoot(const char16_t *pszFrom, const char16_t *pszTo, const char16_t *pszPath, char16_t *pszOut,
                        uint32_t cchOut, const char *pszTag)
{
    int32_t      nMoved  = 0;
    const size_t cchFrom = TextLengthW(pszFrom);
    if (cchFrom > 0 && pszTo[0] != u'\0' && CompareTextNoCaseN_W(pszPath, pszFrom, cchFrom) == 0)
        nMoved = FormatTextW(pszOut, cchOut, u"%s%s", pszTo, pszPath + cchFrom) >= 0 ? 1 : 0;
    if (!nMoved) CopyTextW(pszOut, cchOut, pszPath);
    TracePathMapping(pszTag, static_cast<uint32_t>(nMoved), pszPath, pszOut, TRACED_PATH_UNITS);
    return nMoved;
}

int32_t TransferAppDataToProgramData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bFromA)
{
    return MoveRoot(bFromA ? pFolders->szAppDataRoot : pFolders->szSecondAppDataRoot, pFolders->szProgramDataRoot,
                    pszPath, pszOut, cchOut, "TransferAppDataToProgramData");
}

int32_t TransferProgramDataToAppData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bToA)
{
    return MoveRoot(pFolders->szProgramDataRoot, bToA ? pFolders->szAppDataRoot : pFolders->szSecondAppDataRoot,
                    pszPath, pszOut, cchOut, "TransferProgramDataToAppData");
}

int32_t RedirectAppDataPath(char16_t *pszPath)
{
    char16_t             szMoved[ROOT_UNITS];
    const SpecialFolders Folders = GetSpecialFolders();
    if (!TransferAppDataToProgramData(&Folders, pszPath, szMoved, ROOT_UNITS, 1)) return 0;
    CopyTextW(pszPath, ROOT_UNITS, szMoved);
    return 1;
}

static void MakeDestination(const SpecialFolders *pFolders, const PathMap *pMap, uint32_t dwMode,
                            const char16_t *pszSource, char16_t (&szDestination)[MAP_PATH_UNITS])
{
    switch (dwMode) {
    case SPECIAL_MODE_A_TO_P:
        TransferAppDataToProgramData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 1);
        break;
    case SPECIAL_MODE_B_TO_P:
        TransferAppDataToProgramData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 0);
        return;
    case SPECIAL_MODE_P_TO_A:
        TransferProgramDataToAppData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 1);
        break;
    case SPECIAL_MODE_P_TO_B:
        TransferProgramDataToAppData(pFolders, pszSource, szDestination, MAP_PATH_UNITS, 0);
        return;
    default: CopyTextW(szDestination, MAP_PATH_UNITS, pszSource); break;
    }
    TranslatePath(pMap, szDestination, MAP_PATH_UNITS, 0);
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
        MakeDestination(&Folders, &Map, dwMode, pszSource, szDestination);
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

int32_t SendPeerCommand(uint32_t dwCommand, uint32_t dwArgument, const char16_t *pszPath)
{
    IpcMessage Record = {};
    Record.dwCommand  = dwCommand;
    Record.dwParam1   = dwArgument;
    CopyTextW(Record.szText1, IPC_TEXT_UNITS, pszPath);
    return SendNetworkCommand(&Record, 0, 0);
}

int32_t SendFailItems(uint32_t dwArgument1, uint32_t dwArgument2, const char16_t *pszText)
{
    IpcMessage Record                      = {};
    char16_t   szText[IPC_LONG_TEXT_UNITS] = {};
    Record.dwCommand                       = NTOS_FAILITEMS;
    Record.dwParam1                        = dwArgument1;
    Record.dwParam2                        = dwArgument2;
    CopyTextW(szText, IPC_LONG_TEXT_UNITS, pszText);
    memcpy(reinterpret_cast<unsigned char *>(&Record) + offsetof(IpcMessage, szText1), szText, sizeof(szText));
    return SendNetworkCommand(&Record, 0, 0);
}
