// file_stream.h: what travels for one file behind its header: size, key, chunks, cancel block, and the error word
// back.
// Wire     size (8, signed); encrypted: key length (4), key; then chunks of min(remaining, 65536) plain bytes. A chunk
//          is its bytes alone, or encrypted its cipher length (4) and cipher text. All numbers little-endian. The
//          cancel block ends a stream: in the first bytes of a chunk's plain text, or in place of its cipher text
//          (length 50).
// Answer   one command word back: receipt_answer.h.
#pragma once
#include "platform/sockets.h"
#include <atomic>
#include <bit>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "numbers go out as they lie in memory");

constexpr uint32_t FILE_CHUNK_BYTES   = 65536; // plain bytes of a full chunk
constexpr uint32_t CIPHER_CHUNK_BYTES = 65556; // a cipher length must stay below this
constexpr uint32_t CANCEL_BLOCK_BYTES = 50;
constexpr char     CANCEL_TEXT[]      = "VnNetSocket_CancelSendFile"; // 26 characters, then zeros
constexpr uint32_t CANCEL_TEXT_BYTES  = sizeof(CANCEL_TEXT) - 1;
static_assert(CANCEL_TEXT_BYTES == 26);
constexpr uint32_t STREAM_PATH_UNITS = 247; // a longer path is opened in its "\\?\" form

// SendFile
constexpr int64_t SENDFILE_SIZE_NOT_SENT     = -2;
constexpr int64_t SENDFILE_CHUNK_NOT_SENT    = -3;
constexpr int64_t SENDFILE_LENGTH_NOT_SENT   = -4;
constexpr int64_t SENDFILE_KEY_SIZE_NOT_SENT = -6;
constexpr int64_t SENDFILE_KEY_NOT_SENT      = -7;
constexpr int64_t SENDFILE_OPEN_FAILED       = -102; // an empty stream was sent
constexpr int64_t SENDFILE_READ_FAILED       = -103;
constexpr int64_t SENDFILE_CIPHER_TOO_LARGE  = -120;
constexpr int64_t SENDFILE_CIPHER_TOO_SMALL  = -121;
constexpr int64_t SENDFILE_CANCELLED         = -201;
constexpr int64_t SENDFILE_PEER_ERROR        = -202;
constexpr int64_t SENDFILE_PEER_DISK_FULL    = -203;
constexpr int64_t SENDFILE_PEER_TYPE_UNKNOWN = -204;
constexpr int64_t SENDFILE_SIZE_UNKNOWN      = -401;  // an empty stream was sent
constexpr int64_t SENDFILE_NOT_ENCRYPTED     = -1313; // no key, or the last chunk could not be encrypted
// RecvFile. The first four return before the destination is touched.
constexpr int64_t RECVFILE_NO_SIZE           = -1;
constexpr int64_t RECVFILE_NO_KEY_SIZE       = -21;
constexpr int64_t RECVFILE_EMPTY_KEY         = -90;
constexpr int64_t RECVFILE_NO_KEY            = -22;
constexpr int64_t RECVFILE_NO_CHUNK          = -2;
constexpr int64_t RECVFILE_NO_LENGTH         = -11;
constexpr int64_t RECVFILE_CANCEL_IN_DATA    = -81;
constexpr int64_t RECVFILE_CREATE_FAILED     = -101;
constexpr int64_t RECVFILE_WRITE_FAILED      = -102;
constexpr int64_t RECVFILE_KEY_REFUSED       = -121;
constexpr int64_t RECVFILE_CIPHER_TOO_LARGE  = -122;
constexpr int64_t RECVFILE_CIPHER_TOO_SMALL  = -123;
constexpr int64_t RECVFILE_PLAIN_ABOVE_CHUNK = -124;
constexpr int64_t RECVFILE_PLAIN_BELOW_CHUNK = -125;
constexpr int64_t RECVFILE_PLAIN_WRONG       = -126;
constexpr int64_t RECVFILE_TYPE_UNKNOWN      = -201;
constexpr int64_t RECVFILE_CANCEL_IN_CIPHER  = -1110;

extern std::atomic<uint64_t> g_hSendExecution;   // thread-execution id of the current send; written under g_csNetSocket
extern std::atomic<int64_t>  g_nRecvFileWritten; // bytes of the current file written; listener thread
