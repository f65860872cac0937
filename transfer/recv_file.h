// recv_file.h: one file's body from the peer.
#pragma once
#include "transfer/file_stream.h"
#include "transfer/incoming_file.h"
#include <cstdint>

// Listener thread, lock not held. The file's size, or a code of file_stream.h (of several the last one set); a negative
// size that the peer announced is the result itself. A failure keeps the stream in step where the wire allows it, and
// no part of the file stays behind; the sender gets one error word.
//   pFile  prepared with SetIncomingFile; while g_bRecvFileTypeUnknown is set nothing is stored. On success it says
//          where the file is
int64_t RecvFile(platform::SOCKET hSocket, IncomingFile *pFile, uint8_t bEncrypt);
