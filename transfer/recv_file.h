// recv_file.h: one file's body from the peer.
#pragma once
#include "transfer/file_stream.h"
#include <cstdint>

// Listener thread, lock not held. The file's size, or a code above (of several the last one set); a negative size that
// the peer announced is the result itself. A failure keeps the stream in step where the wire allows it, and no part of
// the file stays behind. A file whose name is free grows under that name with RECEIVING_SUFFIX behind it (a name too
// long for that: under the suffix alone) and gets its name when it is whole: if this process dies half-way, no broken
// file has the name, for which the resumed send would have to take another. What is left under the other name is
// overwritten when the file is sent again. An existing destination is truncated and written in place (its content is
// lost either way, its access list stays).
int64_t RecvFile(platform::SOCKET hSocket, const char16_t *pszDestination, uint8_t bEncrypt);
constexpr char16_t RECEIVING_SUFFIX[] = u".~VornTramsa-5c12a73e.part"; // no user's file has it
