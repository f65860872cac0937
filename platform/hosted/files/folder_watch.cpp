// folder_watch.cpp: one inotify descriptor for the process.
// A path goes through all folders above it, so they are watched as well, up to the machine's: a moved one voids
// everything, a removed one what was known of it. A folder behind a symbolic link is not watched, since the link may
// come to name another. A child made by fork shares the descriptor and would take its parent's events; it starts anew.
#include "platform/hosted/files/folder_watch.h"
#include "platform/hosted/control.h"
#include <atomic>
#include <cerrno>
#include <climits>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <unordered_map>

namespace hosted {
namespace {

constexpr size_t   MAX_WATCHES = 4096; // more of them: all start anew
constexpr uint32_t ABOVE       = IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_MASK_ADD;
constexpr uint32_t ITSELF      = ABOVE | IN_CREATE | IN_MOVED_TO;

struct Watches {
    int                                  nFd = -1;
    std::unordered_map<std::string, int> aByFolder;
    std::unordered_map<int, std::string> aFolders;
};
Watches          &g_Watches = *new Watches;
std::atomic<bool> g_bForked{false};

bool Open()
{
    if (g_bForked.load()) return false; // until TakeFolderNews has said so
    if (g_Watches.nFd >= 0) return true;
    static const int s_nHandler = pthread_atfork(nullptr, nullptr, [] { g_bForked.store(true); });
    if (s_nHandler == 0) g_Watches.nFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    return g_Watches.nFd >= 0;
}

bool Add(const std::string &sFolder, uint32_t dwMask)
{
    const int nWatch = inotify_add_watch(g_Watches.nFd, sFolder.c_str(), dwMask);
    if (nWatch < 0) return false;
    g_Watches.aByFolder[sFolder] = nWatch;
    g_Watches.aFolders[nWatch]   = sFolder;
    return true;
}

void Forget(const std::string &sFolder)
{
    const auto it = g_Watches.aByFolder.find(sFolder);
    if (it == g_Watches.aByFolder.end()) return;
    inotify_rm_watch(g_Watches.nFd, it->second);
    g_Watches.aFolders.erase(it->second);
    g_Watches.aByFolder.erase(it);
}

void Tell(const inotify_event &event, const FolderNewsUse &use)
{
    if ((event.mask & (IN_Q_OVERFLOW | IN_MOVE_SELF)) != 0) {
        UnwatchFolders();
        use(FolderNews::Unknown, "", "");
        return;
    }
    const auto it = g_Watches.aFolders.find(event.wd);
    if (it == g_Watches.aFolders.end()) return;
    std::string sFolder = it->second;
    if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
        use(FolderNews::Added, sFolder, event.name);
        return;
    }
    if ((event.mask & IN_DELETE) != 0) {
        if ((event.mask & IN_ISDIR) == 0) return;
        sFolder = sFolder + '/' + event.name; // said here at once; by itself when nobody has it open any more
    }
    Forget(sFolder);
    use(FolderNews::Gone, sFolder, "");
}

} // namespace

bool WatchFolder(const std::string &sFolder)
{
    const std::string sMachine = MachineFolder();
    if (sMachine.empty() || sFolder.compare(0, sMachine.size() + 1, sMachine + '/') != 0 || !Open()) return false;
    for (size_t nEnd = sMachine.size(); nEnd != std::string::npos; nEnd = sFolder.find('/', nEnd + 1)) {
        const std::string sAbove = sFolder.substr(0, nEnd);
        if (g_Watches.aByFolder.count(sAbove) == 0 && !Add(sAbove, ABOVE)) return false;
    }
    return Add(sFolder, ITSELF);
}

void TakeFolderNews(const FolderNewsUse &use)
{
    constexpr size_t            LARGEST = sizeof(inotify_event) + NAME_MAX + 1;
    alignas(inotify_event) char aEvents[8 * LARGEST];
    const auto                  startAnew = [&] {
        UnwatchFolders();
        use(FolderNews::Unknown, "", "");
    };
    if ((g_bForked.load(std::memory_order_relaxed) && g_bForked.exchange(false)) ||
        g_Watches.aFolders.size() > MAX_WATCHES)
        startAnew();
    while (g_Watches.nFd >= 0) {
        const ssize_t cb = read(g_Watches.nFd, aEvents, sizeof(aEvents));
        if (cb < 0 && errno == EINTR) continue;
        if (cb < 0 && errno != EAGAIN) startAnew();
        for (ssize_t nAt = 0; nAt < cb && g_Watches.nFd >= 0;) {
            const auto *pEvent = reinterpret_cast<const inotify_event *>(aEvents + nAt);
            Tell(*pEvent, use);
            nAt += static_cast<ssize_t>(sizeof(*pEvent) + pEvent->len);
        }
        if (cb < 0 || static_cast<size_t>(cb) <= sizeof(aEvents) - LARGEST) return; // there was room for one more
    }
}

void UnwatchFolders()
{
    if (g_Watches.nFd >= 0) close(g_Watches.nFd);
    g_Watches.nFd = -1;
    g_Watches.aByFolder.clear();
    g_Watches.aFolders.clear();
}

} // namespace hosted
