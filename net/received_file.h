// received_file.h: a file on its way in, what its type wants done once it is stored, and the progress that it counts for.
// Thread   the link's listener.
#pragma once
#include "net/command_channel.h"
#include <cstdint>

constexpr size_t RECEIVED_PATH_UNITS = FILE_PATH_BYTES / 2 + 1; // the field may lack a terminator
constexpr size_t LOCAL_PATH_UNITS    = RECEIVED_PATH_UNITS + 4;  // the longest path in its "\\?\" form

struct ReceivedFile {
    platform::SOCKET hSocket;
    char16_t         szPath[RECEIVED_PATH_UNITS]; // where it is stored; empty when it may not be stored
    char16_t         szLocal[LOCAL_PATH_UNITS];   // the same in the form that can be opened here
    uint32_t         dwType;
    uint32_t         dwAttributes;
    uint32_t         bFolderSeen; // the look for a free name has found the folder, and no file of that name in it
    uint32_t         bIniExists;  // type 4: the machine has that file already
    int64_t          llSize;      // RecvFile's result
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

// After "FileDone": progress, shell links, folder settings, the peer's machine info. Failures are logged at most: the
// file itself is stored and answered.
void FinishReceivedFile(const ReceivedFile *pFile);
