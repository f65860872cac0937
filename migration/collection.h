// collection.h: a whole user-chosen collection sent to the peer, resumably.
// Kept between runs: completeinfo.ini lists what is done with, recordinfo.ini which items of the folder under way have
// been sent. Both are deleted once everything has been sent and the link is still there.
#pragma once
#include <cstdint>

// The request of a collection: the text file that lists its items, and the link it belongs to.
struct CollectionRequest {
    char16_t szListFile[260];  // UTF-16 lines, a folder's with a trailing backslash (state_files.h, ReadPathLines)
    uint32_t dwLinkGeneration; // net/network_link.h
    uint64_t ullExecution;     // ipc/thread_execution.h; StartCollection lists it, before the thread starts
};
// Runs the walk on a thread of its own; owns the block from here on (allocated with new). 1, or 0: the block is freed.
int32_t StartCollection(CollectionRequest *pRequest);
// The walk itself; frees the request at its end. The items' outcomes go to the peer's service one by one (0x333), the
// collection's at the end (0x2120: 2 complete, 0xFFFFFFFE not; 0x332/107 before it when the peer's disk was full). A
// broken link is also released and reported to the own service, unless somebody else has done so. Blocks until the walk
// ends.
void ProcessCollection(CollectionRequest *pRequest);
