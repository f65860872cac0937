// data_sets.h: what the benchmark moves.
#pragma once
#include <cstdint>
#include <filesystem>
#include <string>

struct DataSet {
    const char *pszName;
    const char *pszWhat;
    uint64_t    nFiles;
    uint64_t    cb;
};
// L: one file of 2 GiB. S: 10,000 files of 4 KiB in 100 folders. M: 3,000 files, 600 MB, names in several scripts, ten
// levels deep. N: 100,000 files of 1 KiB in 1,000 folders. nDivisor makes each so much smaller. The folder is made
// anew.
DataSet MakeDataSet(char chSet, const std::filesystem::path &folder, uint64_t nDivisor);
// Takes what a run has made out of the way, emptied, into a folder of sWork; ForgetRetired removes it all.
void RetireFolder(const std::filesystem::path &folder, const std::string &sWork);
void ForgetRetired(const std::string &sWork);
