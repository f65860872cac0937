// special_requests.h: requests of the service that concern the peer: the files they name, then their record.
#pragma once
#include "ipc/ipc_message.h"
#include <atomic>
#include <cstdint>

// Totals (836 with IPC_PARAM_TOTAL) that workers have still to send; files of 0x2430 wait for them, since what arrives
// before its total is not counted as progress.
extern std::atomic<uint32_t> g_nTotalsUnderWay;

// Copies the record and runs SpecialTransferThread on it, bound to the link of this moment. 1, or 0: nothing was
// started. Any thread.
int32_t StartSpecialTransfer(const IpcMessage *pRequest);
struct SpecialRequest {
    IpcMessage Record;               // texts terminated
    uint32_t   dwLinkGeneration;     // net/network_link.h
    bool       bTotal       = false; // it is one of g_nTotalsUnderWay
    uint64_t   ullExecution = 0; // ipc/thread_execution.h; listed before the thread starts, so that a cancel that comes
                                 // right behind the request meets it
};
// pRequest: a SpecialRequest made with new, the thread's from here on. Sends the files, then the record.
uint32_t SpecialTransferThread(void *pRequest);
