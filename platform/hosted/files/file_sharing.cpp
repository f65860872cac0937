// file_sharing.cpp: the sharing modes between the open handles of all processes.
// Each open file description holds one byte-range lock, far beyond the end of any file, at the place that its access
// and its sharing name; the kernel releases it with the description, however the process ends. A newcomer takes its own
// place first and then looks for others, so that of two that come at once at least one sees the other. Both may: then
// each steps back for a moment that differs, and tries again. A shared count of open handles saves the look in the
// usual case that nobody else has the file.
#include "platform/errors.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr off_t LOCK_BASE = 0x4000000000000000;
constexpr int   PLACES    = 64; // access * 8 + sharing
constexpr int   TRIES     = 4;

bool Conflicts(unsigned nAccess, unsigned nShare, unsigned nOtherAccess, unsigned nOtherShare)
{
    return (nAccess & ~nOtherShare & 7) != 0 || (nOtherAccess & ~nShare & 7) != 0;
}

int SetLock(int nFd, short nType, off_t nPlace)
{
    struct flock lock = {};
    lock.l_type       = nType;
    lock.l_whence     = SEEK_SET;
    lock.l_start      = LOCK_BASE + nPlace;
    lock.l_len        = 1;
    return fcntl(nFd, F_OFD_SETLK, &lock);
}

// True when another description holds a place in the range.
bool SomebodyAt(int nFd, off_t nPlace, off_t nCount)
{
    struct flock lock = {};
    lock.l_type       = F_WRLCK;
    lock.l_whence     = SEEK_SET;
    lock.l_start      = LOCK_BASE + nPlace;
    lock.l_len        = nCount;
    return fcntl(nFd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool IsInConflict(int nFd, unsigned nAccess, unsigned nShare)
{
    if (!SomebodyAt(nFd, 0, PLACES)) return false; // the usual answer costs one call
    for (unsigned i = 0; i < PLACES; i++)
        if (Conflicts(nAccess, nShare, i >> 3, i & 7) && SomebodyAt(nFd, i, 1)) return true;
    return false;
}

} // namespace

std::atomic<uint32_t> &OpenCount(const struct stat &st)
{
    uint64_t n = static_cast<uint64_t>(st.st_ino) * 0x9E3779B97F4A7C15u + static_cast<uint64_t>(st.st_dev);
    return Generation(Generations::Opens, n ^ n >> 32);
}

// The lock comes before the count: of two newcomers the one that counts second finds the other's lock.
uint32_t JoinSharing(int nFd, std::atomic<uint32_t> &nOpen, unsigned nAccess, unsigned nShare, bool bNew)
{
    const off_t nPlace = static_cast<off_t>(nAccess << 3 | (nShare & 7));
    for (int i = 0; i < TRIES; i++) {
        if (SetLock(nFd, F_RDLCK, nPlace) != 0) {
            const int nErrno = errno;
            return nErrno == EINVAL || nErrno == ENOLCK ? platform::ERROR_NOT_SUPPORTED : ErrorFromErrno(nErrno);
        }
        const uint32_t nOthers = nOpen.fetch_add(1);
        if (bNew || nOthers == 0 || !IsInConflict(nFd, nAccess, nShare)) return 0;
        nOpen.fetch_sub(1);
        SetLock(nFd, F_UNLCK, nPlace);
        usleep(static_cast<useconds_t>(20 + (getpid() * 7 + nFd * 13 + i * 31) % 100));
    }
    return platform::ERROR_SHARING_VIOLATION;
}

uint32_t TestSharing(const char *pszHost, int nFd, const struct stat &st, unsigned nAccess, unsigned nShare)
{
    if (OpenCount(st).load() == 0) return 0;
    const int nLook = nFd >= 0 ? nFd : open(pszHost, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (nLook < 0) return 0; // the operation itself will say why
    const bool bConflict = IsInConflict(nLook, nAccess, nShare);
    if (nFd < 0) close(nLook);
    return bConflict ? platform::ERROR_SHARING_VIOLATION : 0;
}

bool IsOpenAnywhere(int nFd, const struct stat &st)
{
    return OpenCount(st).load() != 0 && SomebodyAt(nFd, 0, PLACES);
}

} // namespace hosted
