// pipe_client.h: the client's end of a named pipe behind the file functions.
// CreateFileW calls OpenPipeClient for a pipe's name, WriteFile by the object's kind WritePipe; both set the last
// error.
#pragma once
#include "platform/hosted/kernel/handles.h"

namespace hosted {

bool             IsPipeName(const char16_t *pszName); // "\\.\pipe\..." in any case
platform::HANDLE OpenPipeClient(const char16_t *pszName, uint32_t dwDesiredAccess, uint32_t dwCreationDisposition);
platform::BOOL   WritePipe(KernelObject &pipe, const void *pBuffer, uint32_t cbToWrite, uint32_t *pcbWritten);

} // namespace hosted
