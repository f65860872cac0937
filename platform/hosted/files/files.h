// files.h: the object behind a file handle.
#pragma once
#include "platform/hosted/files/disk.h"
#include "platform/hosted/kernel/handles.h"
#include <atomic>
#include <unistd.h>

namespace hosted {

struct FileObject : KernelObject {
    FileObject() : KernelObject(HandleKind::File) {}
    ~FileObject() override
    {
        if (nFd >= 0) close(nFd);
        if (pnOpen != nullptr) pnOpen->fetch_sub(1);
    }
    int                    nFd       = -1;
    std::atomic<uint32_t> *pnOpen    = nullptr; // this handle is counted there
    unsigned               nAccess   = 0;       // SHARE_READ, SHARE_WRITE: what the handle may do
    bool                   bAppend   = false;
    bool                   bFolder   = false;
    char                   chDrive   = 'C';
    uint64_t               nFileKey  = 0; // of Generations::Files
    int64_t                nPosition = 0;
    int64_t                cbKnown   = 0; // size, as far as this handle has seen it
};

} // namespace hosted
