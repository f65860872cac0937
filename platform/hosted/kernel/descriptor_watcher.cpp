// descriptor_watcher.cpp: see descriptor_watcher.h. Events carry an id and not a descriptor, so that one that comes
// late never reaches the next user of the same number.
#include "platform/hosted/kernel/descriptor_watcher.h"
#include "platform/hosted/machine/errors.h"
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <thread>

namespace hosted {
namespace {

struct Watcher {
    std::mutex                                                mutex; // guards what follows
    int                                                       nEpollFd = -1;
    WatchId                                                   nLastId  = 0;
    std::map<WatchId, std::shared_ptr<std::function<void()>>> watches;
};

Watcher &TheWatcher()
{
    static Watcher &s_Watcher = *new Watcher;
    return s_Watcher;
}

void Run(int nEpollFd)
{
    Watcher &watcher = TheWatcher();
    for (;;) {
        epoll_event event{};
        if (epoll_wait(nEpollFd, &event, 1, -1) != 1) continue;
        std::shared_ptr<std::function<void()>> pOnReadable;
        {
            const std::lock_guard<std::mutex> guard(watcher.mutex);
            const auto                        it = watcher.watches.find(event.data.u64);
            if (it != watcher.watches.end()) pOnReadable = it->second;
        }
        if (pOnReadable != nullptr) (*pOnReadable)();
    }
}

} // namespace

WatchId WatchDescriptor(int nFd, std::function<void()> onReadable)
{
    Watcher                          &watcher = TheWatcher();
    const std::lock_guard<std::mutex> guard(watcher.mutex);
    if (watcher.nEpollFd < 0) {
        watcher.nEpollFd = epoll_create1(EPOLL_CLOEXEC);
        if (watcher.nEpollFd < 0) {
            SetErrorFromErrno();
            return 0;
        }
        std::thread(Run, watcher.nEpollFd).detach();
    }
    epoll_event event{};
    event.events   = EPOLLIN;
    event.data.u64 = ++watcher.nLastId;
    if (epoll_ctl(watcher.nEpollFd, EPOLL_CTL_ADD, nFd, &event) != 0) {
        SetErrorFromErrno();
        return 0;
    }
    watcher.watches.emplace(watcher.nLastId, std::make_shared<std::function<void()>>(std::move(onReadable)));
    return watcher.nLastId;
}

void UnwatchDescriptor(WatchId nWatch, int nFd)
{
    if (nWatch == 0) return;
    Watcher                          &watcher = TheWatcher();
    const std::lock_guard<std::mutex> guard(watcher.mutex);
    if (watcher.watches.erase(nWatch) != 0) epoll_ctl(watcher.nEpollFd, EPOLL_CTL_DEL, nFd, nullptr);
}

} // namespace hosted
