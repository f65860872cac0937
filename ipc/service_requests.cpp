// service_requests.cpp: which of the service's records the agent accepts, and what it does with each.
// The conditions are strict on purpose: a record that does not fit exactly is an answer on its way to somebody else, or
// an older service's, and must not start a transfer.
#include "ipc/service_requests.h"
#include "app/notification_window.h"
#include "ipc/thread_execution.h"
#include "migration/special_data.h"
#include "migration/special_folders.h"
#include "migration/special_requests.h"
#include "net/session_control.h"
#include "trace/trace_log.h"

static constexpr uint32_t PARAM_SET_ROOT        = 2;   // of 4129

static void SetAppDataRoot(const IpcMessage *pRecord)
{
    char16_t szRoot[IPC_TEXT_UNITS];
    CopyIpcText(szRoot, pRecord->szText1);
    SetSpecialRoot(SpecialRoot::AppData, szRoot);
}

static bool IsAnswer(uint32_t dwParam1)
{
    return dwParam1 == IPC_PARAM_DONE || dwParam1 == IPC_PARAM_FAILED;
}

// True for the records that go to the peer through a worker.
static bool IsForPeer(const IpcMessage *pRecord)
{
    const uint32_t p1 = pRecord->dwParam1;
    const uint32_t p2 = pRecord->dwParam2;
    const uint32_t p3 = pRecord->dwParam3;

    switch (pRecord->dwCommand) {
    case ATOS_UPDATEPERCENTAGE: return p1 < 101 || p1 == IPC_PARAM_TOTAL;
    case STON_COLLECTIONFOLDERS:
    case STON_COLLECTIONFILES:
    case STON_SYSTEMSETTINGSUPPORTED:
    case STON_APPLICATIONSUPPORTED:
    case STON_MIGRATIONOPTIONS: return p1 == IPC_PARAM_REQUEST;
    case NTOS_COLLECTIONFOLDERS: return p1 >= 2 && p1 <= 27;
    case NTOS_COLLECTIONFILES:
    case NTOS_SYSTEMSETTINGSUPPORTED:
    case NTOS_APPLICATIONSUPPORTED: return p1 == IPC_PARAM_DONE;
    case STON_MIGRATIONCOLLECTION: return p1 == IPC_PARAM_REQUEST && p2 == 0;
    case STON_MIGRATIONAPPLICATION: return p1 == IPC_PARAM_REQUEST && p3 == 0;
    case STON_MIGRATIONSYSTEMSETTING: return p3 == 0 && p1 == IPC_PARAM_REQUEST && p2 >= 1 && p2 <= 11;
    case NTOS_MIGRATIONSYSTEMSETTING: return p3 == 1 && IsAnswer(p1) && p2 >= 1 && p2 <= 11;
    case NTOS_MIGRATIONAPPLICATION: return p3 == 1 && IsAnswer(p1);
    case STON_SETPROGRESS: return p1 == 3 || p1 == 4;
    default: return false;
    }
}

// Acts on the records that concern the agent itself. True when it was one.
static bool HandleOwnRequest(const IpcMessage *pRecord)
{
    const uint32_t p1 = pRecord->dwParam1;

    switch (pRecord->dwCommand) {
    case STON_FORCEEXIT:
        if (p1 != 1) return false;
        PostAgentExit();
        return true;
    case STON_NETWORKCONNECTION:
        if (p1 < 1 || p1 > 3) return false;
        StartNetworkConnect(p1, pRecord->dwParam2);
        return true;
    case STON_GETPINCODE:
    case STON_SETPINCCODE:
        if (p1 != IPC_PARAM_REQUEST) return false;
        StartPinCodeThread(pRecord);
        return true;
    case STON_SETCOMPUTERROLE:
        if (p1 != PARAM_SET_ROOT) return false;
        SetAppDataRoot(pRecord);
        return true;
    default: return false;
    }
}

void NetHandleIPC(const IpcMessage *pRecord)
{
    TraceIpcMessage(pRecord, 1);
    if (HandleOwnRequest(pRecord)) return;
    if (!IsForPeer(pRecord)) {
        TraceText("## Unhandle IPC");
        return;
    }
    // The files of the transfer whose total is announced here report their progress on the other side.
    if (pRecord->dwCommand == ATOS_UPDATEPERCENTAGE && pRecord->dwParam1 == IPC_PARAM_TOTAL)
        g_bSpecialTransfer = 1;
    if (pRecord->dwCommand == STON_SETPROGRESS)
        CancelAllThreadExecutions(); // before the worker: it must not cancel itself
    StartSpecialTransfer(pRecord);
}
