// special_files.h: files of special data to the peer, each with its destination.
#pragma once
#include "migration/path_map.h"
#include "migration/string_list.h"
#include <atomic>
#include <cstdint>

extern std::atomic<uint64_t> g_ullSpecialBytes;   // throughput counters, only ever added to by workers: bytes sent,
extern std::atomic<uint64_t> g_ullSpecialMeasure; // and milliseconds they took

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
