// peer_reports.cpp: records made here, sent as those of the service are.
#include "migration/peer_reports.h"
#include "ipc/ipc_message.h"
#include "platform/text.h"
#include "transfer/network_send.h"
#include <cstddef>
#include <cstring>

using namespace platform;

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
    std::memcpy(reinterpret_cast<unsigned char *>(&Record) + offsetof(IpcMessage, szText1), szText, sizeof(szText));
    return SendNetworkCommand(&Record, 0, 0);
}
