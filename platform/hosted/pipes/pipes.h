// pipes.h: reading a named pipe behind ReadFile.
#pragma once
#include "platform/hosted/kernel/handles.h"

namespace hosted {

// Sets the last error itself. The client's end only writes: ERROR_ACCESS_DENIED.
platform::BOOL ReadPipe(KernelObject &pipe, void *pBuffer, uint32_t cbToRead, uint32_t *pcbRead);

} // namespace hosted
