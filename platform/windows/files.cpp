// files.cpp: files and folders, forwarded.
// Two operations do more than forward:
//   CreateDirectoryWithParents  holds the shell's documented limit of 248 units itself, since releases differ in where
//                               they begin to refuse; the shell's function is bound at run time, from the api set where
//                               the system has it (Windows 8 and later), else from shell32.
//   strcpy_s                    decides the refusals here: the run-time library would call its invalid-parameter
//                               handler, which ends the process.
#include "platform/files.h"
#include "platform/tool_seam.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(GENERIC_READ) X(GENERIC_WRITE) X(FILE_APPEND_DATA) X(READ_CONTROL) X(FILE_SHARE_READ) X(FILE_SHARE_WRITE)        \
    X(FILE_SHARE_DELETE) X(CREATE_NEW) X(CREATE_ALWAYS) X(OPEN_EXISTING)           \
    X(FILE_ATTRIBUTE_READONLY) X(FILE_ATTRIBUTE_HIDDEN) X(FILE_ATTRIBUTE_SYSTEM) X(FILE_ATTRIBUTE_DIRECTORY)           \
    X(FILE_ATTRIBUTE_ARCHIVE) X(FILE_ATTRIBUTE_NORMAL) X(FILE_ATTRIBUTE_REPARSE_POINT)                                 \
    X(FILE_ATTRIBUTE_NOT_CONTENT_INDEXED) X(INVALID_FILE_ATTRIBUTES)                                                   \
    X(FILE_FLAG_OVERLAPPED) X(FILE_FLAG_BACKUP_SEMANTICS) X(FILE_FLAG_SEQUENTIAL_SCAN) X(FILE_BEGIN)   \
    X(MOVEFILE_REPLACE_EXISTING) X(IO_REPARSE_TAG_SYMLINK)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include "platform/windows/bind.h"

#include <cerrno>
#include <cstring>
#include <io.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
static_assert(IsReparseTagNameSurrogate(platform::REPARSE_TAG_SURROGATE));
static_assert(static_cast<int>(platform::GetFileExInfoStandard) == static_cast<int>(::GetFileExInfoStandard));
MIRROR_SIZE(FILETIME)
MIRROR_FIELD(FILETIME, dwLowDateTime)
MIRROR_FIELD(FILETIME, dwHighDateTime)
MIRROR_SIZE(OVERLAPPED)
MIRROR_FIELD(OVERLAPPED, Internal)
MIRROR_FIELD(OVERLAPPED, InternalHigh)
static_assert(offsetof(platform::OVERLAPPED, Offset) == offsetof(::OVERLAPPED, Pointer), "one 64-bit offset");
MIRROR_FIELD(OVERLAPPED, hEvent)
MIRROR_SIZE(WIN32_FILE_ATTRIBUTE_DATA)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, dwFileAttributes)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, ftCreationTime)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, ftLastAccessTime)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, ftLastWriteTime)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, nFileSizeHigh)
MIRROR_FIELD(WIN32_FILE_ATTRIBUTE_DATA, nFileSizeLow)
MIRROR_SIZE(WIN32_FIND_DATAW)
MIRROR_FIELD(WIN32_FIND_DATAW, dwFileAttributes)
MIRROR_FIELD(WIN32_FIND_DATAW, ftCreationTime)
MIRROR_FIELD(WIN32_FIND_DATAW, ftLastAccessTime)
MIRROR_FIELD(WIN32_FIND_DATAW, ftLastWriteTime)
MIRROR_FIELD(WIN32_FIND_DATAW, nFileSizeHigh)
MIRROR_FIELD(WIN32_FIND_DATAW, nFileSizeLow)
MIRROR_FIELD(WIN32_FIND_DATAW, dwReserved0)
MIRROR_FIELD(WIN32_FIND_DATAW, dwReserved1)
MIRROR_FIELD(WIN32_FIND_DATAW, cFileName)
MIRROR_FIELD(WIN32_FIND_DATAW, cAlternateFileName)
} // namespace mirror

