// counts.cpp: see counts.h.
#include "platform/hosted/machine/counts.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/errors.h"
#include <cstdlib>

namespace hosted {

std::atomic<int> g_nSockets{0}, g_nLiveThreads{0}, g_nCiphers{0}, g_nBlocks{0}, g_nWinsockStarts{0};

void *AllocBlock(size_t cb)
{
    void *pMem = std::calloc(1, cb == 0 ? 1 : cb);
    if (pMem == nullptr) {
        SetError(platform::ERROR_NOT_ENOUGH_MEMORY);
    } else {
        g_nBlocks++;
    }
    return pMem;
}

void FreeBlock(void *pMem)
{
    if (pMem == nullptr) return;
    free(pMem);
    g_nBlocks--;
}

int OpenSockets()
{
    return g_nSockets.load();
}
int LiveThreads()
{
    return g_nLiveThreads.load();
}
int OpenCiphers()
{
    return g_nCiphers.load();
}
int LiveBlocks()
{
    return g_nBlocks.load();
}
int WinsockStarts()
{
    return g_nWinsockStarts.load();
}

} // namespace hosted
