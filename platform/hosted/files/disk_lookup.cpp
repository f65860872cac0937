// disk_lookup.cpp: from a parsed path to the file behind it.
// The host path of a folder, once found, is remembered under the text it was asked by; it is tried first and looked for
// anew when it is not there any more. A name in the exact case therefore costs one call of the host.
#include "platform/errors.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/sysmacros.h>
#include <unordered_map>

namespace hosted {
namespace {

constexpr size_t MAX_FOLDERS = 1024;

std::mutex                                      &g_Mutex    = *new std::mutex;
std::unordered_map<std::u16string, std::string> &g_aFolders = *new std::unordered_map<std::u16string, std::string>;
std::atomic<uint32_t>                            g_nForgotten{0}; // how often

bool Remembered(const std::u16string &sFull, std::string *psHost)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    const auto                        it = g_aFolders.find(sFull);
    if (it == g_aFolders.end()) return false;
    *psHost = it->second;
    return true;
}

void Remember(const std::u16string &sFull, const std::string &sHost)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    if (g_aFolders.size() >= MAX_FOLDERS) g_aFolders.clear();
    g_aFolders[sFull] = sHost;
}

// The host folder behind "C:\a\b". *pbRemembered: not looked at on disk. 0 or ERROR_PATH_NOT_FOUND.
uint32_t FindFolder(const std::u16string &sFull, std::string *psHost, bool *pbRemembered)
{
    if (Remembered(sFull, psHost)) {
        *pbRemembered = true;
        return 0;
    }
    if (sFull.size() <= 3) {
        *psHost = DriveFolder(static_cast<char>(sFull[0]));
        if (psHost->empty()) return platform::ERROR_PATH_NOT_FOUND;
        Remember(sFull, *psHost);
        return 0;
    }
    const size_t nAt = sFull.rfind(u'\\');
    std::string  sParent;
    if (const uint32_t dwError = FindFolder(sFull.substr(0, nAt < 3 ? 3 : nAt), &sParent, pbRemembered)) return dwError;
    const std::u16string_view sName = std::u16string_view(sFull).substr(nAt + 1);
    std::string               sHost = sParent + '/' + HostName(sName);
    struct stat               st;
    if (lstat(sHost.c_str(), &st) != 0) {
        std::string sStored;
        if ((errno != ENOENT && errno != ENOTDIR) || FindInFolder(sParent, sName, &sStored) != IndexAnswer::Present)
            return platform::ERROR_PATH_NOT_FOUND;
        sHost = sParent + '/' + sStored;
    }
    *psHost = std::move(sHost);
    Remember(sFull, *psHost);
    return 0;
}

struct timespec TimeOf(const struct statx_timestamp &t)
{
    struct timespec ts = {};
    ts.tv_sec          = static_cast<time_t>(t.tv_sec);
    ts.tv_nsec         = static_cast<long>(t.tv_nsec);
    return ts;
}

