// special_data.h: requests of the service that concern the peer, with the files they name; and how records are sent.
// Roots    A, B and P as the functions below call them: the own application data (A), the peer's mapping folder (B) and
//          the own mapping folder below ProgramData (P). Paths are moved between them before they go to the peer.
#pragma once
#include "ipc/ipc_message.h"
#include "migration/path_map.h"
#include "migration/string_list.h"
#include <atomic>
#include <cstdint>

// Set by the dispatcher and by session control before workers start, cleared with the session.
struct SpecialFolders {
    char16_t szAppDataRoot[260];       // A: the service's request 4129
    char16_t szProgramDataRoot[260];   // P: the start of a session
    char16_t szSecondAppDataRoot[260]; // B: the peer's machine info
};
extern SpecialFolders g_SpecialFolders; // read and written through the three functions below only
// 1: files of 0x2430 go as type 6. Set by the pipe server, cleared by ClearSpecialFolders.
extern std::atomic<uint32_t> g_bSpecialTransfer;
// Totals (836 with IPC_PARAM_TOTAL) that workers have still to send; files of 0x2430 wait for them, since what arrives
// before its total is not counted as progress.
extern std::atomic<uint32_t> g_nTotalsUnderWay;
extern std::atomic<uint64_t> g_ullSpecialBytes;   // throughput counters, only ever added to by workers: bytes sent,
extern std::atomic<uint64_t> g_ullSpecialMeasure; // and milliseconds they took
// One root, under the lock that keeps a copy whole. Any thread; no other lock is taken under it. Null counts as empty,
// and a path that does not fit leaves the root empty: a cut root would move files elsewhere.
enum class SpecialRoot { AppData, ProgramData, SecondAppData };
void           SetSpecialRoot(SpecialRoot eRoot, const char16_t *pszPath);
SpecialFolders GetSpecialFolders();
void           ClearSpecialFolders(); // roots and flag

// 1 with the path moved from A (bFromA 1) or B (0) to P in pszOut; 0 with the path as it is when a root is not set, the
// path does not begin with the root, or the result does not fit. A root is a prefix of text: whether it ends with a
// backslash decides if "...\AppDataX" begins with "...\AppData".
int32_t TransferAppDataToProgramData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bFromA);
// The way back: from P to A (bToA 1) or B (0).
int32_t TransferProgramDataToAppData(const SpecialFolders *pFolders, const char16_t *pszPath, char16_t *pszOut,
                                     uint32_t cchOut, int32_t bToA);
// pszPath: 260 units, in place, from A to P. 1 when changed.
int32_t RedirectAppDataPath(char16_t *pszPath);

// Copies the record and runs SpecialTransferThread on it, bound to the link of this moment. 1, or 0: nothing was
// started. Any thread.
int32_t StartSpecialTransfer(const IpcMessage *pRequest);
struct SpecialRequest {
    IpcMessage Record;           // texts terminated
    uint32_t   dwLinkGeneration; // net/network_link.h
    bool       bTotal = false;   // it is one of g_nTotalsUnderWay
};
// pRequest: a SpecialRequest made with new, the thread's from here on. Sends the files, then the record.
uint32_t SpecialTransferThread(void *pRequest);

// How a file's destination is made from its path.
constexpr uint32_t SPECIAL_MODE_A_TO_P  = 0; // then translated
constexpr uint32_t SPECIAL_MODE_B_TO_P  = 1;
constexpr uint32_t SPECIAL_MODE_P_TO_A  = 2; // then translated
constexpr uint32_t SPECIAL_MODE_P_TO_B  = 3;
constexpr uint32_t SPECIAL_MODE_DEFAULT = 0xFFFFFFFF; // as any other value: translated only
constexpr uint32_t NO_ACCOUNTING        = 0xFFFFFFFF;
constexpr int32_t  SPECIAL_SEND_TRIES   = 3; // while the result is SEND_FILE_ERROR

// What became of the last file of a list.
struct SpecialFileOutcome {
    int32_t  nResult;                       // SendNetworkFile's
    char16_t szDestination[MAP_PATH_UNITS]; // the one that was used
};
// 1. Sends every listed file with its destination by the mode, encrypted; one that fails is passed over. Ends early
// when the execution is cancelled. Worker thread.
//   dwAccountingMode  NO_ACCOUNTING, or anything else: sizes and times are added to the throughput counters
//   dwRequestCode     decides, with g_bSpecialTransfer, between types 0 and 6
int32_t SendSpecialFileList(const StringList *pList, uint32_t dwMode, uint32_t dwAccountingMode, uint64_t ullExecution,
                            uint32_t dwRequestCode);
int32_t SendSpecialFiles(const StringList *pList, uint32_t dwMode, uint32_t dwAccountingMode, uint64_t ullExecution,
                         uint32_t dwRequestCode, SpecialFileOutcome *pLast);
// Bytes a second over what was counted, raised up to tenfold for less than 768 KiB, whose start-up weighs too much; 0
// when nothing was counted.
uint32_t GetThroughputFigure(uint64_t ullBytes, uint64_t ullMilliseconds);

// To the peer's service through SendNetworkCommand; their results are its results.
//   pszPath  null, or at most 259 units
int32_t SendPeerCommand(uint32_t dwCommand, uint32_t dwArgument, const char16_t *pszPath);
int32_t SendFailItems(uint32_t dwArgument1, uint32_t dwArgument2, const char16_t *pszText); // text: at most 779 units
