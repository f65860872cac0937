// file_afterwork.h: a file on its way in, what its type wants done once it is stored, and the progress it counts for.
// Thread   the link's listener.
#pragma once
#include "net/command_channel.h"
#include "transfer/incoming_file.h"
#include <cstdint>

struct ReceivedFile {
    IncomingFile disk; // the destination, and where the file is stored
    uint32_t     dwType;
    uint32_t     dwAttributes;
    uint32_t     bIniExists; // type 4: the machine has that file already
    int64_t      llSize;     // RecvFile's result
};

constexpr uint32_t NO_PROGRESS_TAG = 0xFFFFFFFF;

// Progress of special data. Listener thread only; FinishReceivedFile counts.
extern uint32_t g_dwReceiveProgressTag;
extern int64_t  g_llReceiveProgressDone;  // bytes
extern int64_t  g_llReceiveProgressTotal; // bytes
// It begins anew, with the tag it is reported under and the bytes that are to come: what
// the peer wrote, so it may be 0 or negative. Code 836 with parameter 128 from the peer.
void StartReceiveProgress(uint32_t dwTag, int64_t llTotal);
void ResetReceiveProgress(); // none is under way

// Before "FileDone", for a file of a collection: its size joins "ProgressSize", once, also when it has come twice.
// Before, since a file that was answered never comes again: a process that dies now leaves nothing uncounted. What
// cannot be counted (a progress file that somebody holds for a second and longer) is counted with the next file.
void CountCollectionFile(const ReceivedFile *pFile);
// After "FileDone": progress of special data, shell links, folder settings, the peer's machine info. Failures are
// logged at most: the file itself is stored and answered.
void FinishReceivedFile(const ReceivedFile *pFile);
