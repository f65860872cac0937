// data_sets.cpp: contents are pseudo-random, so that nothing on the way can compress them; the same at every run.
#include "bench/data_sets.h"
#include <algorithm>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

static std::mt19937_64 g_Random(20);

static void MakeFile(const fs::path &path, uint64_t cb)
{
    static std::vector<uint64_t> s_block(1 << 17);
    for (size_t i = 0; i < std::min<uint64_t>(s_block.size(), cb / 8 + 1); i++) s_block[i] = g_Random();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (uint64_t nDone = 0; nDone < cb;) {
        const uint64_t cbPart = std::min<uint64_t>(cb - nDone, s_block.size() * 8);
        file.write(reinterpret_cast<const char *>(s_block.data()), static_cast<std::streamsize>(cbPart));
        nDone += cbPart;
    }
}

static DataSet MakeMany(const fs::path &folder, const char *pszName, const char *pszWhat, uint64_t nFolders,
                        uint64_t nEach, uint64_t cbEach)
{
    for (uint64_t d = 0; d < nFolders; d++) {
        const fs::path below = folder / ("folder " + std::to_string(d));
        fs::create_directories(below);
        for (uint64_t i = 0; i < nEach; i++) MakeFile(below / ("file " + std::to_string(i) + ".dat"), cbEach);
    }
    return {pszName, pszWhat, nFolders * nEach, nFolders * nEach * cbEach};
}

static DataSet MakeMixed(const fs::path &folder, uint64_t nDivisor)
{
    static const char *const apszNames[] = {"report", "отчёт",  "報告",   "αναφορά",
                                            "تقرير",  "résumé", "रिपोर्ट", "보고서"};
    const uint64_t           nFiles      = 3000 / nDivisor;
    uint64_t                 cbAll       = 0;
    for (uint64_t i = 0; i < nFiles; i++) {
        fs::path below = folder;
        for (uint64_t nLevel = 0; nLevel < i % 10 + 1; nLevel++)
            below /= std::string(apszNames[(i / 10 + nLevel) % 8]) + " " + std::to_string(nLevel);
        fs::create_directories(below);
        // mostly small, some of a few hundred KB, a few large: 600 MB in all
        const uint64_t cb = i % 100 == 0 ? 12000000 : i % 10 == 0 ? 600000 : 1000 + g_Random() % 50000;
        MakeFile(below / (std::string(apszNames[i % 8]) + " " + std::to_string(i) + ".bin"), cb);
        cbAll += cb;
    }
    return {"M", "mixed profile, ten levels, many scripts", nFiles, cbAll};
}

DataSet MakeDataSet(char chSet, const fs::path &folder, uint64_t nDivisor)
{
    fs::remove_all(folder);
    fs::create_directories(folder);
    if (chSet == 'L') {
        MakeFile(folder / "large.bin", (2ULL << 30) / nDivisor);
        return {"L", "one large file", 1, (2ULL << 30) / nDivisor};
    }
    if (chSet == 'S') return MakeMany(folder, "S", "small files of 4 KiB", 100, 100 / nDivisor, 4096);
    if (chSet == 'N') return MakeMany(folder, "N", "very many files of 1 KiB", 1000 / nDivisor, 100, 1024);
    return MakeMixed(folder, nDivisor);
}

// Its inodes stay until the data set is done: ext4 without a journal passes over every inode that was freed in the last
// minutes, one by one, so that a run would pay for the one before it.
void RetireFolder(const fs::path &folder, const std::string &sWork)
{
    static int      s_nRetired = 0;
    const fs::path  retired    = fs::path(sWork) / "retired" / std::to_string(s_nRetired++);
    std::error_code error;
    if (!fs::exists(folder)) return;
    fs::create_directories(retired.parent_path());
    fs::rename(folder, retired);
    for (const auto &entry : fs::recursive_directory_iterator(retired))
        if (entry.is_regular_file()) fs::resize_file(entry.path(), 0, error);
}

void ForgetRetired(const std::string &sWork)
{
    std::error_code error;
    fs::remove_all(fs::path(sWork) / "retired", error);
}
