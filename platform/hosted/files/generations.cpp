// generations.cpp: counters in memory that all processes of the machine share.
// They let a process trust what it remembers of a folder or of an INI file without looking at the disk: a file's time
// stamp alone cannot tell two changes within one tick of the kernel's clock apart. A machine whose run/ cannot be
// mapped gets counters of this process, and then only time stamps tell what others do.
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/text.h"
#include <atomic>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr size_t COUNTERS = 1 << 15; // of each kind; a power of two
constexpr size_t KINDS    = 2;
constexpr size_t CB_FILE  = KINDS * COUNTERS * sizeof(std::atomic<uint32_t>);
static_assert(std::atomic<uint32_t>::is_always_lock_free, "counters are shared between processes");

// Mappings are never taken back: another thread may still count in one.
std::atomic<std::atomic<uint32_t> *> g_pCounters{nullptr};

std::atomic<uint32_t> *MapCounters()
{
    const std::string sFolder = RunFolder("");
    const int nFd  = sFolder.empty() ? -1 : open((sFolder + "generations").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    void     *pMem = MAP_FAILED;
    if (nFd >= 0) {
        if (ftruncate(nFd, CB_FILE) == 0) pMem = mmap(nullptr, CB_FILE, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
        close(nFd);
    }
    if (pMem == MAP_FAILED) return new std::atomic<uint32_t>[KINDS * COUNTERS]();
    return static_cast<std::atomic<uint32_t> *>(pMem);
}

const OnUseMachine g_Reset([] { g_pCounters.store(nullptr); });

} // namespace

std::atomic<uint32_t> &Generation(Generations eKind, uint64_t nKey)
{
    std::atomic<uint32_t> *pCounters = g_pCounters.load(std::memory_order_acquire);
    if (pCounters == nullptr) {
        static std::mutex                &s_Mutex = *new std::mutex;
        const std::lock_guard<std::mutex> guard(s_Mutex);
        pCounters = g_pCounters.load();
        if (pCounters == nullptr) g_pCounters.store(pCounters = MapCounters());
    }
    return pCounters[(nKey & (COUNTERS - 1)) + static_cast<size_t>(eKind) * COUNTERS];
}

uint64_t HashBytes(std::string_view sBytes)
{
    uint64_t n = 14695981039346656037u;
    for (const char ch : sBytes) n = (n ^ static_cast<unsigned char>(ch)) * 1099511628211u;
    return n ^ n >> 32;
}

uint64_t HashFolded(std::u16string_view sText)
{
    uint64_t n = 14695981039346656037u;
    for (const char16_t ch : sText) n = (n ^ platform::FoldCaseW(ch)) * 1099511628211u;
    return n ^ n >> 32;
}

} // namespace hosted
