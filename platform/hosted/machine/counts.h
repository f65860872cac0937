// counts.h: what is open in this process (control.h tells tests), and the memory that interfaces hand out.
#pragma once
#include <atomic>
#include <cstddef>

namespace hosted {

extern std::atomic<int> g_nSockets;       // OpenSockets
extern std::atomic<int> g_nLiveThreads;   // LiveThreads
extern std::atomic<int> g_nCiphers;       // OpenCiphers
extern std::atomic<int> g_nBlocks;        // LiveBlocks
extern std::atomic<int> g_nWinsockStarts; // WinsockStarts
// Memory that an interface hands out, counted in g_nBlocks; zero-filled. Null: ERROR_NOT_ENOUGH_MEMORY.
void *AllocBlock(size_t cb);
void  FreeBlock(void *pMem); // null is allowed

} // namespace hosted