bool LookAt(const std::string &sHost, int nFlags, Located *pFound)
{
    struct statx sx;
    if (statx(AT_FDCWD, sHost.c_str(), nFlags, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0) return false;
    pFound->st         = {};
    pFound->st.st_mode = sx.stx_mode;
    pFound->st.st_dev  = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    pFound->st.st_ino  = sx.stx_ino;
    pFound->st.st_size = static_cast<off_t>(sx.stx_size);
    pFound->st.st_atim = TimeOf(sx.stx_atime);
    pFound->st.st_mtim = TimeOf(sx.stx_mtime);
    pFound->st.st_ctim = TimeOf(sx.stx_ctime);
    pFound->tCreated   = (sx.stx_mask & STATX_BTIME) != 0 ? TimeOf(sx.stx_btime) : pFound->st.st_mtim;
    return true;
}

thread_local std::string t_sSeenFile; // what this thread looked at last, when that was a plain file

// Where a name is in its exact case: the host folder and the path in it. What a thread asked for last is kept, since
// most names are asked for several times in a row. *pbRemembered: not looked at on disk. 0 or ERROR_PATH_NOT_FOUND.
uint32_t FindPlace(const std::u16string &sFull, size_t nLeaf, Located *pFound, bool *pbRemembered)
{
    struct Place {
        std::u16string sFull;
        uint32_t       nForgotten = 0;
        std::string    sFolder, sHost;
    };
    constexpr size_t           KEPT = 4;
    static thread_local Place  t_aPlaces[KEPT];
    static thread_local size_t t_nNext    = 0;
    const uint32_t             nForgotten = g_nForgotten.load();
    for (const Place &place : t_aPlaces) {
        if (place.nForgotten != nForgotten || !SameUnits(place.sFull, sFull)) continue;
        pFound->sFolder = place.sFolder;
        pFound->sHost   = place.sHost;
        *pbRemembered   = true;
        return 0;
    }
    if (const uint32_t dwError =
            FindFolder(sFull.substr(0, nLeaf <= 3 ? 3 : nLeaf - 1), &pFound->sFolder, pbRemembered))
        return dwError;
    const std::u16string_view sName = std::u16string_view(sFull).substr(nLeaf);
    pFound->sHost.reserve(pFound->sFolder.size() + sName.size() + 8);
    pFound->sHost = pFound->sFolder;
    pFound->sHost += '/';
    pFound->sHost += HostName(sName);
    t_aPlaces[t_nNext++ % KEPT] = {sFull, nForgotten, pFound->sFolder, pFound->sHost};
    return 0;
}

uint32_t LocateOnce(const DiskPath &path, Located *pFound, bool *pbRemembered)
{
    pFound->bExists = false;
    if (path.IsRoot()) {
        if (const uint32_t dwError = FindFolder(path.sFull, &pFound->sHost, pbRemembered)) return dwError;
        pFound->sFolder = pFound->sHost;
        if (Look(pFound)) return 0;
        return platform::ERROR_PATH_NOT_FOUND;
    }
    const size_t nLeaf = path.LeafAt();
    if (const uint32_t dwError = FindPlace(path.sFull, nLeaf, pFound, pbRemembered)) return dwError;
    const std::u16string_view sName = std::u16string_view(path.sFull).substr(nLeaf);
    // the index knows a long name by what it is called on the host
    const bool bLong =
        pFound->sHost.compare(pFound->sFolder.size() + 1, LONG_NAME_PREFIX.size(), LONG_NAME_PREFIX) == 0;
    if ((!bLong && IndexLacks(pFound->sFolder, sName)) || Look(pFound)) return 0;
    if (errno == ENAMETOOLONG) return platform::ERROR_FILENAME_EXCED_RANGE; // the host's limit for a whole path
    if (errno != ENOENT) return errno == ENOTDIR ? platform::ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno);
    std::string sStored;
    switch (FindInFolder(pFound->sFolder, sName, &sStored)) {
    case IndexAnswer::NoFolder: return platform::ERROR_PATH_NOT_FOUND;
    case IndexAnswer::Absent: return 0;
    case IndexAnswer::Present: break;
    }
    std::string sWanted = std::move(pFound->sHost);
    pFound->sHost       = pFound->sFolder + '/' + sStored;
    if (!Look(pFound)) pFound->sHost = std::move(sWanted); // it went in between
    return 0;
}

const OnUseMachine g_Reset(ForgetFolders);

} // namespace

bool Look(Located *pFound)
{
    pFound->bLink = false;
    t_sSeenFile.clear();
    if (!LookAt(pFound->sHost, AT_SYMLINK_NOFOLLOW, pFound)) return false;
    if (S_ISLNK(pFound->st.st_mode)) {
        pFound->bLink = true;
        LookAt(pFound->sHost, 0, pFound);
    } else if (S_ISREG(pFound->st.st_mode)) {
        t_sSeenFile = pFound->sHost;
    }
    pFound->bExists = true;
    return true;
}

uint32_t Locate(const DiskPath &path, Located *pFound)
{
    bool     bRemembered = false;
    uint32_t dwError     = LocateOnce(path, pFound, &bRemembered);
    if (dwError == platform::ERROR_PATH_NOT_FOUND && bRemembered) {
        ForgetFolders();
        dwError = LocateOnce(path, pFound, &bRemembered);
    }
    return dwError;
}

bool LocateSeenFile(const DiskPath &path, Located *pFound)
{
    bool bRemembered = false;
    return !t_sSeenFile.empty() && !path.IsRoot() && FindPlace(path.sFull, path.LeafAt(), pFound, &bRemembered) == 0 &&
           pFound->sHost == t_sSeenFile;
}

void ForgetFolders()
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    g_aFolders.clear();
    g_nForgotten++;
}

} // namespace hosted
