// errors.cpp: last errors and their texts, forwarded.
#include "platform/errors.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(ERROR_SUCCESS) X(ERROR_FILE_NOT_FOUND) X(ERROR_PATH_NOT_FOUND) X(ERROR_TOO_MANY_OPEN_FILES)                      \
    X(ERROR_ACCESS_DENIED) X(ERROR_INVALID_HANDLE) X(ERROR_NOT_ENOUGH_MEMORY) X(ERROR_NO_MORE_FILES)                   \
    X(ERROR_WRITE_PROTECT) X(ERROR_WRITE_FAULT) X(ERROR_GEN_FAILURE) X(ERROR_SHARING_VIOLATION)                       \
    X(ERROR_LOCK_VIOLATION) X(ERROR_HANDLE_EOF)                                                                        \
    X(ERROR_NOT_SUPPORTED) X(ERROR_FILE_EXISTS) X(ERROR_INVALID_PARAMETER) X(ERROR_BROKEN_PIPE)                        \
    X(ERROR_BUFFER_OVERFLOW) X(ERROR_DISK_FULL) X(ERROR_SEM_TIMEOUT) X(ERROR_INSUFFICIENT_BUFFER)                      \
    X(ERROR_INVALID_NAME) X(ERROR_MOD_NOT_FOUND) X(ERROR_PROC_NOT_FOUND) X(ERROR_DIR_NOT_EMPTY) X(ERROR_BUSY)          \
    X(ERROR_ALREADY_EXISTS) X(ERROR_FILENAME_EXCED_RANGE) X(ERROR_BAD_PIPE) X(ERROR_PIPE_BUSY) X(ERROR_NO_DATA)        \
    X(ERROR_PIPE_NOT_CONNECTED) X(ERROR_DIRECTORY) X(WAIT_TIMEOUT) X(ERROR_PIPE_CONNECTED) X(ERROR_PIPE_LISTENING)     \
    X(ERROR_OPERATION_ABORTED) X(ERROR_IO_INCOMPLETE) X(ERROR_IO_PENDING) X(ERROR_NOT_FOUND) X(ERROR_NONE_MAPPED)      \
    X(FORMAT_MESSAGE_ALLOCATE_BUFFER) X(FORMAT_MESSAGE_IGNORE_INSERTS) X(FORMAT_MESSAGE_FROM_SYSTEM)
// clang-format on
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"

namespace mirror {
MIRRORED(MIRROR_COMPARE)
}

namespace platform {

uint32_t GetLastError()
{
    return ::GetLastError();
}

void SetLastError(uint32_t dwErrCode)
{
    ::SetLastError(dwErrCode);
}

uint32_t FormatMessageW(uint32_t dwFlags, const void *pSource, uint32_t dwMessageId, uint32_t dwLanguageId,
                        char16_t **ppszBuffer, uint32_t nSize, void *pArguments)
{
    return ::FormatMessageW(dwFlags, pSource, dwMessageId, dwLanguageId, reinterpret_cast<wchar_t *>(ppszBuffer), nSize,
                            static_cast<va_list *>(pArguments));
}

void *LocalFree(void *pMem)
{
    return ::LocalFree(pMem);
}

} // namespace platform
