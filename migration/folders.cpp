// folders.cpp: folders with their missing parents.
// What counts is whether the folder exists afterwards. The calls that make it say "already exists" for a file of that
// name too, and two threads (or the service) may be making the same tree, so the answer is asked of the disk at the
// end.
#include "migration/folders.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"

using namespace platform;

constexpr char16_t LONG_PATH_PREFIX[] = u"\\\\?\\";
constexpr size_t   PREFIX_UNITS       = 4;
constexpr size_t   ROOT_UNITS         = 3; // "C:\"

static bool IsFolder(const char16_t *pszPath)
{
    const uint32_t dwAttributes = GetFileAttributesW(pszPath);
    return dwAttributes != INVALID_FILE_ATTRIBUTES && (dwAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Makes every level from the first missing one down. The buffer holds the "\\?\" form without trailing backslash and is
// as it was afterwards. A loop, not a recursion: the depth of a tree from outside must not decide the depth of the
// stack.
static uint32_t CreateLevels(char16_t *pszPath)
{
    const size_t cchPath = TextLengthW(pszPath);
    size_t       cch     = cchPath;
    // Up to the deepest folder that exists; what is cut off is put back on the way down.
    while (cch > PREFIX_UNITS + ROOT_UNITS) {
        pszPath[cch]       = u'\0';
        const bool bExists = IsFolder(pszPath);
        if (cch < cchPath) pszPath[cch] = u'\\';
        if (bExists) break;
        do {
            --cch;
        } while (cch > PREFIX_UNITS + ROOT_UNITS && pszPath[cch] != u'\\');
    }
    while (cch < cchPath) {
        do {
            ++cch;
        } while (cch < cchPath && pszPath[cch] != u'\\');
        const char16_t chKept = pszPath[cch];
        pszPath[cch]          = u'\0';
        const bool     bMade  = CreateDirectoryW(pszPath, nullptr) != FALSE;
        const uint32_t dwErr  = bMade ? ERROR_SUCCESS : GetLastError();
        pszPath[cch]          = chKept;
        if (!bMade && dwErr != ERROR_ALREADY_EXISTS) return dwErr;
    }
    return ERROR_SUCCESS;
}

int32_t CreateFolderTree(const char16_t *pszFolder)
{
    char16_t szPath[LONG_PATH_UNITS];
    uint32_t dwErr = ERROR_SUCCESS;
    if (pszFolder == nullptr || pszFolder[0] == u'\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const bool   bPrefixed = CompareTextNoCaseN_W(pszFolder, LONG_PATH_PREFIX, PREFIX_UNITS) == 0;
    const size_t cchRoot   = (bPrefixed ? PREFIX_UNITS : 0) + ROOT_UNITS;
    size_t       cch       = TextLengthW(pszFolder);
    while (cch > cchRoot && pszFolder[cch - 1] == u'\\') --cch;
    const bool bLong = bPrefixed || cch > FOLDER_PATH_UNITS;
    if (FormatTextW(szPath, LONG_PATH_UNITS, u"%s%.*s", bLong && !bPrefixed ? LONG_PATH_PREFIX : u"",
                    static_cast<int>(cch), pszFolder) < 0) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return 0;
    }
    dwErr = bLong ? CreateLevels(szPath) : static_cast<uint32_t>(CreateDirectoryWithParents(szPath));
    if (IsFolder(szPath)) return 1;
    SetLastError(dwErr == ERROR_SUCCESS ? static_cast<uint32_t>(ERROR_ALREADY_EXISTS) : dwErr);
    return 0;
}
