// folder_index.cpp: which names a folder holds, without regard to case.
// A look-up that misses must not read the whole folder: a migration makes tens of thousands of files in one folder, and
// each is looked for first. So the hashes of a folder's folded names are remembered; a hash that is not among them is
// absent, one that is there is looked for on disk. Hashes of removed names stay until the next scan: they cost that
// scan, never a wrong answer. An indexed folder is watched (folder_watch.h), so the index is as good as the folder; one
// that cannot be watched is scanned each time, and so is one of more than half a million names.
#include "platform/hosted/files/disk.h"
#include "platform/hosted/files/folder_watch.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

namespace hosted {
namespace {

constexpr size_t MAX_INDEXES = 512;
constexpr size_t MAX_HASHES  = 1 << 19; // of all indexes together: some 16 MiB

struct Index {
    uint64_t                     nLastUse = 0;
    std::unordered_set<uint32_t> aHashes;
};

std::mutex                             &g_Mutex    = *new std::mutex; // guards all below
std::unordered_map<std::string, Index> &g_aIndexes = *new std::unordered_map<std::string, Index>;
size_t                                  g_nHashes  = 0;
uint64_t                                g_nUses    = 0;

uint32_t NameHash(std::u16string_view sName)
{
    const uint64_t n = HashFolded(sName);
    return static_cast<uint32_t>(n ^ n >> 29);
}

void Add(Index &index, uint32_t nHash)
{
    g_nHashes += index.aHashes.insert(nHash).second;
}

void Drop(std::unordered_map<std::string, Index>::iterator it)
{
    g_nHashes -= it->second.aHashes.size();
    g_aIndexes.erase(it);
}

// Makes room, least recently used first; pKeep stays. False when that one alone is too large.
bool KeepBounds(const std::string &sKeep)
{
    while (g_aIndexes.size() > MAX_INDEXES || g_nHashes > MAX_HASHES) {
        auto itOldest = g_aIndexes.end();
        for (auto it = g_aIndexes.begin(); it != g_aIndexes.end(); ++it)
            if (it->first != sKeep && (itOldest == g_aIndexes.end() || it->second.nLastUse < itOldest->second.nLastUse))
                itOldest = it;
        if (itOldest == g_aIndexes.end()) return false;
        Drop(itOldest);
    }
    return true;
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
            if (it != g_aIndexes.end()) Add(it->second, NameHash(ToUtf16(pszName)));
            break;
        case FolderNews::Gone:
            if (it != g_aIndexes.end()) Drop(it);
            break;
        case FolderNews::Unknown:
            g_aIndexes.clear();
            g_nHashes = 0;
            break;
        }
    });
    if (g_nHashes > MAX_HASHES) KeepBounds("");
}

// Reads the folder into a new index and looks for one name on the way; of several, the first in byte order counts.
IndexAnswer Scan(const std::string &sFolder, std::u16string_view sName, std::string *psHostName)
{
    TakeNews();
    bool bIndexed = WatchFolder(sFolder); // before the scan: a change during it is told
    DIR *pDir     = opendir(sFolder.c_str());
    if (pDir == nullptr) return errno == ENOENT || errno == ENOTDIR ? IndexAnswer::NoFolder : IndexAnswer::Absent;
    const auto itOld = g_aIndexes.find(sFolder);
    if (itOld != g_aIndexes.end()) Drop(itOld);
    bool bFound = false;
    if (bIndexed) g_aIndexes[sFolder].nLastUse = ++g_nUses;
    while (const dirent *pEntry = readdir(pDir)) {
        const char *psz = pEntry->d_name;
        if (std::strcmp(psz, ".") == 0 || std::strcmp(psz, "..") == 0) continue;
        const std::u16string sEntry = ToUtf16(psz);
        if (EqualNames(sEntry, sName) && (!bFound || *psHostName > psz)) {
            *psHostName = psz;
            bFound      = true;
        }
        if (!bIndexed) continue;
        Add(g_aIndexes[sFolder], NameHash(sEntry));
        bIndexed = g_nHashes <= MAX_HASHES || KeepBounds(sFolder);
        if (!bIndexed) Drop(g_aIndexes.find(sFolder));
    }
    closedir(pDir);
    if (bIndexed) KeepBounds(sFolder);
    return bFound ? IndexAnswer::Present : IndexAnswer::Absent;
}

// [g_Mutex] The folder's index when it lacks the name, else null.
Index *IndexWithout(const std::string &sFolder, uint32_t nHash)
{
    auto it = g_aIndexes.find(sFolder);
    if (it == g_aIndexes.end() || it->second.aHashes.contains(nHash)) return nullptr; // no news takes a hash away
    TakeNews();
    it = g_aIndexes.find(sFolder);
    return it == g_aIndexes.end() || it->second.aHashes.contains(nHash) ? nullptr : &it->second;
}

const OnUseMachine g_Reset(DropIndexes);

} // namespace

IndexAnswer FindInFolder(const std::string &sFolder, std::u16string_view sName, std::string *psHostName)
{
    if (IndexLacks(sFolder, sName)) return IndexAnswer::Absent;
    const std::lock_guard<std::mutex> guard(g_Mutex);
    return Scan(sFolder, sName, psHostName);
}

bool IndexLacks(const std::string &sFolder, std::u16string_view sName)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    Index                            *pIndex = IndexWithout(sFolder, NameHash(sName));
    if (pIndex == nullptr) return false;
    pIndex->nLastUse = ++g_nUses;
    return true;
}

void IndexGains(const std::string &sFolder, std::u16string_view sName)
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    const auto                        it = g_aIndexes.find(sFolder);
    if (it != g_aIndexes.end()) Add(it->second, NameHash(sName));
}

void DropIndexes()
{
    const std::lock_guard<std::mutex> guard(g_Mutex);
    g_aIndexes.clear();
    g_nHashes = 0;
    UnwatchFolders();
}

} // namespace hosted
