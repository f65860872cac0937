// folder_listing.cpp: a tree's files as a list, for transfers that send each of them by rules of their own.
#include "transfer/folder_listing.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "transfer/folder_way.h"
#include "transfer/incoming_file.h"
#include <new>

using namespace platform;

constexpr size_t LISTED_PATH_UNITS = 1024;

static int32_t ListFolder(char16_t (&szPath)[LISTED_PATH_UNITS], char16_t (&szLong)[LONG_PATH_UNITS],
                          int32_t bRecursive, StringList *pList, EnteredLink *pWay);

// szPath holds the subfolder, behind the cchFolder units of its parent. A link that leads back to where the listing is
// holds nothing that is not listed anyway.
static int32_t ListSubfolder(char16_t (&szPath)[LISTED_PATH_UNITS], size_t                cchFolder,
                             char16_t (&szLong)[LONG_PATH_UNITS], const WIN32_FIND_DATAW *pEntry, StringList *pList,
                             EnteredLink *pWay)
{
    if (!IsFolderLink(pEntry)) return ListFolder(szPath, szLong, 1, pList, pWay);
    char16_t szLink[LISTED_PATH_UNITS];
    CopyTextW(szLink, LISTED_PATH_UNITS, szPath);
    szPath[cchFolder]        = 0;
    EnteredLink *const pLink = EnterLink(pWay, szPath, szLink);
    CopyTextW(szPath, LISTED_PATH_UNITS, szLink);
    if (pLink == nullptr) return 0;
    const int32_t nRet = ListFolder(szPath, szLong, 1, pList, pLink);
    LeaveLink(pLink);
    return nRet;
}

// szPath holds the folder and is as it was on return; szLong is room to work in, so that a deep tree costs little
// stack. 1 listed, 0 not readable, -1 no memory, or the listing broke off.
static int32_t ListFolder(char16_t (&szPath)[LISTED_PATH_UNITS], char16_t (&szLong)[LONG_PATH_UNITS],
                          int32_t bRecursive, StringList *pList, EnteredLink *pWay)
{
    const size_t     cchFolder = TextLengthW(szPath);
    int32_t          nRet      = 1;
    WIN32_FIND_DATAW entry;
    if (!AppendTextW(szPath, LISTED_PATH_UNITS, u"\\*.*")) {
        szPath[cchFolder] = 0;
        return 0;
    }
    const HANDLE hFind = FindFirstFileW(LongPathForm(szPath, MAX_PATH, szLong), &entry);
    szPath[cchFolder]  = 0;
    if (hFind == INVALID_HANDLE_VALUE) return 0;
    do {
        const bool bFolder = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
        if (bFolder &&
            (!bRecursive || CompareTextW(entry.cFileName, u".") == 0 || CompareTextW(entry.cFileName, u"..") == 0))
            continue;
        if (AppendTextW(szPath, LISTED_PATH_UNITS, u"\\") && AppendTextW(szPath, LISTED_PATH_UNITS, entry.cFileName)) {
            if (bFolder) {
                if (ListSubfolder(szPath, cchFolder, szLong, &entry, pList, pWay) < 0) nRet = -1;
            } else if (!IsPartName(entry.cFileName) &&
                       AppendString(pList, szPath, static_cast<uint32_t>(TextLengthW(szPath)) + 1) == nullptr) {
                nRet = -1;
            }
        }
        szPath[cchFolder] = 0;
    } while (nRet > 0 && FindNextFileW(hFind, &entry));
    if (nRet > 0 && GetLastError() != ERROR_NO_MORE_FILES) nRet = -1;
    FindClose(hFind);
    return nRet;
}

int32_t ListFolderFiles(const char16_t *pszFolder, uint32_t dwOptions, int32_t bRecursive, StringList *pList)
{
    static_cast<void>(dwOptions);
    char16_t szPath[LISTED_PATH_UNITS];
    char16_t szLong[LONG_PATH_UNITS];
    return CopyTextW(szPath, LISTED_PATH_UNITS, pszFolder) ? ListFolder(szPath, szLong, bRecursive, pList, nullptr) : 0;
}
