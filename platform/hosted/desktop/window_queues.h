// window_queues.h: the windows of this process, and the message queue of each thread that has asked for messages.
#pragma once
#include "platform/hosted/desktop/window_registry.h"
#include "platform/hosted/kernel/descriptor_watcher.h"
#include "platform/hosted/kernel/unix_sockets.h"
#include "platform/user_interface.h"
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace hosted {

constexpr uint32_t ERROR_INVALID_WINDOW_HANDLE = 1400;

struct MessageQueue {
    std::mutex                mutex; // guards what follows
    std::condition_variable   condition;
    std::deque<platform::MSG> aPosted;
    std::optional<int32_t>    nQuit; // PostQuitMessage's code
};
std::shared_ptr<MessageQueue> OwnQueue(); // of the calling thread

struct Window {
    platform::WNDPROC             pProcedure;
    std::shared_ptr<MessageQueue> pQueue;
    std::shared_ptr<Descriptor>   pSocket;
    WatchId                       nWatch = 0;
    WindowRecord                  record; // changed by the owning thread and by registrations, under the map's mutex
    bool                          bDestroying = false;
};
// By the value of the HWND; null when this process has no such window.
std::shared_ptr<Window> WindowOf(uint32_t nWindow);
void                    KeepWindow(const std::shared_ptr<Window> &pWindow);
// Takes it out of the process and the machine, with its messages. Null: another thread was quicker.
std::shared_ptr<Window> DropWindow(uint32_t nWindow);
// Changes the record under the map's mutex and stores it. False when the window is not of this process
// (ERROR_INVALID_WINDOW_HANDLE) or pChange refuses (ERROR_INVALID_PARAMETER).
bool ChangeRecord(uint32_t nWindow, bool (*pChange)(WindowRecord &, uint32_t), uint32_t nArgument);

uint32_t       NumberOf(platform::HWND hWnd);
platform::HWND HandleOf(uint32_t nWindow);

// Puts a message into the queue; ERROR_NOT_ENOUGH_QUOTA when 10,000 wait already. nWindow 0: for the thread itself.
bool PostToQueue(MessageQueue &queue, uint32_t nWindow, uint32_t uMsg, platform::WPARAM wParam,
                 platform::LPARAM lParam);

// Calls the window's procedure on the calling thread, which must own it.
platform::LRESULT CallWindow(Window &window, uint32_t uMsg, platform::WPARAM wParam, platform::LPARAM lParam);

} // namespace hosted
