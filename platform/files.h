// files.h: files, folders, their attributes, and enumeration.
// Paths    Windows paths in UTF-16; "\\?\" lifts the 260-unit limit, which both backends hold for paths without it.
//          Names compare without regard to case. "\\.\pipe\..." opens a named pipe for writing.
// Threads  any; a handle is used by one thread at a time.
#pragma once
#include "platform/kernel.h"

namespace platform {

constexpr uint32_t GENERIC_READ     = 0x80000000;
constexpr uint32_t GENERIC_WRITE    = 0x40000000;
constexpr uint32_t FILE_APPEND_DATA = 0x00000004;
constexpr uint32_t READ_CONTROL     = 0x00020000;

constexpr uint32_t FILE_SHARE_READ   = 0x00000001;
constexpr uint32_t FILE_SHARE_WRITE  = 0x00000002;
constexpr uint32_t FILE_SHARE_DELETE = 0x00000004;

constexpr uint32_t CREATE_NEW    = 1;
constexpr uint32_t CREATE_ALWAYS = 2;
constexpr uint32_t OPEN_EXISTING = 3;

constexpr uint32_t FILE_ATTRIBUTE_READONLY            = 0x00000001;
constexpr uint32_t FILE_ATTRIBUTE_HIDDEN              = 0x00000002;
constexpr uint32_t FILE_ATTRIBUTE_SYSTEM              = 0x00000004;
constexpr uint32_t FILE_ATTRIBUTE_DIRECTORY           = 0x00000010;
constexpr uint32_t FILE_ATTRIBUTE_ARCHIVE             = 0x00000020;
constexpr uint32_t FILE_ATTRIBUTE_NORMAL              = 0x00000080;
constexpr uint32_t FILE_ATTRIBUTE_REPARSE_POINT       = 0x00000400;
constexpr uint32_t FILE_ATTRIBUTE_NOT_CONTENT_INDEXED = 0x00002000;
constexpr uint32_t INVALID_FILE_ATTRIBUTES            = 0xFFFFFFFF;

constexpr uint32_t FILE_FLAG_OVERLAPPED       = 0x40000000;
constexpr uint32_t FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
constexpr uint32_t FILE_FLAG_SEQUENTIAL_SCAN  = 0x08000000;

constexpr uint32_t FILE_BEGIN = 0;

struct FILETIME {
    uint32_t dwLowDateTime;
    uint32_t dwHighDateTime;
};

struct OVERLAPPED {
    uint64_t Internal;
    uint64_t InternalHigh;
    uint64_t Offset;
    HANDLE   hEvent;
};

struct WIN32_FILE_ATTRIBUTE_DATA {
    uint32_t dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    uint32_t nFileSizeHigh;
    uint32_t nFileSizeLow;
};

struct WIN32_FIND_DATAW {
    uint32_t dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    uint32_t nFileSizeHigh;
    uint32_t nFileSizeLow;
    uint32_t dwReserved0;
    uint32_t dwReserved1;
    char16_t cFileName[MAX_PATH];
    char16_t cAlternateFileName[14];
};

enum GET_FILEEX_INFO_LEVELS : int32_t { GetFileExInfoStandard = 0 };

// INVALID_HANDLE_VALUE on failure. dwDesiredAccess 0 only tests that the path opens. Sharing is held between the
// handles of all processes of the machine (ERROR_SHARING_VIOLATION). CREATE_ALWAYS on a hidden or system file needs
// those attributes among the flags, else ERROR_ACCESS_DENIED; a read-only file cannot be opened for writing.
HANDLE CreateFileW(const char16_t *pszFileName, uint32_t dwDesiredAccess, uint32_t dwShareMode,
                   SECURITY_ATTRIBUTES *pSecurity, uint32_t dwCreationDisposition, uint32_t dwFlagsAndAttributes,
                   HANDLE hTemplateFile);
// pOverlapped null, but for the server's end of a pipe that was made with FILE_FLAG_OVERLAPPED: there a read without
// one may be told to be complete while it is not, so one is given, with an event: FALSE with ERROR_IO_PENDING, and
// GetOverlappedResult (pipes.h) tells how it ended once the event is set. A read at the end of a file succeeds with 0
// bytes; on a pipe whose writer has gone: ERROR_BROKEN_PIPE.
BOOL ReadFile(HANDLE hFile, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead, OVERLAPPED *pOverlapped);
BOOL WriteFile(HANDLE hFile, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten, OVERLAPPED *pOverlapped);
BOOL FlushFileBuffers(HANDLE hFile);
BOOL GetFileSizeEx(HANDLE hFile, int64_t *pcbSize);
BOOL SetFilePointerEx(HANDLE hFile, int64_t cbDistance, int64_t *pcbNewPosition, uint32_t dwMoveMethod);

uint32_t           GetFileAttributesW(const char16_t *pszFileName);
BOOL               SetFileAttributesW(const char16_t *pszFileName, uint32_t dwFileAttributes);
BOOL               GetFileAttributesExW(const char16_t *pszFileName, GET_FILEEX_INFO_LEVELS eLevel, void *pInformation);
BOOL               DeleteFileW(const char16_t *pszFileName);
BOOL               DeleteFileA(const char *pszFileName);
BOOL               CreateDirectoryW(const char16_t *pszPathName, SECURITY_ATTRIBUTES *pSecurity);
constexpr uint32_t MOVEFILE_REPLACE_EXISTING = 1;
BOOL               MoveFileExW(const char16_t *pszExistingFileName, const char16_t *pszNewFileName, uint32_t dwFlags);

// Entries come in name order without regard to case, "." and ".." first, as NTFS gives them. The pattern's last
// component is "*", "*.*" or a plain name. INVALID_HANDLE_VALUE on failure; FindClose closes, not CloseHandle.
HANDLE FindFirstFileW(const char16_t *pszFileName, WIN32_FIND_DATAW *pFindData);
BOOL   FindNextFileW(HANDLE hFindFile, WIN32_FIND_DATAW *pFindData);
BOOL   FindClose(HANDLE hFindFile);

// dwReserved0 of an entry with FILE_ATTRIBUTE_REPARSE_POINT is its tag. A tag with this bit stands for another name in
// the file system (a junction, a symbolic link); one without it (a file kept in a cloud) stands for itself.
constexpr uint32_t REPARSE_TAG_SURROGATE  = 0x20000000;
constexpr uint32_t IO_REPARSE_TAG_SYMLINK = 0xA000000C;
// The path of an existing file or folder behind every link and mount point on its way, in its "\\?\" form; a root ends
// with its backslash. False: it cannot be opened, or has no room in cch units (GetLastError).
bool GetFinalPath(const char16_t *pszPath, char16_t *pszFinal, uint32_t cch);

// The run-time library's existence tests (mode 0): 0 when the path exists, else -1. Say platform::_access and, below,
// platform::strcpy_s: on Windows the run-time library's headers declare the same names globally.
int32_t _access(const char *pszPath, int32_t nMode);
int32_t _waccess(const char16_t *pszPath, int32_t nMode);

// Creates a folder with all missing parents in one call of the shell (SHCreateDirectory of
// api-ms-win-shell-shdirectory-l1-1-0: no window, no security attributes). Result: ERROR_SUCCESS, ERROR_ALREADY_EXISTS,
// ERROR_FILE_EXISTS or another error code. Paths of 248 units and more fail with ERROR_FILENAME_EXCED_RANGE.
int32_t CreateDirectoryWithParents(const char16_t *pszPath);

// The run-time library's bounded copy: 0, or EINVAL/ERANGE with the destination emptied and errno set. Never ends the
// process: a text that does not fit is a refused copy, not a crash.
int32_t strcpy_s(char *pszDest, size_t cbDest, const char *pszSource);

} // namespace platform
