// destination_limits.h: what is known of the peer's full disks, so that no file is sent that cannot fit.
// Thread   the walk's.
#pragma once
#include <cstdint>

// A destination key (a drive such as "D:", or a folder) and the size from which files for it are refused; 0 refuses
// all.
struct DestinationLimit {
    char16_t          szKey[260];
    int64_t           llLimit; // bytes
    DestinationLimit *pNext;
};
struct DestinationLimits { // zeroed: none
    DestinationLimit *pFirst;
};
// Null when there is none. Keys compare without regard to case.
DestinationLimit *FindDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey);
// Lowers the key's limit to llLimit, or adds it. An empty key is not added. 1, or 0 without memory.
int32_t LowerDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey, int64_t llLimit);
// True when the limit (null: none) refuses a file of that path.
bool IsRefusedByLimit(const DestinationLimit *pLimit, const char16_t *pszPath);
void FreeDestinationLimits(DestinationLimits *pLimits);
