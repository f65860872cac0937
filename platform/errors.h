// errors.h: the calling thread's last error, and the system's text for an error code.
// Threads  every thread has its own last error; a hosted backend keeps WSAGetLastError and GetLastError one value, as
//          Windows does.
#pragma once
#include "platform/types.h"

namespace platform {

constexpr uint32_t ERROR_SUCCESS              = 0;
constexpr uint32_t ERROR_FILE_NOT_FOUND       = 2;
constexpr uint32_t ERROR_PATH_NOT_FOUND       = 3;
constexpr uint32_t ERROR_TOO_MANY_OPEN_FILES  = 4;
constexpr uint32_t ERROR_ACCESS_DENIED        = 5;
constexpr uint32_t ERROR_INVALID_HANDLE       = 6;
constexpr uint32_t ERROR_NOT_ENOUGH_MEMORY    = 8;
constexpr uint32_t ERROR_FILE_TOO_LARGE       = 223;
constexpr uint32_t ERROR_NO_MORE_FILES        = 18;
constexpr uint32_t ERROR_WRITE_PROTECT        = 19;
constexpr uint32_t ERROR_WRITE_FAULT          = 29;
constexpr uint32_t ERROR_GEN_FAILURE          = 31;
constexpr uint32_t ERROR_SHARING_VIOLATION    = 32;
constexpr uint32_t ERROR_LOCK_VIOLATION       = 33;
constexpr uint32_t ERROR_HANDLE_EOF           = 38;
constexpr uint32_t ERROR_NOT_SUPPORTED        = 50;
constexpr uint32_t ERROR_FILE_EXISTS          = 80;
constexpr uint32_t ERROR_INVALID_PARAMETER    = 87;
constexpr uint32_t ERROR_BROKEN_PIPE          = 109;
constexpr uint32_t ERROR_BUFFER_OVERFLOW      = 111;
constexpr uint32_t ERROR_DISK_FULL            = 112;
constexpr uint32_t ERROR_SEM_TIMEOUT          = 121;
constexpr uint32_t ERROR_INSUFFICIENT_BUFFER  = 122;
constexpr uint32_t ERROR_INVALID_NAME         = 123;
constexpr uint32_t ERROR_MOD_NOT_FOUND        = 126;
constexpr uint32_t ERROR_PROC_NOT_FOUND       = 127;
constexpr uint32_t ERROR_DIR_NOT_EMPTY        = 145;
constexpr uint32_t ERROR_BUSY                 = 170;
constexpr uint32_t ERROR_ALREADY_EXISTS       = 183;
constexpr uint32_t ERROR_FILENAME_EXCED_RANGE = 206;
constexpr uint32_t ERROR_BAD_PIPE             = 230;
constexpr uint32_t ERROR_PIPE_BUSY            = 231;
constexpr uint32_t ERROR_NO_DATA              = 232;
constexpr uint32_t ERROR_PIPE_NOT_CONNECTED   = 233;
constexpr uint32_t ERROR_DIRECTORY            = 267;
constexpr uint32_t WAIT_TIMEOUT               = 258;
constexpr uint32_t ERROR_PIPE_CONNECTED       = 535;
constexpr uint32_t ERROR_PIPE_LISTENING       = 536;
constexpr uint32_t ERROR_OPERATION_ABORTED    = 995;
constexpr uint32_t ERROR_IO_INCOMPLETE        = 996;
constexpr uint32_t ERROR_IO_PENDING           = 997;
constexpr uint32_t ERROR_NOT_FOUND            = 1168;
constexpr uint32_t ERROR_NONE_MAPPED          = 1332;

constexpr uint32_t FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr uint32_t FORMAT_MESSAGE_IGNORE_INSERTS  = 0x00000200;
constexpr uint32_t FORMAT_MESSAGE_FROM_SYSTEM     = 0x00001000;

uint32_t GetLastError();
void     SetLastError(uint32_t dwErrCode);

// Win32 contract, for exactly the flags above together: *ppszBuffer receives text that ends with a line break and is
// freed with LocalFree. Result: its length in UTF-16 units without the terminator, or 0 (GetLastError).
uint32_t FormatMessageW(uint32_t dwFlags, const void *pSource, uint32_t dwMessageId, uint32_t dwLanguageId,
                        char16_t **ppszBuffer, uint32_t nSize, void *pArguments);

// Frees what FormatMessageW, CommandLineToArgvW and ConvertSidToStringSidW gave. Result: null.
void *LocalFree(void *pMem);

} // namespace platform
