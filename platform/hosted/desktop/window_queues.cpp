// window_queues.cpp: see window_queues.h.
#include "platform/hosted/desktop/window_queues.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/kernel.h"
#include <map>
#include <sys/socket.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr size_t   LONGEST_QUEUE          = 10000; // Windows' default
constexpr uint32_t ERROR_NOT_ENOUGH_QUOTA = 1816;

struct WindowMap {
    std::mutex                                  mutex; // guards what follows
    std::map<uint32_t, std::shared_ptr<Window>> windows;
};

WindowMap &TheWindows()
{
    static WindowMap &s_Windows = *new WindowMap;
    return s_Windows;
}

// A thread's windows end with it.
struct QueueOwner {
    std::shared_ptr<MessageQueue> pQueue = std::make_shared<MessageQueue>();
    ~QueueOwner()
    {
        std::vector<uint32_t> aOwn;
        {
            const std::lock_guard<std::mutex> guard(TheWindows().mutex);
            for (const auto &[nWindow, pWindow] : TheWindows().windows) {
                if (pWindow->pQueue == pQueue) aOwn.push_back(nWindow);
            }
        }
        for (const uint32_t nWindow : aOwn) DropWindow(nWindow);
    }
};

void OnDatagram(const std::weak_ptr<Window> &pWeak)
{
    const std::shared_ptr<Window> pWindow = pWeak.lock();
    if (pWindow == nullptr) return;
    WireMessage   message{};
    const ssize_t cb = recv(pWindow->pSocket->nFd, &message, sizeof(message), MSG_DONTWAIT | MSG_TRUNC);
    if (cb == sizeof(message) && message.dwMagic == WIRE_MAGIC && message.nWindow == pWindow->record.nWindow)
        PostToQueue(*pWindow->pQueue, message.nWindow, message.uMsg, message.wParam, message.lParam);
}

} // namespace

std::shared_ptr<MessageQueue> OwnQueue()
{
    static thread_local QueueOwner t_Owner;
    return t_Owner.pQueue;
}

uint32_t NumberOf(platform::HWND hWnd)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(hWnd));
}

platform::HWND HandleOf(uint32_t nWindow)
{
    return reinterpret_cast<platform::HWND>(static_cast<uintptr_t>(nWindow));
}

std::shared_ptr<Window> WindowOf(uint32_t nWindow)
{
    const std::lock_guard<std::mutex> guard(TheWindows().mutex);
    const auto                        it = TheWindows().windows.find(nWindow);
    return it == TheWindows().windows.end() ? nullptr : it->second;
}

void KeepWindow(const std::shared_ptr<Window> &pWindow)
{
    const std::lock_guard<std::mutex> guard(TheWindows().mutex);
    TheWindows().windows[pWindow->record.nWindow] = pWindow;
    pWindow->nWatch = WatchDescriptor(pWindow->pSocket->nFd, [pWeak = std::weak_ptr(pWindow)] { OnDatagram(pWeak); });
}

std::shared_ptr<Window> DropWindow(uint32_t nWindow)
{
    std::shared_ptr<Window> pWindow;
    {
        const std::lock_guard<std::mutex> guard(TheWindows().mutex);
        const auto                        it = TheWindows().windows.find(nWindow);
        if (it == TheWindows().windows.end()) return nullptr;
        pWindow = it->second;
        TheWindows().windows.erase(it);
    }
    UnwatchDescriptor(pWindow->nWatch, pWindow->pSocket->nFd);
    RemoveWindow(nWindow);
    const std::lock_guard<std::mutex> guard(pWindow->pQueue->mutex);
    std::erase_if(pWindow->pQueue->aPosted, [&](const platform::MSG &msg) { return NumberOf(msg.hwnd) == nWindow; });
    return pWindow;
}

bool ChangeRecord(uint32_t nWindow, bool (*pChange)(WindowRecord &, uint32_t), uint32_t nArgument)
{
    const std::lock_guard<std::mutex> guard(TheWindows().mutex);
    const auto                        it = TheWindows().windows.find(nWindow);
    if (it == TheWindows().windows.end()) {
        SetError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    if (!pChange(it->second->record, nArgument)) {
        SetError(platform::ERROR_INVALID_PARAMETER);
        return false;
    }
    return StoreWindow(it->second->record);
}

bool PostToQueue(MessageQueue &queue, uint32_t nWindow, uint32_t uMsg, platform::WPARAM wParam, platform::LPARAM lParam)
{
    const uint32_t dwTime = platform::GetTickCount();
    {
        const std::lock_guard<std::mutex> guard(queue.mutex);
        if (queue.aPosted.size() >= LONGEST_QUEUE) {
            SetError(ERROR_NOT_ENOUGH_QUOTA);
            return false;
        }
        queue.aPosted.push_back({HandleOf(nWindow), uMsg, wParam, lParam, dwTime, {0, 0}});
    }
    queue.condition.notify_all();
    return true;
}

platform::LRESULT CallWindow(Window &window, uint32_t uMsg, platform::WPARAM wParam, platform::LPARAM lParam)
{
    return window.pProcedure(HandleOf(window.record.nWindow), uMsg, wParam, lParam);
}

int OpenWindows()
{
    const std::lock_guard<std::mutex> guard(TheWindows().mutex);
    return static_cast<int>(TheWindows().windows.size());
}

int SessionRegistrations()
{
    const std::lock_guard<std::mutex> guard(TheWindows().mutex);
    uint32_t                          nAll = 0;
    for (const auto &[nWindow, pWindow] : TheWindows().windows) nAll += pWindow->record.nSessionRegistrations;
    return static_cast<int>(nAll);
}

namespace {

// What an earlier test left on the thread that changes machines is not the next one's.
const OnUseMachine g_Reset([] {
    const std::shared_ptr<MessageQueue> pQueue = OwnQueue();
    const std::lock_guard<std::mutex>   guard(pQueue->mutex);
    pQueue->aPosted.clear();
    pQueue->nQuit.reset();
});

} // namespace
} // namespace hosted