namespace platform {

static LARGE_INTEGER *AsSdk(int64_t *pcb)
{
    static_assert(sizeof(LARGE_INTEGER) == sizeof(int64_t));
    return reinterpret_cast<LARGE_INTEGER *>(pcb);
}

static ::OVERLAPPED *AsSdk(OVERLAPPED *pOverlapped)
{
    return reinterpret_cast<::OVERLAPPED *>(pOverlapped);
}

static ::WIN32_FIND_DATAW *AsSdk(WIN32_FIND_DATAW *pFindData)
{
    return reinterpret_cast<::WIN32_FIND_DATAW *>(pFindData);
}

HANDLE CreateFileW(const char16_t *pszFileName, uint32_t dwDesiredAccess, uint32_t dwShareMode,
                   SECURITY_ATTRIBUTES *pSecurity, uint32_t dwCreationDisposition, uint32_t dwFlagsAndAttributes,
                   HANDLE hTemplateFile)
{
    return ::CreateFileW(AsWide(pszFileName), dwDesiredAccess, dwShareMode, AsSdk(pSecurity), dwCreationDisposition,
                         dwFlagsAndAttributes, hTemplateFile);
}

BOOL ReadFile(HANDLE hFile, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead, OVERLAPPED *pOverlapped)
{
    return ::ReadFile(hFile, pBuffer, cbToRead, AsSdk(pcbRead), AsSdk(pOverlapped));
}

BOOL WriteFile(HANDLE hFile, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten, OVERLAPPED *pOverlapped)
{
    return ::WriteFile(hFile, pBuffer, cbToWrite, AsSdk(pcbWritten), AsSdk(pOverlapped));
}

BOOL FlushFileBuffers(HANDLE hFile)
{
    return ::FlushFileBuffers(hFile);
}

BOOL GetFileSizeEx(HANDLE hFile, int64_t *pcbSize)
{
    return ::GetFileSizeEx(hFile, AsSdk(pcbSize));
}

BOOL SetFilePointerEx(HANDLE hFile, int64_t cbDistance, int64_t *pcbNewPosition, uint32_t dwMoveMethod)
{
    LARGE_INTEGER distance;
    distance.QuadPart = cbDistance;
    return ::SetFilePointerEx(hFile, distance, AsSdk(pcbNewPosition), dwMoveMethod);
}

uint32_t GetFileAttributesW(const char16_t *pszFileName)
{
    return ::GetFileAttributesW(AsWide(pszFileName));
}

BOOL SetFileAttributesW(const char16_t *pszFileName, uint32_t dwFileAttributes)
{
    return ::SetFileAttributesW(AsWide(pszFileName), dwFileAttributes);
}

BOOL GetFileAttributesExW(const char16_t *pszFileName, GET_FILEEX_INFO_LEVELS eLevel, void *pInformation)
{
    return ::GetFileAttributesExW(AsWide(pszFileName), static_cast<::GET_FILEEX_INFO_LEVELS>(eLevel), pInformation);
}

BOOL DeleteFileW(const char16_t *pszFileName)
{
    return ::DeleteFileW(AsWide(pszFileName));
}

BOOL DeleteFileA(const char *pszFileName)
{
    return ::DeleteFileA(pszFileName);
}

BOOL CreateDirectoryW(const char16_t *pszPathName, SECURITY_ATTRIBUTES *pSecurity)
{
    return ::CreateDirectoryW(AsWide(pszPathName), AsSdk(pSecurity));
}

BOOL RemoveDirectoryW(const char16_t *pszPathName)
{
    return ::RemoveDirectoryW(AsWide(pszPathName));
}

BOOL MoveFileExW(const char16_t *pszExistingFileName, const char16_t *pszNewFileName, uint32_t dwFlags)
{
    return ::MoveFileExW(AsWide(pszExistingFileName), AsWide(pszNewFileName), dwFlags);
}

HANDLE FindFirstFileW(const char16_t *pszFileName, WIN32_FIND_DATAW *pFindData)
{
    return ::FindFirstFileW(AsWide(pszFileName), AsSdk(pFindData));
}

BOOL FindNextFileW(HANDLE hFindFile, WIN32_FIND_DATAW *pFindData)
{
    return ::FindNextFileW(hFindFile, AsSdk(pFindData));
}

BOOL FindClose(HANDLE hFindFile)
{
    return ::FindClose(hFindFile);
}

bool GetFinalPath(const char16_t *pszPath, char16_t *pszFinal, uint32_t cch)
{
    // No access is asked for, so that a file in use and a folder closed to this user can be named too.
    const ::HANDLE hFile = ::CreateFileW(AsWide(pszPath), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                         nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return false;
    wchar_t *psz = reinterpret_cast<wchar_t *>(pszFinal);
    DWORD    n   = ::GetFinalPathNameByHandleW(hFile, psz, cch, VOLUME_NAME_DOS);
    // A volume that is mounted in a folder alone has no drive letter; its own name tells its files apart as well.
    if (n == 0 && ::GetLastError() == ERROR_PATH_NOT_FOUND)
        n = ::GetFinalPathNameByHandleW(hFile, psz, cch, VOLUME_NAME_GUID);
    const DWORD dwErr = n >= cch ? ERROR_INSUFFICIENT_BUFFER : ::GetLastError();
    ::CloseHandle(hFile);
    if (n != 0 && n < cch) return true;
    ::SetLastError(dwErr);
    return false;
}

int32_t _access(const char *pszPath, int32_t nMode)
{
    return ::_access(pszPath, nMode);
}

int32_t _waccess(const char16_t *pszPath, int32_t nMode)
{
    return ::_waccess(AsWide(pszPath), nMode);
}

int32_t CreateDirectoryWithParents(const char16_t *pszPath)
{
    constexpr size_t CCH_FOLDER_LIMIT       = 248;
    using SHCreateDirectoryExWProc          = int(WINAPI *)(::HWND, LPCWSTR, const ::SECURITY_ATTRIBUTES *);
    static const auto pSHCreateDirectoryExW = BindSystemFunction<SHCreateDirectoryExWProc>(
        {L"api-ms-win-shell-shdirectory-l1-1-0.dll", L"shell32.dll"}, "SHCreateDirectoryExW");
    if (pSHCreateDirectoryExW == nullptr) return ERROR_PROC_NOT_FOUND;
    if (wcsnlen(AsWide(pszPath), CCH_FOLDER_LIMIT) == CCH_FOLDER_LIMIT) return ERROR_FILENAME_EXCED_RANGE;
    return pSHCreateDirectoryExW(nullptr, AsWide(pszPath), nullptr);
}

int32_t strcpy_s(char *pszDest, size_t cbDest, const char *pszSource)
{
    if (pszDest == nullptr || cbDest == 0) return errno = EINVAL;
    pszDest[0] = '\0';
    if (pszSource == nullptr) return errno = EINVAL;
    const size_t cch = strnlen(pszSource, cbDest);
    if (cch == cbDest) return errno = ERANGE;
    std::memcpy(pszDest, pszSource, cch + 1);
    return 0;
}

} // namespace platform
