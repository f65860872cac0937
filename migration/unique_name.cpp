// unique_name.cpp: names for files whose own name is taken at their destination.
#include "migration/unique_name.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"

using namespace platform;

constexpr uint32_t FIRST_NUMBER   = 2;
constexpr uint32_t LAST_NUMBER    = 4294967294;
constexpr size_t   NAME_UNITS_MAX = 255; // of one component, on every file system that the product writes to
constexpr size_t   NUMBER_UNITS   = 16;  // " (4294967294)"

// Opening without access finds a file whatever its rights and sharing. A folder does not open that way, but its name is
// no freer for it: a file written there would be lost.
static bool IsTaken(const char16_t *pszPath)
{
    char16_t        szLong[LONG_PATH_UNITS];
    const char16_t *pszLocal = LongPathForm(pszPath, MAX_PATH, szLong);
    HANDLE          hFile    = CreateFileW(pszLocal, 0, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) {
        CloseHandle(hFile);
        return true;
    }
    return GetFileAttributesW(pszLocal) != INVALID_FILE_ATTRIBUTES;
}

// How much of the base name can stay when a number joins it: all, unless name or path would grow past what can be made.
static size_t BaseUnits(const char16_t *pszBase, size_t cchBase, size_t cchFolder, size_t cchNumber,
                        size_t cchExtension)
{
    const size_t cchOther = cchNumber + cchExtension;
    size_t       cchRoom  = cchOther < NAME_UNITS_MAX ? NAME_UNITS_MAX - cchOther : 0;
    const size_t cchPath  = cchFolder + cchOther + 1;
    if (cchPath >= UNIQUE_PATH_UNITS) cchRoom = 0;
    else if (cchRoom > UNIQUE_PATH_UNITS - cchPath) cchRoom = UNIQUE_PATH_UNITS - cchPath;
    if (cchBase <= cchRoom) return cchBase;
    if (cchRoom > 0 && (pszBase[cchRoom - 1] & 0xFC00) == 0xD800) --cchRoom; // not half a character
    return cchRoom;
}

bool NumberFileName(const char16_t *pszPath, uint32_t nNumber, char16_t *pszNumbered)
{
    char16_t szFolder[UNIQUE_PATH_UNITS];
    char16_t szNumber[NUMBER_UNITS];
    if (nNumber < FIRST_NUMBER) return CopyTextW(pszNumbered, UNIQUE_PATH_UNITS, pszPath);

    CopyTextW(szFolder, UNIQUE_PATH_UNITS, pszPath);
    PathCchRemoveFileSpec(szFolder, UNIQUE_PATH_UNITS);
    if (PathCchAddBackslash(szFolder, UNIQUE_PATH_UNITS) < 0) return false;
    const char16_t *pszName      = PathFindFileNameW(pszPath);
    const char16_t *pszExtension = PathFindExtensionW(pszPath);
    size_t          cchName      = TextLengthW(pszName);
    size_t          cchBase      = cchName;
    while (cchBase > 0 && pszName[cchBase - 1] != u'.') --cchBase;
    cchBase = cchBase > 0 ? cchBase - 1 : cchName; // up to the last dot, or the whole name

    const int32_t cchNumber = FormatTextW(szNumber, NUMBER_UNITS, u" (%u)", nNumber);
    const size_t  cchKept =
        BaseUnits(pszName, cchBase, TextLengthW(szFolder), static_cast<size_t>(cchNumber), TextLengthW(pszExtension));
    return FormatTextW(pszNumbered, UNIQUE_PATH_UNITS, u"%s%.*s%s%s", szFolder, static_cast<int>(cchKept), pszName,
                       szNumber, pszExtension) >= 0;
}

uint32_t FindFreeFileName(const char16_t *pszPath, uint32_t nFirst, char16_t *pszFree)
{
    for (uint32_t n = nFirst; n <= LAST_NUMBER; ++n) {
        if (!NumberFileName(pszPath, n, pszFree)) return 0;
        if (!IsTaken(pszFree)) return n;
    }
    return 0;
}

int32_t MakeUniqueFileName(char16_t *pszPath)
{
    char16_t szFree[UNIQUE_PATH_UNITS];
    if (!IsTaken(pszPath) || FindFreeFileName(pszPath, FIRST_NUMBER, szFree) == 0) return 0;
    CopyTextW(pszPath, UNIQUE_PATH_UNITS, szFree);
    return 1;
}
