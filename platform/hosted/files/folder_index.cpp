// folder_index.cpp: which names a folder holds, without regard to case.
// A look-up that misses must not read the whole folder: a migration makes tens of thousands of files in one folder, and
// each is looked for first. So the hashes of a folder's folded names are remembered; a hash that is not among them is
// absent, one that is there is looked for on disk. Hashes of removed names stay until the next scan: they cost that
// scan, never a wrong answer. An indexed folder is watched (folder_watch.h), so the index is as good as the folder.
// Where folders cannot be watched, an index is valid while the folder's time stamp and its shared generation stand;
// this process keeps both in step for what it adds itself. Where the kernel's stamps are coarse, a stamp that was young
// when it was taken does not show what a program outside the machine made in the same tick. Such an index is made anew
// before it is used, as often as the folder's size allows: a small folder each time, a large one after so many uses
// that the cost for each stays the same. Between, a name from outside is found by its exact case only.
// A folder of more than half a million names is scanned each time.
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/files/folder_watch.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace hosted {
namespace {

constexpr size_t  MAX_INDEXES  = 512;
constexpr size_t  MAX_HASHES   = 1 << 20; // slots of all indexes together: 4 MiB
constexpr size_t  SMALL_FOLDER = 64;
constexpr size_t  NAMES_A_USE  = 8;        // a scan of so many names is worth one use
constexpr int64_t TICK_NS      = 20000000; // two ticks of the slowest kernel clock

struct Index {
    bool                  bWatched    = false; // then the next six are not used
    dev_t                 nDevice     = 0;
    ino_t                 nInode      = 0;
    struct timespec       tChanged    = {};
    uint32_t              nGeneration = 0;
    uint64_t              nLastUse    = 0;
    bool                  bYoung      = false; // the stamp may hide a change
    size_t                nUses       = 0;     // since the scan
    size_t                nUsed       = 0;
    std::vector<uint32_t> aSlots; // open addressing; 0 is empty; a power of two
};

std::mutex                             &g_Mutex    = *new std::mutex; // guards all below
std::unordered_map<std::string, Index> &g_aIndexes = *new std::unordered_map<std::string, Index>;
size_t                                  g_nSlots   = 0;
uint64_t                                g_nUses    = 0;

uint32_t SlotHash(std::u16string_view sName)
{
    const uint64_t n = HashFolded(sName);
    const uint32_t h = static_cast<uint32_t>(n ^ n >> 29);
    return h == 0 ? 1 : h;
}

bool Holds(const Index &index, uint32_t nHash)
{
    if (index.aSlots.empty()) return false;
    const size_t nMask = index.aSlots.size() - 1;
    for (size_t i = nHash & nMask; index.aSlots[i] != 0; i = (i + 1) & nMask)
        if (index.aSlots[i] == nHash) return true;
    return false;
}

void Put(std::vector<uint32_t> &aSlots, uint32_t nHash)
{
    const size_t nMask = aSlots.size() - 1;
    size_t       i     = nHash & nMask;
    while (aSlots[i] != 0 && aSlots[i] != nHash) i = (i + 1) & nMask;
    aSlots[i] = nHash;
}

void Add(Index &index, uint32_t nHash)
{
    if (Holds(index, nHash)) return;
    if (index.nUsed * 2 >= index.aSlots.size()) {
        std::vector<uint32_t> aLarger(index.aSlots.empty() ? 16 : index.aSlots.size() * 2);
        for (const uint32_t n : index.aSlots)
            if (n != 0) Put(aLarger, n);
        g_nSlots += aLarger.size() - index.aSlots.size();
        index.aSlots = std::move(aLarger);
    }
    Put(index.aSlots, nHash);
    index.nUsed++;
}

void Drop(std::unordered_map<std::string, Index>::iterator it)
{
    g_nSlots -= it->second.aSlots.size();
    g_aIndexes.erase(it);
}

// Makes room, least recently used first; pKeep stays. False when that one alone is too large.
bool KeepBounds(const std::string &sKeep)
{
    while (g_aIndexes.size() > MAX_INDEXES || g_nSlots > MAX_HASHES) {
        auto itOldest = g_aIndexes.end();
        for (auto it = g_aIndexes.begin(); it != g_aIndexes.end(); ++it)
            if (it->first != sKeep && (itOldest == g_aIndexes.end() || it->second.nLastUse < itOldest->second.nLastUse))
                itOldest = it;
        if (itOldest == g_aIndexes.end()) return false;
        Drop(itOldest);
    }
    return true;
}

bool SameStamp(const Index &index, const struct stat &st)
{
    return index.nDevice == st.st_dev && index.nInode == st.st_ino && index.tChanged.tv_sec == st.st_mtim.tv_sec &&
           index.tChanged.tv_nsec == st.st_mtim.tv_nsec;
}

// [g_Mutex] True when two changes one after the other have different stamps if somebody has looked in between. Tried
// out once for each machine, where it keeps its own files; any other file system counts as coarse.
bool HasFineStamps(dev_t nDevice)
{
    static const char *s_pszTried = nullptr; // MachineFolder's result stays where it is
    static dev_t       s_nTried   = 0;
    static bool        s_bFine    = false;
    const char        *pszMachine = MachineFolder();
    if (s_pszTried != pszMachine) {
        const std::string sFolder = std::string(pszMachine) + "/run";
        const std::string sFile   = sFolder + "/stamp." + std::to_string(getpid());
        struct stat       st      = {};
        struct timespec   tBefore = {};
        s_bFine                   = true;
        for (int i = 0; i < 6; i++) {
            const int nFd = i % 2 == 0 ? open(sFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666) : -1;
            if (nFd >= 0) close(nFd);
            else unlink(sFile.c_str());
            if (stat(sFolder.c_str(), &st) != 0) s_bFine = false;
            if (st.st_mtim.tv_sec == tBefore.tv_sec && st.st_mtim.tv_nsec == tBefore.tv_nsec) s_bFine = false;
            tBefore = st.st_mtim;
        }
        s_nTried   = st.st_dev;
        s_pszTried = pszMachine;
    }
    return s_bFine && s_nTried == nDevice;
}

void SetStamp(Index &index, const struct stat &st)
{
    struct timespec tNow;
    clock_gettime(CLOCK_REALTIME, &tNow);
    const int64_t nSeconds = static_cast<int64_t>(tNow.tv_sec) - st.st_mtim.tv_sec;
    index.bYoung   = nSeconds * 1000000000 + tNow.tv_nsec - st.st_mtim.tv_nsec < TICK_NS && !HasFineStamps(st.st_dev);
    index.nDevice  = st.st_dev;
    index.nInode   = st.st_ino;
    index.tChanged = st.st_mtim;
}

std::atomic<uint32_t> &FolderGeneration(const std::string &sFolder)
{
    return Generation(Generations::Folders, HashBytes(sFolder));
}

bool EqualNames(std::u16string_view sLeft, std::u16string_view sRight)
{
    return sLeft.size() == sRight.size() &&
           platform::CompareTextNoCaseN_W(sLeft.data(), sRight.data(), sLeft.size()) == 0;
}

// [g_Mutex] Brings the indexes of watched folders up to date.
void TakeNews()
{
    TakeFolderNews([](FolderNews eNews, const std::string &sFolder, const char *pszName) {
        const auto it = g_aIndexes.find(sFolder);
        switch (eNews) {
        case FolderNews::Added:
            if (it != g_aIndexes.end()) Add(it->second, SlotHash(ToUtf16(pszName)));
            break;
        case FolderNews::Gone:
            if (it != g_aIndexes.end()) Drop(it);
            break;
        case FolderNews::Unknown:
            g_aIndexes.clear();
            g_nSlots = 0;
            break;
        }
    });
    if (g_nSlots > MAX_HASHES) KeepBounds("");
}

// Reads the folder into a new index and looks for one name on the way; of several, the first in byte order counts.
IndexAnswer Scan(const std::string &sFolder, std::u16string_view sName, std::string *psHostName)
{
    struct stat    st;
    const uint32_t nGeneration =
        FolderGeneration(sFolder).load(); // before the scan: a change during it voids the index
    TakeNews();
    const bool bWatched = WatchFolder(sFolder); // before the scan, for the same reason
    if (!bWatched && (stat(sFolder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) return IndexAnswer::NoFolder;
    DIR *pDir = opendir(sFolder.c_str());
    if (pDir == nullptr) return errno == ENOENT || errno == ENOTDIR ? IndexAnswer::NoFolder : IndexAnswer::Absent;
    const auto itOld = g_aIndexes.find(sFolder);
    if (itOld != g_aIndexes.end()) Drop(itOld);
    Index &index      = g_aIndexes[sFolder];
    bool   bFound     = false;
    bool   bIndexed   = true;
    index.bWatched    = bWatched;
    index.nGeneration = nGeneration;
    index.nLastUse    = ++g_nUses;
    if (!bWatched) SetStamp(index, st);
    while (const dirent *pEntry = readdir(pDir)) {
        const char *psz = pEntry->d_name;
        if (strcmp(psz, ".") == 0 || strcmp(psz, "..") == 0) continue;
        const std::u16string sEntry = ToUtf16(psz);
        if (EqualNames(sEntry, sName) && (!bFound || *psHostName > psz)) {
            *psHostName = psz;
            bFound      = true;
        }
        if (bIndexed) Add(index, SlotHash(sEntry));
        if (bIndexed && g_nSlots > MAX_HASHES) bIndexed = KeepBounds(sFolder);
    }
    closedir(pDir);
    if (!bIndexed || !KeepBounds(sFolder)) Drop(g_aIndexes.find(sFolder));
    return bFound ? IndexAnswer::Present : IndexAnswer::Absent;
}

// [g_Mutex] The folder's index, if there is one that is valid. bYoungToo: one whose stamp is young will do, for one who
// makes the name next and is told if it was there.
Index *ValidIndex(const std::string &sFolder, bool bYoungToo)
{
    auto it = g_aIndexes.find(sFolder);
    if (it == g_aIndexes.end()) return nullptr;
    if (it->second.bWatched) {
        TakeNews();
        it = g_aIndexes.find(sFolder);
        return it == g_aIndexes.end() ? nullptr : &it->second;
    }
    Index      &index = it->second;
    struct stat st;
    index.nUses++;
    if (index.bYoung && !bYoungToo && (index.nUsed <= SMALL_FOLDER || index.nUses * NAMES_A_USE >= index.nUsed))
        return nullptr;
    const bool bValid = index.nGeneration == FolderGeneration(sFolder).load() && stat(sFolder.c_str(), &st) == 0 &&
                        SameStamp(index, st);
    return bValid ? &index : nullptr;
}

// After a change of this process: counts it for the others, and takes the folder's new stamp over when the index was
// valid just before. Otherwise the new stamp could hide what somebody else has changed.
void Changed(const std::string &sFolder, bool bWasValid, const uint32_t *pnHash)
{
    const uint32_t                    nBefore = FolderGeneration(sFolder).fetch_add(1);
    const std::lock_guard<std::mutex> guard(g_Mutex);
    const auto                        it = g_aIndexes.find(sFolder);
    if (it == g_aIndexes.end() || it->second.bWatched) return; // what is watched will be told
    struct stat st;
    if (!bWasValid || it->second.nGeneration != nBefore || stat(sFolder.c_str(), &st) != 0) {
        Drop(it);
        return;
    }
    it->second.nGeneration = nBefore + 1;
    SetStamp(it->second, st);
    if (pnHash != nullptr) Add(it->second, *pnHash);
    if (g_nSlots > MAX_HASHES) KeepBounds("");
}

const OnUseMachine g_Reset(DropIndexes);

} // namespace

IndexAnswer FindInFolder(const std::string &sFolder, std::u16string_view sName, std::string *psHostName)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    Index                            *pIndex = ValidIndex(sFolder, false);
    if (pIndex == nullptr || Holds(*pIndex, SlotHash(sName))) return Scan(sFolder, sName, psHostName);
    pIndex->nLastUse = ++g_nUses;
    return IndexAnswer::Absent;
}

bool IndexLacks(const std::string &sFolder, std::u16string_view sName, bool bToMake)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    const auto                        it    = g_aIndexes.find(sFolder);
    const uint32_t                    nHash = SlotHash(sName);
    if (it == g_aIndexes.end() || (!bToMake && !it->second.bWatched) || Holds(it->second, nHash)) return false;
    Index *pIndex = ValidIndex(sFolder, true);
    if (pIndex == nullptr || Holds(*pIndex, nHash)) return false;
    pIndex->nLastUse = ++g_nUses;
    return true;
}

bool IndexIsValid(const std::string &sFolder)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    const auto                        it = g_aIndexes.find(sFolder);
    return it != g_aIndexes.end() && (it->second.bWatched || ValidIndex(sFolder, false) != nullptr);
}

void IndexAdded(const std::string &sFolder, bool bWasValid, std::string_view sHostName)
{
    const uint32_t nHash = SlotHash(ToUtf16(sHostName));
    Changed(sFolder, bWasValid, &nHash);
}

void IndexRemoved(const std::string &sFolder, bool bWasValid) { Changed(sFolder, bWasValid, nullptr); }

void DropIndexes()
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    g_aIndexes.clear();
    g_nSlots = 0;
    UnwatchFolders();
}

} // namespace hosted
