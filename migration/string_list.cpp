// string_list.cpp: the list of paths that the walks, the path map and the special transfers share.
// Almost every path fits the inline room, so that an entry is one allocation; the buffer of its own is for those that
// do not, and for callers that rewrite an entry in place and say beforehand how long it may become.
#include "migration/string_list.h"
#include "platform/text.h"
#include <new>

using namespace platform;

const char16_t *StringText(const StringEntry *pEntry)
{
    return pEntry->pszLong != nullptr ? pEntry->pszLong : pEntry->szInline;
}

char16_t *StringBuffer(StringEntry *pEntry, size_t *pcch)
{
    if (pcch != nullptr) *pcch = pEntry->pszLong != nullptr ? pEntry->cchLong : STRING_INLINE_UNITS;
    return pEntry->pszLong != nullptr ? pEntry->pszLong : pEntry->szInline;
}

StringEntry *AppendString(StringList *pList, const char16_t *pszText, uint32_t cchCapacity)
{
    StringEntry *pEntry = new (std::nothrow) StringEntry;
    size_t       cch    = STRING_INLINE_UNITS;
    if (pEntry == nullptr) return nullptr;
    pEntry->pPrevious   = pList->pLast;
    pEntry->pNext       = nullptr;
    pEntry->szInline[0] = 0;
    pEntry->pszLong     = nullptr;
    pEntry->cchLong     = 0;
    if (cchCapacity > STRING_INLINE_UNITS) {
        pEntry->pszLong = new (std::nothrow) char16_t[cchCapacity];
        if (pEntry->pszLong == nullptr) {
            delete pEntry;
            return nullptr;
        }
        pEntry->cchLong = cchCapacity;
    }
    char16_t *pszBuffer = StringBuffer(pEntry, &cch);
    CopyTextW(pszBuffer, cch, pszText);

    if (pList->pLast != nullptr) pList->pLast->pNext = pEntry;
    else pList->pFirst = pEntry;
    pList->pLast = pEntry;
    ++pList->nCount;
    return pEntry;
}

bool ContainsString(const StringList *pList, const char16_t *pszText)
{
    if (pList == nullptr || pszText == nullptr) return false;
    for (const StringEntry *pEntry = pList->pFirst; pEntry != nullptr; pEntry = pEntry->pNext)
        if (CompareTextNoCaseW(StringText(pEntry), pszText) == 0) return true;
    return false;
}

void FreeStringList(StringList *pList)
{
    if (pList == nullptr) return;
    for (StringEntry *pEntry = pList->pFirst; pEntry != nullptr;) {
        StringEntry *pNext = pEntry->pNext;
        delete[] pEntry->pszLong;
        delete pEntry;
        pEntry = pNext;
    }
    *pList = {};
}
