// wake_word.cpp: one 32-bit word in run/wake, mapped by every process of the machine and waited for as a futex.
// Who changes something in run/ adds 1 and wakes. The watcher takes the process's mutex before it wakes the condition,
// so a thread that has looked and found nothing either sleeps already or looks again.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/kernel/waits.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/futex.h>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace hosted {
namespace {

using Word = std::atomic<uint32_t>;
static_assert(Word::is_always_lock_free && sizeof(Word) == 4, "shared by processes and waited for by the kernel");

struct Wakes {
    std::mutex        mutex;           // guards what follows
    Word             *pWord = nullptr; // of the current machine
    std::thread       watcher;
    std::atomic<bool> bStop{false};
};

Wakes &TheWakes()
{
    static Wakes &s_Wakes = *new Wakes;
    return s_Wakes;
}

constexpr size_t WORD_FILE_SIZE = 4096;

// [held: Wakes::mutex]
Word *MapWord(Wakes &wakes)
{
    if (wakes.pWord != nullptr) return wakes.pWord;
    const std::string sMachine = MachineFolder();
    if (sMachine.empty()) {
        SetError(platform::ERROR_PATH_NOT_FOUND);
        return nullptr;
    }
    const int nFd = open((sMachine + "/run/wake").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0 || ftruncate(nFd, WORD_FILE_SIZE) != 0) {
        SetErrorFromErrno();
        if (nFd >= 0) close(nFd);
        return nullptr;
    }
    void *pMem = mmap(nullptr, WORD_FILE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    if (pMem == MAP_FAILED) {
        SetErrorFromErrno();
        close(nFd);
        return nullptr;
    }
    close(nFd);
    wakes.pWord = static_cast<Word *>(pMem);
    return wakes.pWord;
}

void Bump(Word *pWord)
{
    pWord->fetch_add(1);
    syscall(SYS_futex, pWord, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void Watch(Word *pWord, const std::atomic<bool> *pbStop)
{
    while (!pbStop->load()) {
        const uint32_t dwSeen = pWord->load();
        Announce(true);
        if (pbStop->load()) break;
        // Returns at once when the word has moved on.
        syscall(SYS_futex, pWord, FUTEX_WAIT, dwSeen, nullptr, nullptr, 0);
    }
}

// The watcher of the old machine ends; everything of that machine is closed by then.
const OnUseMachine g_Reset([] {
    Wakes                            &wakes = TheWakes();
    const std::lock_guard<std::mutex> guard(wakes.mutex);
    if (wakes.watcher.joinable()) {
        wakes.bStop.store(true);
        Bump(wakes.pWord);
        wakes.watcher.join();
        wakes.bStop.store(false);
    }
    if (wakes.pWord != nullptr) munmap(wakes.pWord, WORD_FILE_SIZE);
    wakes.pWord = nullptr;
});

} // namespace

bool ListenForWakes()
{
    Wakes                            &wakes = TheWakes();
    const std::lock_guard<std::mutex> guard(wakes.mutex);
    Word                             *pWord = MapWord(wakes);
    if (pWord == nullptr) return false;
    if (!wakes.watcher.joinable()) wakes.watcher = std::thread(Watch, pWord, &wakes.bStop);
    return true;
}

void WakeMachine()
{
    Wakes &wakes = TheWakes();
    {
        const std::lock_guard<std::mutex> guard(wakes.mutex);
        if (Word *pWord = MapWord(wakes)) Bump(pWord);
    }
    Announce(true); // this process hears of it at once
}

} // namespace hosted
