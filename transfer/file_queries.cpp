// file_queries.cpp: what walks ask of a file or folder before they send it.
#include "transfer/file_queries.h"
#include "platform/files.h"
#include "platform/path.h"

using namespace platform;

static bool QueryAttributes(const char16_t *pszPath, WIN32_FILE_ATTRIBUTE_DATA *pData)
{
    char16_t szLong[LONG_PATH_UNITS];
    return GetFileAttributesExW(LongPathForm(pszPath, MAX_PATH, szLong), GetFileExInfoStandard, pData) != FALSE;
}

bool IsFolderReadOnly(const char16_t *pszFolder)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    return QueryAttributes(pszFolder, &data) && (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
}

int64_t GetFileSize64(const char16_t *pszPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!QueryAttributes(pszPath, &data)) return 0;
    return static_cast<int64_t>(static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow);
}
