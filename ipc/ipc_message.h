// ipc_message.h: the 1584-byte record of both pipes and of the peer link, and its command vocabulary.
// Code     bits 8-15 the group, bits 4-7 the direction, bits 0-3 the sub-command.
#pragma once
#include <cstddef>
#include <cstdint>

constexpr size_t IPC_TEXT_UNITS      = 260; // UTF-16 units of one text, terminator included
constexpr size_t IPC_LONG_TEXT_UNITS = 780; // the three texts taken as one, for codes 0x333 and 0x343
constexpr size_t IPC_MESSAGE_SIZE    = 1584;

struct IpcMessage {
    uint32_t dwSessionId; // session of the sender; the agent handles a received record only when this is 0
    uint32_t dwCommand;
    uint32_t dwReserved; // always 0
    uint32_t dwParam1;   // range tests on it are unsigned
    uint32_t dwParam2;
    uint32_t dwParam3;
    char16_t szText1[IPC_TEXT_UNITS];
    char16_t szText2[IPC_TEXT_UNITS];
    char16_t szText3[IPC_TEXT_UNITS];
};
static_assert(sizeof(IpcMessage) == IPC_MESSAGE_SIZE, "both pipes and the peer link carry exactly this record");
static_assert(offsetof(IpcMessage, szText1) == 24 && offsetof(IpcMessage, szText2) == 544 &&
                  offsetof(IpcMessage, szText3) == 1064,
              "no padding anywhere");

constexpr uint32_t STON_FORCEEXIT              = 0x0221;
constexpr uint32_t NTOS_IPCREADY               = 0x0330;
constexpr uint32_t NTOS_COLLECTIONPROGRESS     = 0x0331; // 817: the collection's percentage has changed
constexpr uint32_t NTOS_ERRORCONTROL           = 0x0332;
constexpr uint32_t NTOS_FAILITEMS              = 0x0333;
constexpr uint32_t NTOS_UPDATEPERCENTAGE       = 0x0334;
constexpr uint32_t NTOS_USERCONTROL            = 0x0335;
constexpr uint32_t ATOS_FAILITEMS              = 0x0343;
constexpr uint32_t ATOS_UPDATEPERCENTAGE       = 0x0344;
constexpr uint32_t STON_NETWORKCONNECTION      = 0x0820;
constexpr uint32_t STON_GETPINCODE             = 0x0920;
constexpr uint32_t STON_SETPINCCODE            = 0x0921;
constexpr uint32_t STON_SETCOMPUTERROLE        = 0x1021;
constexpr uint32_t STON_COLLECTIONFOLDERS      = 0x1120;
constexpr uint32_t STON_COLLECTIONFILES        = 0x1121;
constexpr uint32_t NTOS_COLLECTIONFOLDERS      = 0x1130;
constexpr uint32_t NTOS_COLLECTIONFILES        = 0x1131;
constexpr uint32_t STON_SYSTEMSETTINGSUPPORTED = 0x1320;
constexpr uint32_t NTOS_SYSTEMSETTINGSUPPORTED = 0x1330;
constexpr uint32_t STON_APPLICATIONSUPPORTED   = 0x1420;
constexpr uint32_t NTOS_APPLICATIONSUPPORTED   = 0x1430;
constexpr uint32_t STON_MIGRATIONOPTIONS       = 0x2020;
constexpr uint32_t NTOS_MIGRATIONOPTIONS       = 0x2030;
constexpr uint32_t STON_MIGRATIONCOLLECTION    = 0x2120;
constexpr uint32_t STON_MIGRATIONSYSTEMSETTING = 0x2320;
constexpr uint32_t NTOS_MIGRATIONSYSTEMSETTING = 0x2330;
constexpr uint32_t STON_MIGRATIONAPPLICATION   = 0x2420;
constexpr uint32_t NTOS_MIGRATIONAPPLICATION   = 0x2430;
constexpr uint32_t STON_SETPROGRESS            = 0x3021;
constexpr uint32_t NTOS_SETPROGRESS            = 0x3031;

constexpr uint32_t IPC_PARAM_REQUEST = 1;
constexpr uint32_t IPC_PARAM_DONE    = 2;
constexpr uint32_t IPC_PARAM_FAILED  = 0xFFFFFFFE; // -2
constexpr uint32_t IPC_PARAM_TOTAL   = 128;        // of 836: text 1 is the number of bytes to come

constexpr size_t IPC_LABEL_BYTES = 260;

// True for the codes whose three texts are one long text.
bool HasLongText(uint32_t dwCommand);

// Copies of a record's texts that are terminated for certain: a record comes from outside and may fill a field to its
// end. A text without terminator loses its last unit. Any thread.
//   pSource       one text field of a record, IPC_TEXT_UNITS units, or pRecord of one with a long text
//   pszDest       IPC_TEXT_UNITS or IPC_LONG_TEXT_UNITS + 1 units
void CopyIpcText(char16_t *pszDest, const char16_t *pSource);
void CopyIpcLongText(char16_t *pszDest, const IpcMessage *pRecord); // all 780 units, a terminator behind them

// Direction prefix and name joined, as in "STON_FORCEEXIT"; a combination without a name gives the prefix alone.
//   pszBuffer  IPC_LABEL_BYTES bytes
void GetIpcCommandLabel(uint32_t dwCommand, char *pszBuffer);

// "%s, %s": "NetHandleIPC" when fromService is non-zero, else "CallTransferFromNetwork"; then the label.
//   pszBuffer  IPC_LABEL_BYTES bytes
void GetIpcCommandName(uint32_t dwCommand, char *pszBuffer, int32_t fromService);

// Writes label, parameters and texts of a received record to the trace log; nothing is built while that is off. The
// record's texts may lack terminators. Any thread.
void TraceIpcMessage(const IpcMessage *pRecord, int32_t fromService);
