// critical_sections.cpp: recursive locks on pthread mutexes, which the thread sanitizer knows.
// Misuse that corrupts memory on Windows (an uninitialised section, a leave by a stranger) ends the process with a
// message.
#include "platform/hosted/machine/errors.h"
#include "platform/kernel.h"
#include <atomic>
#include <new>
#include <pthread.h>

namespace {

constexpr uint32_t INITIALISED = 0x53435256;

struct Section {
    pthread_mutex_t           mutex;
    std::atomic<const void *> pOwner; // the owner's t_chSelf
    uint32_t                  nDepth; // of the owner
    uint32_t                  dwState;
};
static_assert(sizeof(Section) <= sizeof(platform::CRITICAL_SECTION));
static_assert(alignof(Section) <= alignof(platform::CRITICAL_SECTION));

thread_local char t_chSelf; // its address tells threads apart without a system call

Section *SectionOf(const platform::CRITICAL_SECTION *pSection, const char *pszCall)
{
    auto *pInside =
        std::launder(reinterpret_cast<Section *>(const_cast<platform::CRITICAL_SECTION *>(pSection)->aStorage));
    if (pInside->dwState != INITIALISED) hosted::Fatal("%s: the section is not initialised", pszCall);
    return pInside;
}

} // namespace

void platform::InitializeCriticalSection(CRITICAL_SECTION *pSection)
{
    auto *pInside    = new (pSection->aStorage) Section;
    pInside->nDepth  = 0;
    pInside->dwState = INITIALISED;
    pInside->pOwner.store(nullptr, std::memory_order_relaxed);
    if (pthread_mutex_init(&pInside->mutex, nullptr) != 0) hosted::Fatal("InitializeCriticalSection: no mutex");
}

void platform::EnterCriticalSection(CRITICAL_SECTION *pSection)
{
    Section *pInside = SectionOf(pSection, "EnterCriticalSection");
    if (pInside->pOwner.load(std::memory_order_relaxed) != &t_chSelf) { // only the thread itself writes its own address
        pthread_mutex_lock(&pInside->mutex);
        pInside->pOwner.store(&t_chSelf, std::memory_order_relaxed);
    }
    pInside->nDepth++;
}

void platform::LeaveCriticalSection(CRITICAL_SECTION *pSection)
{
    Section *pInside = SectionOf(pSection, "LeaveCriticalSection");
    if (pInside->pOwner.load(std::memory_order_relaxed) != &t_chSelf) {
        hosted::Fatal("LeaveCriticalSection: the calling thread is not inside");
    }
    if (--pInside->nDepth != 0) return;
    pInside->pOwner.store(nullptr, std::memory_order_relaxed);
    pthread_mutex_unlock(&pInside->mutex);
}

bool platform::HoldsCriticalSection(const CRITICAL_SECTION *pSection)
{
    return SectionOf(pSection, "HoldsCriticalSection")->pOwner.load(std::memory_order_relaxed) == &t_chSelf;
}
