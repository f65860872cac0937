// errors.h: setting the thread's last error, and the end of a process that misuses the interfaces.
#pragma once
#include <cstdint>

namespace hosted {

void     SetError(uint32_t dwError); // the thread's last error, what SetLastError and WSASetLastError set
uint32_t ErrorFromErrno(int nErrno); // the Win32 code for files, folders and pipes; ERROR_GEN_FAILURE if none fits
void     SetErrorFromErrno();        // both, from errno
// Misuse that Windows would answer with a crash: says so on stderr and aborts.
[[noreturn]] void Fatal(const char *pszFormat, ...) __attribute__((format(printf, 1, 2)));

} // namespace hosted
