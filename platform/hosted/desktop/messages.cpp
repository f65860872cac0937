// messages.cpp: sending and taking messages.
// Posted messages come in their order, and WM_QUIT when none is left.
// Differences from Windows: a message is sent (and waited for) within a thread only, to another thread's window it
// fails with ERROR_NOT_SUPPORTED; of another process's lower standing only the sender's side knows, so that the filter
// is applied there.
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

constexpr uint32_t WM_NULL        = 0;
constexpr uint32_t HWND_BROADCAST = 0xFFFF;
constexpr uint32_t PM_REMOVE      = 1;

std::atomic<bool>  g_bLowStanding{false};
const OnUseMachine g_Reset([] { g_bLowStanding.store(false); });

bool FilterLets(const WindowRecord &record, uint32_t uMsg)
{
    return !g_bLowStanding.load() || uMsg == WM_NULL ||
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

// [held: the queue's mutex] The next message that fits; null when there is none.
std::deque<platform::MSG>::iterator NextPosted(MessageQueue &queue, platform::HWND hWnd, uint32_t uFirst,
                                               uint32_t uLast)
{
    return std::find_if(queue.aPosted.begin(), queue.aPosted.end(), [&](const platform::MSG &msg) {
        return (hWnd == nullptr || msg.hwnd == hWnd) &&
               ((uFirst == 0 && uLast == 0) || (msg.message >= uFirst && msg.message <= uLast));
    });
}

// Takes or looks at the next message; false when there is none and bWait is not set.
bool Take(platform::MSG *pMsg, platform::HWND hWnd, uint32_t uFirst, uint32_t uLast, bool bRemove, bool bWait)
{
    const std::shared_ptr<MessageQueue> pQueue = OwnQueue();
    std::unique_lock<std::mutex>        lock(pQueue->mutex);
    for (;;) {
        const auto it = NextPosted(*pQueue, hWnd, uFirst, uLast);
        if (it != pQueue->aPosted.end()) {
            *pMsg = *it;
            if (bRemove) pQueue->aPosted.erase(it);
            return true;
        }
        if (pQueue->nQuit.has_value()) {
            *pMsg = {nullptr, platform::WM_QUIT, static_cast<platform::WPARAM>(*pQueue->nQuit), 0, 0, {0, 0}};
            if (bRemove) pQueue->nQuit.reset();
            return true;
        }
        if (!bWait) return false;
        pQueue->condition.wait(lock);
    }
}

int Broadcast(uint32_t uMsg, platform::WPARAM wParam, platform::LPARAM lParam, bool bRegisteredOnly)
{
    int nReached = 0;
    for (const WindowRecord &record : AllWindows()) { // from the system: no filter
        if (bRegisteredOnly && record.nSessionRegistrations == 0) continue;
        if (SendToWindow({WIRE_MAGIC, record.nWindow, uMsg, wParam, lParam})) nReached++;
    }
    return nReached;
}

} // namespace

int BroadcastSessionChange(uint64_t wParam)
{
    const std::string sSession = MachineSetting("machine", "session", "1");
    return Broadcast(platform::WM_WTSSESSION_CHANGE, wParam, atoll(sSession.c_str()), true);
}

int BroadcastPower(uint64_t wParam)
{
    return Broadcast(platform::WM_POWERBROADCAST, wParam, 0, false);
}

void SetLowStanding(bool bLow)
{
    g_bLowStanding.store(bLow);
}

namespace user32 {

BOOL GetMessageW(MSG *pMsg, HWND hWnd, uint32_t uFirst, uint32_t uLast)
{
    if (FailsNow("GetMessageW")) return -1;
    if (hWnd != nullptr && WindowOf(NumberOf(hWnd)) == nullptr) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return -1;
    }
    Take(pMsg, hWnd, uFirst, uLast, true, true);
    return pMsg->message != WM_QUIT;
}

BOOL PeekMessageW(MSG *pMsg, HWND hWnd, uint32_t uFirst, uint32_t uLast, uint32_t dwRemove)
{
    if (FailsNow("PeekMessageW")) return FALSE;
    return Take(pMsg, hWnd, uFirst, uLast, (dwRemove & PM_REMOVE) != 0, false);
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
    if (hWnd == nullptr) return PostToQueue(*OwnQueue(), 0, uMsg, wParam, lParam);
    if (NumberOf(hWnd) != HWND_BROADCAST) return PostTo(NumberOf(hWnd), uMsg, wParam, lParam);
    for (const WindowRecord &record : AllWindows()) PostTo(record.nWindow, uMsg, wParam, lParam);
    return TRUE;
}

LRESULT SendMessageW(HWND hWnd, uint32_t uMsg, WPARAM wParam, LPARAM lParam)
{
    if (FailsNow("SendMessageW")) return 0;
    const std::shared_ptr<Window> pWindow = WindowOf(NumberOf(hWnd));
    if (pWindow != nullptr && pWindow->pQueue == OwnQueue()) return CallWindow(*pWindow, uMsg, wParam, lParam);
    SetError(ERROR_NOT_SUPPORTED);
    return 0;
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
