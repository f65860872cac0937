// service_requests.cpp: the records that concern the agent itself, and the way of all others to a worker.
#include "ipc/service_requests.h"
#include "app/notification_window.h"
#include "ipc/record_rules.h"
#include "ipc/thread_execution.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "migration/special_requests.h"
#include "net/session_control.h"
#include "trace/trace_log.h"

static constexpr uint32_t PARAM_SET_ROOT = 2; // of 4129

static void SetAppDataRoot(const IpcMessage *pRecord)
{
    char16_t szRoot[IPC_TEXT_UNITS];
    CopyIpcText(szRoot, pRecord->szText1);
    SetSpecialRoot(SpecialRoot::AppData, szRoot);
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
    if (FindRecordRule(pRecord, RecordOrigin::OwnService) == nullptr) {
        TraceText("## Unhandle IPC");
        return;
    }
    // The files of the transfer whose total is announced here report their progress on the other side.
    if (pRecord->dwCommand == ATOS_UPDATEPERCENTAGE && pRecord->dwParam1 == IPC_PARAM_TOTAL) g_bSpecialTransfer = 1;
    if (pRecord->dwCommand == STON_SETPROGRESS)
        CancelAllThreadExecutions(); // before the worker: it must not cancel itself
    StartSpecialTransfer(pRecord);
}
