// tool_seam.h: what tools and tests ask of the system beside what the product asks (the other headers); nothing in the
// product includes this.
#pragma once
#include "platform/security.h"
#include "platform/shell.h"

namespace platform {

enum class SecuredObject { File, Kernel };
// Reads the access list of an open handle back. *pdwAccessMask gets the rights of Everyone's access-allowed entry as
// the system stores them (0xFFFFFFFF on a file reads as FILE_ALL_ACCESS, 0x1F01FF), *pnEntries the number of entries.
// False when the object has no access list of its own or it cannot be read.
bool ReadEveryoneAccess(HANDLE hObject, SecuredObject eKind, uint32_t *pdwAccessMask, uint32_t *pnEntries);

// FALSE with GetLastError, ERROR_DIR_NOT_EMPTY among it.
BOOL RemoveDirectoryW(const char16_t *pszPathName);

// IPersistFile on a new link, on a thread that called InitializeShellLinks. Null on failure.
ShellLink *NewShellLink();

// Takes one WSAStartup back. 0, or SOCKET_ERROR.
int32_t WSACleanup();

} // namespace platform
