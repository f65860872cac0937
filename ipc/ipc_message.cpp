// ipc_message.cpp: names of the command codes, and the copies that make a record's texts safe to use.
// The label stands in every trace of the product: support tells the two machines' legs of one exchange apart by it.
#include "ipc/ipc_message.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <cstring>

using namespace platform;

struct CommandGroup {
    uint8_t     bGroup;
    bool        bAnySub; // the first name stands for every sub-command
    const char *apszNames[6];
};

static const CommandGroup g_aCommandGroups[] = {
    {0x02, false, {"TRAYTOAST", "FORCEEXIT"}},
    {0x03, false, {"IPCREADY", "UPDATECONFIG", "ERRORCONTROL", "FAILITEMS", "UPDATEPERCENTAGE", "USERCONTROL"}},
    {0x05, false, {"LAUNCHOPTIONS"}},
    {0x08, false, {"NETWORKCONNECTION"}},
    {0x09, false, {"GETPINCODE", "SETPINCCODE"}},
    {0x10, false, {"SETDROPBOXTOKEN", "SETCOMPUTERROLE"}},
    {0x11, false, {"COLLECTIONFOLDERS", "COLLECTIONFILES"}},
    {0x12, true, {"QUICKACCESSSUPPORTED"}},
    {0x13, true, {"SYSTEMSETTINGSUPPORTED"}},
    {0x14, true, {"APPLICATIONSUPPORTED"}},
    {0x20, true, {"MIGRATIONOPTIONS"}},
    {0x21, true, {"MIGRATIONCOLLECTION"}},
    {0x23, true, {"MIGRATIONSYSTEMSETTING"}},
    {0x24, true, {"MIGRATIONAPPLICATION"}},
    {0x30, false, {"GETPROGRESS", "SETPROGRESS"}},
};

static const char *DirectionPrefix(uint32_t dwCommand)
{
    switch (dwCommand & 0xF0) {
    case 0x00: return "STOA_";
    case 0x10: return "NSTOA_";
    case 0x20: return "STON_";
    case 0x30: return "NTOS_";
    case 0x40: return "ATOS_";
    default: return "UNKNOWN_";
    }
}

static const char *CommandName(uint32_t dwCommand)
{
    const uint32_t dwGroup = (dwCommand >> 8) & 0xFF;
    const uint32_t dwSub   = dwCommand & 0x0F;
    for (const CommandGroup &group : g_aCommandGroups) {
        if (group.bGroup != dwGroup) continue;
        if (group.bAnySub) return group.apszNames[0];
        if (dwSub < sizeof(group.apszNames) / sizeof(group.apszNames[0]) && group.apszNames[dwSub] != nullptr) {
            return group.apszNames[dwSub];
        }
    }
    return "";
}

bool HasLongText(uint32_t dwCommand)
{
    return dwCommand == NTOS_FAILITEMS || dwCommand == ATOS_FAILITEMS;
}

void CopyIpcText(char16_t *pszDest, const char16_t *pSource)
{
    size_t cch = TextLengthBoundedW(pSource, IPC_TEXT_UNITS);
    if (cch == IPC_TEXT_UNITS) cch--;
    std::memcpy(pszDest, pSource, cch * sizeof(char16_t));
    pszDest[cch] = 0;
}

void CopyIpcLongText(char16_t *pszDest, const IpcMessage *pRecord)
{
    // The three fields lie side by side (asserted beside the structure); one copy through the record's bytes joins
    // them.
    std::memcpy(pszDest, reinterpret_cast<const unsigned char *>(pRecord) + offsetof(IpcMessage, szText1),
                IPC_LONG_TEXT_UNITS * sizeof(char16_t));
    pszDest[IPC_LONG_TEXT_UNITS] = 0;
}

void GetIpcCommandLabel(uint32_t dwCommand, char *pszBuffer)
{
    FormatTextA(pszBuffer, IPC_LABEL_BYTES, "%s%s", DirectionPrefix(dwCommand), CommandName(dwCommand));
}

void GetIpcCommandName(uint32_t dwCommand, char *pszBuffer, int32_t fromService)
{
    char szLabel[IPC_LABEL_BYTES] = {};
    GetIpcCommandLabel(dwCommand, szLabel);
    FormatTextA(pszBuffer, IPC_LABEL_BYTES, "%s, %s", fromService ? "NetHandleIPC" : "CallTransferFromNetwork",
                szLabel);
}

void TraceIpcMessage(const IpcMessage *pRecord, int32_t fromService)
{
    if (!IsTraceEnabled()) return;
    char szName[IPC_LABEL_BYTES] = {};
    GetIpcCommandName(pRecord->dwCommand, szName, fromService);
    if (HasLongText(pRecord->dwCommand)) {
        char16_t szLongText[IPC_LONG_TEXT_UNITS + 1];
        CopyIpcLongText(szLongText, pRecord);
        TraceRecordLongText(szName, pRecord->dwParam1, pRecord->dwParam2, pRecord->dwParam3, szLongText,
                            IPC_LONG_TEXT_UNITS);
    } else {
        TraceRecordTexts(szName, pRecord->dwParam1, pRecord->dwParam2, pRecord->dwParam3, pRecord->szText1,
                         pRecord->szText2, pRecord->szText3, IPC_TEXT_UNITS);
    }
}
