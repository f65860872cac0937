// destination_limits.cpp: what is known of the peer's full disks, so that no file is sent that cannot fit.
#include "transfer/destination_limits.h"
#include "platform/text.h"
#include "transfer/file_queries.h"
#include <iterator>
#include <new>

using namespace platform;

DestinationLimit *FindDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey)
{
    if (pLimits == nullptr || pszKey == nullptr || pszKey[0] == 0) return nullptr;
    for (DestinationLimit *pLimit = pLimits->pFirst; pLimit != nullptr; pLimit = pLimit->pNext)
        if (CompareTextNoCaseW(pLimit->szKey, pszKey) == 0) return pLimit;
    return nullptr;
}

int32_t LowerDestinationLimit(DestinationLimits *pLimits, const char16_t *pszKey, int64_t llLimit)
{
    if (pLimits == nullptr || pszKey == nullptr || pszKey[0] == 0) return 1;
    DestinationLimit *pLimit = FindDestinationLimit(pLimits, pszKey);
    if (pLimit != nullptr) {
        if (llLimit < pLimit->llLimit) pLimit->llLimit = llLimit;
        return 1;
    }
    pLimit = new (std::nothrow) DestinationLimit;
    if (pLimit == nullptr) return 0;
    CopyTextW(pLimit->szKey, std::size(pLimit->szKey), pszKey);
    pLimit->llLimit = llLimit;
    pLimit->pNext   = pLimits->pFirst;
    pLimits->pFirst = pLimit;
    return 1;
}

bool IsRefusedByLimit(const DestinationLimit *pLimit, const char16_t *pszPath)
{
    if (pLimit == nullptr) return false;
    return pLimit->llLimit == 0 || GetFileSize64(pszPath) >= pLimit->llLimit;
}

void FreeDestinationLimits(DestinationLimits *pLimits)
{
    if (pLimits == nullptr) return;
    while (pLimits->pFirst != nullptr) {
        DestinationLimit *pNext = pLimits->pFirst->pNext;
        delete pLimits->pFirst;
        pLimits->pFirst = pNext;
    }
}
