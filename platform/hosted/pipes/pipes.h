// pipes.h: reading a named pipe behind ReadFile.
#pragma once
#include "platform/files.h"
#include "platform/hosted/kernel/handles.h"

namespace hosted {

// Sets the last error itself. The client's end only writes: ERROR_ACCESS_DENIED.
platform::BOOL ReadPipe(const std::shared_ptr<KernelObject> &pPipe, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead,
                        platform::OVERLAPPED *pOverlapped);

} // namespace hosted
