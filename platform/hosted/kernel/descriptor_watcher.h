// descriptor_watcher.h: one thread per process that tells when a descriptor can be read: a client on a pipe, a message
// for a window. Started by the first watch, never ended.
#pragma once
#include <cstdint>
#include <functional>

namespace hosted {

using WatchId = uint64_t; // 0: none
// onReadable runs on the watcher's thread as long as there is something to read; it may watch and unwatch. 0 with the
// last error set on failure.
WatchId WatchDescriptor(int nFd, std::function<void()> onReadable);
// Before nFd is closed. A call of onReadable may still be under way afterwards: it keeps what it uses alive and checks
// whether it is still wanted.
void UnwatchDescriptor(WatchId nWatch, int nFd);

} // namespace hosted
