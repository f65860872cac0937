// errors.cpp: the last error of each thread, one value for GetLastError and WSAGetLastError as on Windows.
#include "platform/errors.h"
#include "platform/hosted/machine/errors.h"
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

thread_local uint32_t t_dwLastError = 0;

// Codes that errors.h does not name since only errno leads to them.
constexpr uint32_t ERROR_NOT_SAME_DEVICE       = 17;
constexpr uint32_t ERROR_IO_DEVICE             = 1117;
constexpr uint32_t ERROR_CANT_RESOLVE_FILENAME = 1921;

} // namespace

uint32_t platform::GetLastError()
{
    return t_dwLastError;
}

void platform::SetLastError(uint32_t dwErrCode)
{
    t_dwLastError = dwErrCode;
}

void hosted::SetError(uint32_t dwError)
{
    t_dwLastError = dwError;
}

void hosted::SetErrorFromErrno()
{
    t_dwLastError = ErrorFromErrno(errno);
}

uint32_t hosted::ErrorFromErrno(int nErrno)
{
    using namespace platform;
    switch (nErrno) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_FILE_EXISTS;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case ENOSPC:
    case EDQUOT:
    case EFBIG: return ERROR_DISK_FULL;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case ENOMEM:
    case EAGAIN: return ERROR_NOT_ENOUGH_MEMORY; // of pthread_create: no room for one more thread
    case EROFS: return ERROR_WRITE_PROTECT;
    case EBUSY: return ERROR_BUSY;
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case ENAMETOOLONG: return ERROR_INVALID_NAME;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case EBADF: return ERROR_INVALID_HANDLE;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case EXDEV: return ERROR_NOT_SAME_DEVICE;
    case EIO: return ERROR_IO_DEVICE;
    case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
    case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    default: return ERROR_GEN_FAILURE;
    }
}

void hosted::Fatal(const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    std::fputs("hosted machine: ", stderr);
    std::vfprintf(stderr, pszFormat, args);
    std::fputc('\n', stderr);
    va_end(args);
    std::abort();
}
