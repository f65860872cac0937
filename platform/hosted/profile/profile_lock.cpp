// profile_lock.cpp: a robust mutex in memory that the processes of the machine share.
// A migration takes it several times for each file, so it must not cost a call of the host while nobody waits; and a
// process that is killed inside must not keep the others out, so it is robust. What the dead one leaves behind is a
// whole file (profile_store.cpp says why), hence nothing has to be repaired.
#include "platform/hosted/profile/profile_lock.h"
#include "platform/hosted/machine/current_machine.h"
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hosted {
namespace {

struct SharedMutex {
    pthread_mutex_t mutex;
};

std::atomic<SharedMutex *> g_pShared{nullptr}; // mappings are never taken back: another thread may be inside

// The first process makes the mutex, under a lock of the file that the others wait for.
SharedMutex *MapShared()
{
    const std::string sFolder = RunFolder("");
    const int nFd = sFolder.empty() ? -1 : open((sFolder + "profile.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0) return nullptr;
    SharedMutex *pShared = nullptr;
    struct stat  st;
    int          nLocked = -1;
    while ((nLocked = flock(nFd, LOCK_EX)) != 0 && errno == EINTR) {
    }
    const bool bNew = nLocked == 0 && fstat(nFd, &st) == 0 && st.st_size < static_cast<off_t>(sizeof(SharedMutex)) + 1;
    if (nLocked == 0 && (!bNew || ftruncate(nFd, sizeof(SharedMutex)) == 0)) {
        void *pMem = mmap(nullptr, sizeof(SharedMutex), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
        if (pMem != MAP_FAILED) pShared = static_cast<SharedMutex *>(pMem);
    }
    if (pShared != nullptr && bNew) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(&pShared->mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        if (ftruncate(nFd, sizeof(SharedMutex) + 1) != 0) pShared = nullptr; // the size says that it is whole
    }
    // said aloud: the mapping keeps the open file, and so the lock, beyond the close
    if (nLocked == 0) flock(nFd, LOCK_UN);
    close(nFd);
    return pShared;
}

const OnUseMachine g_Reset([] { g_pShared.store(nullptr); });

} // namespace

ProfileLock::ProfileLock() : m_pMutex(nullptr)
{
    SharedMutex *pShared = g_pShared.load(std::memory_order_acquire);
    if (pShared == nullptr) {
        static std::mutex                &s_Mutex = *new std::mutex;
        const std::lock_guard<std::mutex> guard(s_Mutex);
        pShared = g_pShared.load();
        if (pShared == nullptr) g_pShared.store(pShared = MapShared());
        if (pShared == nullptr) return;
    }
    int nResult = pthread_mutex_lock(&pShared->mutex);
    if (nResult == EOWNERDEAD) nResult = pthread_mutex_consistent(&pShared->mutex);
    if (nResult == 0) m_pMutex = &pShared->mutex;
}

ProfileLock::~ProfileLock()
{
    if (m_pMutex != nullptr) pthread_mutex_unlock(static_cast<pthread_mutex_t *>(m_pMutex));
}

} // namespace hosted
