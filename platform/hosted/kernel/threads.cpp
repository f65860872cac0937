// threads.cpp: threads as objects that are signalled when they end.
#include "platform/errors.h"
#include "platform/hosted/kernel/handles.h"
#include "platform/hosted/kernel/waits.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace hosted {
namespace {

struct Thread : Waitable {
    Thread() : Waitable(HandleKind::Thread) {}
    bool     TakeSignal() override { return bEnded; }
    bool     bEnded     = false; // this and the rest under Waits::mutex
    uint32_t dwExitCode = platform::STILL_ACTIVE;
    uint32_t dwId       = 0; // 0 until the thread runs
};

struct StartBlock {
    std::shared_ptr<Thread>   pThread;
    platform::ThreadProcedure pStart;
    void                     *pParameter;
};

void *RunThread(void *pArgument)
{
    const std::unique_ptr<StartBlock> pBlock(static_cast<StartBlock *>(pArgument));
    {
        const std::lock_guard<std::mutex> guard(TheWaits().mutex);
        pBlock->pThread->dwId = static_cast<uint32_t>(syscall(SYS_gettid));
    }
    Announce(false);
    const uint32_t dwExitCode = pBlock->pStart(pBlock->pParameter);
    {
        const std::lock_guard<std::mutex> guard(TheWaits().mutex);
        g_nLiveThreads--; // before anybody can see the thread's end
        pBlock->pThread->dwExitCode = dwExitCode;
        pBlock->pThread->bEnded     = true;
    }
    Announce(false);
    return nullptr;
}

// 0 or an errno value.
int StartDetached(std::unique_ptr<StartBlock> pBlock)
{
    pthread_attr_t attributes;
    int            nError = pthread_attr_init(&attributes);
    if (nError != 0) return nError;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    nError = pthread_create(&thread, &attributes, RunThread, pBlock.get());
    if (nError == 0) static_cast<void>(pBlock.release()); // the thread's now
    pthread_attr_destroy(&attributes);
    return nError;
}

} // namespace
} // namespace hosted

platform::HANDLE platform::CreateThread(void *pSecurity, size_t dwStackSize, ThreadProcedure pStart, void *pParameter,
                                        uint32_t dwCreationFlags, uint32_t *pdwThreadId)
{
    if (hosted::FailsNow("CreateThread")) return nullptr;
    if (pSecurity != nullptr || dwStackSize != 0 || dwCreationFlags != 0) {
        hosted::SetError(ERROR_NOT_SUPPORTED);
        return nullptr;
    }
    auto pThread = std::make_shared<hosted::Thread>();
    hosted::g_nLiveThreads++;
    const int nError =
        hosted::StartDetached(std::unique_ptr<hosted::StartBlock>(new hosted::StartBlock{pThread, pStart, pParameter}));
    if (nError != 0) {
        hosted::g_nLiveThreads--;
        hosted::SetError(hosted::ErrorFromErrno(nError));
        return nullptr;
    }
    if (pdwThreadId != nullptr) {
        std::unique_lock<std::mutex> lock(hosted::TheWaits().mutex);
        while (pThread->dwId == 0) hosted::TheWaits().condition.wait(lock);
        *pdwThreadId = pThread->dwId;
    }
    return hosted::AddHandle(std::move(pThread));
}

platform::BOOL platform::GetExitCodeThread(HANDLE hThread, uint32_t *pdwExitCode)
{
    if (hosted::FailsNow("GetExitCodeThread")) return FALSE;
    auto pThread = hosted::ObjectOfKind<hosted::Thread>(hThread, hosted::HandleKind::Thread);
    if (pThread == nullptr) return FALSE;
    const std::lock_guard<std::mutex> guard(hosted::TheWaits().mutex);
    *pdwExitCode = pThread->dwExitCode;
    return TRUE;
}
