// send_file.h: one file's body to the peer.
#pragma once
#include "transfer/file_stream.h"
#include <cstdint>

// [g_csNetSocket held, inside HoldSends/FlushSends] The file's size, or a code above. Polls g_hSendExecution's
// cancellation and the outcome flags (net/command_channel.h) once per chunk. Only the size found at the start is sent
// of a file that grows; one that shrinks is a read failure. What cannot be read is never replaced by other bytes in a
// file that the peer could take for whole, but for an unencrypted last chunk of 50 bytes or fewer, which no cancel
// block fits: zeros.
//   pszSource  a path of more than STREAM_PATH_UNITS is opened in its "\\?\" form
//   pbWhole    set to true once a stream has left that the peer takes as a whole file, and therefore answers, also when
//              the result is a failure (an empty stream for a source that cannot be opened); else left alone. May be
//              null.
int64_t SendFile(platform::SOCKET hSocket, const char16_t *pszSource, uint8_t bEncrypt, bool *pbWhole);
// The same; with a file that was prepared for this send (null: none) what is ready of it is used. The prepared file's
// handle has been read on: it serves one send.
struct PreparedFile;
int64_t SendPreparedFile(platform::SOCKET hSocket, const char16_t *pszSource, uint8_t bEncrypt,
                         const PreparedFile *pPrepared, bool *pbWhole);
