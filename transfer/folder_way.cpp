// folder_way.cpp: final paths compared.
// Between two links a walk goes down, so the folders on its way are those above the folder that holds the next link,
// and above each that held one before.
#include "transfer/folder_way.h"
#include "platform/path.h"
#include "platform/text.h"
#include <new>

using namespace platform;

struct EnteredLink {
    EnteredLink *pBefore;
    char16_t     szFolder[LONG_PATH_UNITS]; // the final path of the folder that holds it
};

bool IsFolderLink(const WIN32_FIND_DATAW *pEntry)
{
    constexpr uint32_t FOLDER_LINK = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    return (pEntry->dwFileAttributes & FOLDER_LINK) == FOLDER_LINK &&
           (pEntry->dwReserved0 & REPARSE_TAG_SURROGATE) != 0;
}

static bool ResolvePath(const char16_t *pszPath, char16_t (&szFinal)[LONG_PATH_UNITS])
{
    char16_t szLong[LONG_PATH_UNITS];
    return GetFinalPath(LongPathForm(pszPath, MAX_PATH, szLong), szFinal, LONG_PATH_UNITS);
}

// True when pszAbove is the folder itself or stands above it. A root ends with its backslash.
static bool IsAtOrAbove(const char16_t *pszAbove, const char16_t *pszFolder)
{
    const size_t cch = TextLengthW(pszAbove);
    if (cch == 0 || CompareTextNoCaseN_W(pszAbove, pszFolder, cch) != 0) return false;
    return pszFolder[cch] == u'\0' || pszFolder[cch] == u'\\' || pszAbove[cch - 1] == u'\\';
}

EnteredLink *EnterLink(EnteredLink *pWay, const char16_t *pszFolder, const char16_t *pszLink)
{
    char16_t szTarget[LONG_PATH_UNITS];
    auto    *pLink = new (std::nothrow) EnteredLink;
    if (pLink == nullptr) return nullptr;
    pLink->pBefore = pWay;
    bool bCircle   = !ResolvePath(pszLink, szTarget) || !ResolvePath(pszFolder, pLink->szFolder);
    for (const EnteredLink *p = pLink; p != nullptr && !bCircle; p = p->pBefore)
        bCircle = IsAtOrAbove(szTarget, p->szFolder);
    if (!bCircle) return pLink;
    delete pLink;
    return nullptr;
}

EnteredLink *LeaveLink(EnteredLink *pWay)
{
    EnteredLink *const pBefore = pWay->pBefore;
    delete pWay;
    return pBefore;
}
