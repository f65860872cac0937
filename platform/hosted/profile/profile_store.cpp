// profile_store.cpp: reading and changing INI files, whole against every other process of the machine.
// A reader trusts what it has in memory while the file's stamp and its shared generation stand; so reading a key again
// costs one look at the file's state. A change of a small file that does not shrink is one write of at most a page,
// which a process that is killed in the middle does not tear. Every other change makes a new file in run/ that takes
// the old one's place with its marks; only when another handle has the file open, or run/ is on another file system, is
// it written over. What a program outside the machine writes is seen by the stamp alone: where stamps are coarse, a
// change of the same length within one tick is not. A relative file name counts from C:\Windows, as on Windows.
#include "platform/hosted/profile/profile_store.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/utf.h"
#include "platform/hosted/profile/profile_lock.h"
#include "platform/text.h"
#include <cerrno>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <unistd.h>

namespace hosted {
namespace {

using namespace platform;

constexpr size_t MAX_FILES  = 8;
constexpr size_t MAX_MEMORY = 1 << 20; // of one file that is kept
constexpr size_t CB_PAGE    = 4096;

struct Kept {
    std::u16string sFull;
    uint64_t       nKey        = 0;
    uint32_t       nGeneration = 0;
    dev_t          nDevice     = 0;
    ino_t          nInode      = 0;
    off_t          cb          = -1;
    timespec       tChanged    = {};
    int            nFd         = -1;
    bool           bWritable   = false; // known not to be read-only
    ProfileText    text;
    Kept() = default;
    ~Kept()
    {
        if (nFd >= 0) close(nFd);
    }
    Kept(const Kept &)            = delete;
    Kept &operator=(const Kept &) = delete;
};

std::mutex &Mutex() // guards what follows
{
    static std::mutex &s_Mutex = *new std::mutex;
    return s_Mutex;
}
std::list<Kept> &Files() // most recently used first
{
    static auto &s_aFiles = *new std::list<Kept>;
    return s_aFiles;
}

const OnUseMachine g_Reset([] {
    const std::lock_guard<std::mutex> guard(Mutex());
    Files().clear();
});

bool IsCurrent(const Kept &kept, const struct stat &st)
{
    return kept.nDevice == st.st_dev && kept.nInode == st.st_ino && kept.cb == st.st_size &&
           kept.tChanged.tv_sec == st.st_mtim.tv_sec && kept.tChanged.tv_nsec == st.st_mtim.tv_nsec &&
           kept.nGeneration == Generation(Generations::Files, kept.nKey).load();
}

void TakeStamp(Kept &kept, const struct stat &st)
{
    kept.nDevice  = st.st_dev;
    kept.nInode   = st.st_ino;
    kept.cb       = st.st_size;
    kept.tChanged = st.st_mtim;
}

// [Mutex] The entry for a path, moved to the front; null when there is none.
Kept *FindKept(const std::u16string &sFull)
{
    for (auto it = Files().begin(); it != Files().end(); ++it) {
        if (it->sFull != sFull) continue;
        Files().splice(Files().begin(), Files(), it);
        return &Files().front();
    }
    return nullptr;
}

void Forget(const Kept *pKept)
{
    Files().remove_if([&](const Kept &kept) { return &kept == pKept; });
}

// [Mutex, profile lock] Reads the file anew. Null: *pdwError.
Kept *Load(const DiskPath &path, const Located &found, uint32_t *pdwError)
{
    if (Kept *pOld = FindKept(path.sFull)) Forget(pOld);
    Kept &kept       = Files().emplace_front();
    kept.sFull       = path.sFull;
    kept.nKey        = HashFolded(path.sFull);
    kept.nGeneration = Generation(Generations::Files, kept.nKey).load();
    kept.nFd         = open(found.sHost.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (kept.nFd < 0) kept.nFd = open(found.sHost.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    bool        bOk = kept.nFd >= 0 && fstat(kept.nFd, &st) == 0;
    if (bOk && !S_ISREG(st.st_mode)) {
        errno = EACCES;
        bOk   = false;
    }
    std::string sBytes(bOk ? static_cast<size_t>(st.st_size) : 0, '\0');
    size_t      cbRead = 0;
    while (bOk && cbRead < sBytes.size()) {
        const ssize_t cb = pread(kept.nFd, sBytes.data() + cbRead, sBytes.size() - cbRead, static_cast<off_t>(cbRead));
        if (cb < 0 && errno == EINTR) continue;
        if (cb == 0) break;
        bOk = cb > 0;
        if (bOk) cbRead += static_cast<size_t>(cb);
    }
    if (!bOk) {
        *pdwError = ErrorFromErrno(errno);
        Files().pop_front();
        return nullptr;
    }
    sBytes.resize(cbRead);
    kept.text.Load(sBytes);
    TakeStamp(kept, st);
    if (Files().size() > MAX_FILES) Files().pop_back();
    return &kept;
}

uint32_t FindFile(const char16_t *pszFile, DiskPath *pPath, Located *pFound)
{
    if (pszFile == nullptr || *pszFile == 0) return ERROR_FILE_NOT_FOUND; // win.ini, which no hosted machine has
    std::u16string sFile = pszFile;
    if (sFile.find_first_of(u"\\/:") == std::u16string::npos) sFile = u"C:\\Windows\\" + sFile;
    if (const uint32_t dwError = ParsePath(sFile.c_str(), pPath)) return dwError;
    if (const uint32_t dwError = Locate(*pPath, pFound)) return dwError;
    if (pFound->IsFolder() || pPath->bEndsInBackslash) return ERROR_ACCESS_DENIED;
    return 0;
}

// The whole text to a file from its start, cut at the end.
bool WriteText(int nFd, const std::string &sBytes)
{
    for (size_t cbDone = 0; cbDone < sBytes.size();) {
        const ssize_t cb = pwrite(nFd, sBytes.data() + cbDone, sBytes.size() - cbDone, static_cast<off_t>(cbDone));
        if (cb < 0 && errno == EINTR) continue;
        if (cb <= 0) return false;
        cbDone += static_cast<size_t>(cb);
    }
    return ftruncate(nFd, static_cast<off_t>(sBytes.size())) == 0;
}

// Puts a new file in the old one's place; false with errno.
bool WriteReplacement(Kept *pKept, const Located &found, const std::string &sBytes)
{
    const std::string sNew = RunFolder("") + "profile.new"; // one at a time: the profile lock is held
    struct stat       st;
    const int         nFd = open(sNew.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nFd < 0) return false;
    bool bOk = fstat(pKept->nFd, &st) == 0 && WriteText(nFd, sBytes) && fchmod(nFd, st.st_mode & 07777) == 0;
    if (bOk) {
        CopyMarks({"", pKept->nFd}, {"", nFd});
        bOk = rename(sNew.c_str(), found.sHost.c_str()) == 0;
    }
    if (!bOk) {
        const int nErrno = errno;
        unlink(sNew.c_str());
        close(nFd);
        errno = nErrno;
        return false;
    }
    close(pKept->nFd);
    pKept->nFd = nFd;
    return true;
}

uint32_t Store(Kept *pKept, const Located &found, const std::string &sBytes)
{
    bool bOk;
    if (sBytes.size() <= CB_PAGE && static_cast<off_t>(sBytes.size()) >= pKept->cb) {
        bOk = pwrite(pKept->nFd, sBytes.data(), sBytes.size(), 0) == static_cast<ssize_t>(sBytes.size());
    } else if (found.bLink || IsOpenAnywhere(pKept->nFd, found.st)) {
        bOk = WriteText(pKept->nFd, sBytes);
    } else {
        bOk = WriteReplacement(pKept, found, sBytes);
        if (!bOk && errno == EXDEV) bOk = WriteText(pKept->nFd, sBytes);
    }
    const uint32_t dwError = bOk ? 0 : ErrorFromErrno(errno);
    const uint32_t nBefore = Generation(Generations::Files, pKept->nKey).fetch_add(1);
    struct stat    st;
    if (!bOk || nBefore != pKept->nGeneration || fstat(pKept->nFd, &st) != 0 || pKept->text.MemoryUsed() > MAX_MEMORY) {
        Forget(pKept);
        return dwError;
    }
    pKept->nGeneration = nBefore + 1;
    TakeStamp(*pKept, st);
    return 0;
}

} // namespace

uint32_t ReadProfile(const char16_t *pszFile, const std::function<void(const ProfileText &)> &use)
{
    const std::lock_guard<std::mutex> guard(Mutex());
    DiskPath                          path;
    Located                           found;
    uint32_t                          dwError = FindFile(pszFile, &path, &found);
    if (dwError != 0) return dwError;
    if (!found.bExists) return ERROR_FILE_NOT_FOUND;
    Kept *pKept = FindKept(path.sFull);
    if (pKept == nullptr || !IsCurrent(*pKept, found.st)) {
        const ProfileLock lock;
        if (!lock.IsHeld()) return ERROR_ACCESS_DENIED;
        pKept = Load(path, found, &dwError);
        if (pKept == nullptr) return dwError;
    }
    dwError = TestSharing("", pKept->nFd, found.st, SHARE_READ, SHARE_READ | SHARE_WRITE);
    if (dwError == 0) use(pKept->text);
    if (pKept->text.MemoryUsed() > MAX_MEMORY) Forget(pKept);
    return dwError;
}

uint32_t ChangeProfile(const char16_t *pszFile, bool bMake, const std::function<bool(ProfileText *)> &change)
{
    const std::lock_guard<std::mutex> guard(Mutex());
    const ProfileLock                 lock;
    if (!lock.IsHeld()) return ERROR_ACCESS_DENIED;
    DiskPath path;
    Located  found;
    uint32_t dwError = FindFile(pszFile, &path, &found);
    if (dwError != 0) return dwError;
    if (!found.bExists) {
        if (!bMake) return 0;
        const int nFd = open(found.sHost.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (nFd < 0 && errno != EEXIST) return ErrorFromErrno(errno);
        if (nFd >= 0) close(nFd);
        dwError = FindFile(pszFile, &path, &found);
        if (dwError != 0 || !found.bExists) return dwError != 0 ? dwError : ERROR_FILE_NOT_FOUND;
    }
    Kept *pKept = FindKept(path.sFull);
    if (pKept == nullptr || !IsCurrent(*pKept, found.st)) pKept = Load(path, found, &dwError);
    if (pKept == nullptr) return dwError;
    if (!pKept->bWritable) {
        if ((AttributesOf({"", pKept->nFd}, found.st, found.bLink) & FILE_ATTRIBUTE_READONLY) != 0)
            return ERROR_ACCESS_DENIED;
        pKept->bWritable = true; // until the generation says that something has changed
    }
    dwError = TestSharing("", pKept->nFd, found.st, SHARE_READ | SHARE_WRITE, SHARE_READ | SHARE_WRITE);
    if (dwError != 0) return dwError;
    if (!change(&pKept->text)) return 0;
    const std::string sBytes = pKept->text.Bytes();
    if (!TakeRoom(path.Drive(), static_cast<int64_t>(sBytes.size()) - pKept->cb)) {
        Forget(pKept); // its text has the change
        return ERROR_DISK_FULL;
    }
    return Store(pKept, found, sBytes);
}

} // namespace hosted
