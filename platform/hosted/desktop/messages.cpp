// messages.cpp: sending and taking messages.
// Posted messages come in their order, and WM_QUIT when none is left.
// Differences from Windows: of another process's lower standing only the sender's side knows, so that the filter is
// applied there; a queue is read whole (a window or a range of messages: ERROR_NOT_SUPPORTED).
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/user_interface_functions.h"
#include "platform/hosted/desktop/window_queues.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include <algorithm>
#include <atomic>
#include <memory>
#include <string>

namespace hosted {
namespace {

std::atomic<bool>  g_bLowStanding{false};
const OnUseMachine g_Reset([] { g_bLowStanding.store(false); });

bool FilterLets(const WindowRecord &record, uint32_t uMsg)
{
    return !g_bLowStanding.load() ||
           std::find(record.aAllowed.begin(), record.aAllowed.end(), uMsg) != record.aAllowed.end();
}

bool PostTo(uint32_t nWindow, uint32_t uMsg, platform::WPARAM wParam, platform::LPARAM lParam)
{
    if (const std::shared_ptr<Window> pWindow = WindowOf(nWindow)) {
        return PostToQueue(*pWindow->pQueue, nWindow, uMsg, wParam, lParam);
    }
    WindowRecord record;
    if (!ReadWindow(nWindow, &record)) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    if (!FilterLets(record, uMsg)) {
        SetError(platform::ERROR_ACCESS_DENIED);
        return false;
    }
    if (SendToWindow({WIRE_MAGIC, nWindow, uMsg, wParam, lParam})) return true;
    SetError(ERROR_INVALID_WINDOW_HANDLE);
    return false;
}

} // namespace

int BroadcastSessionChange(uint64_t wParam)
{
    const std::string sSession = MachineSetting("machine", "session", "1");
    int               nReached = 0;
    for (const WindowRecord &record : AllWindows()) { // from the system: no filter
        if (record.nSessionRegistrations != 0 &&
            SendToWindow(
                {WIRE_MAGIC, record.nWindow, platform::WM_WTSSESSION_CHANGE, wParam, std::atoll(sSession.c_str())}))
            nReached++;
    }
    return nReached;
}

void SetLowStanding(bool bLow)
{
    g_bLowStanding.store(bLow);
}

namespace user32 {

BOOL GetMessageW(MSG *pMsg, HWND hWnd, uint32_t uFirst, uint32_t uLast)
{
    if (FailsNow("GetMessageW")) return -1;
    if (hWnd != nullptr || uFirst != 0 || uLast != 0) {
        SetError(ERROR_NOT_SUPPORTED);
        return -1;
    }
    const std::shared_ptr<MessageQueue> pQueue = OwnQueue();
    std::unique_lock<std::mutex>        lock(pQueue->mutex);
    pQueue->condition.wait(lock, [&] { return !pQueue->aPosted.empty() || pQueue->nQuit.has_value(); });
    if (pQueue->aPosted.empty()) {
        *pMsg = {nullptr, WM_QUIT, static_cast<WPARAM>(*pQueue->nQuit), 0, 0, {0, 0}};
        pQueue->nQuit.reset();
        return FALSE;
    }
    *pMsg = pQueue->aPosted.front();
    pQueue->aPosted.pop_front();
    return TRUE;
}

BOOL TranslateMessage(const MSG *)
{
    return FALSE; // there are no keys to translate
}

LRESULT DispatchMessageW(const MSG *pMsg)
{
    if (FailsNow("DispatchMessageW")) return 0;
    const std::shared_ptr<Window> pWindow = WindowOf(NumberOf(pMsg->hwnd));
    if (pWindow == nullptr || pWindow->pQueue != OwnQueue()) return 0;
    return CallWindow(*pWindow, pMsg->message, pMsg->wParam, pMsg->lParam);
}

BOOL PostMessageW(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam)
{
    if (FailsNow("PostMessageW")) return FALSE;
    return PostTo(NumberOf(hWnd), uMsg, wParam, lParam);
}

void PostQuitMessage(int32_t nExitCode)
{
    if (FailsNow("PostQuitMessage")) return;
    const std::shared_ptr<MessageQueue> pQueue = OwnQueue();
    const std::lock_guard<std::mutex>   guard(pQueue->mutex);
    pQueue->nQuit = nExitCode;
}

} // namespace user32
} // namespace hosted
