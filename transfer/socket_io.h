// socket_io.h: exact-length socket transfers in pieces of at most 4096 bytes, and the reporters of socket and file
// errors.
// Lock     none; whoever sends holds g_csNetSocket for a whole exchange.
// Threads  one receiver and one sender at a time per socket. The last error is the caller's to read right after a
//          failure.
#pragma once
#include "platform/sockets.h"
#include <atomic>
#include <cstdint>

constexpr uint32_t SOCKET_TIMEOUT_MS  = 8000; // of a link's socket, both directions
constexpr int32_t  SOCKET_PIECE_BYTES = 4096;
constexpr int32_t  RECV_RETRY_LIMIT   = 10; // of time-outs on one piece of a file body, after the first one

extern std::atomic<uint8_t>  g_bRecvFileActive; // 1 while a file body is received: RecvBuffer then retries time-outs
extern std::atomic<uint32_t> gdwErr;            // the last system error that the file layer saved
extern std::atomic<int32_t>  g_nWSAErr;         // the last Winsock error that the receiving side saved

// cb on success, 0 when cb is below 1, the failing recv's negative result otherwise.
// A peer that has closed its side in good order sends nothing any more: WSAEDISCON, at once. A socket closed by this
// process ends the call at once, too (WSAENOTSOCK). While g_bRecvFileActive is set, a piece that timed out is tried up
// to 11 times more.
int32_t RecvBuffer(platform::SOCKET hSocket, void *pBuffer, int32_t cb);
// cb on success, 0 when cb is below 1, the failing send's negative result otherwise (reported).
int32_t SendBuffer(platform::SOCKET hSocket, const void *pBuffer, int32_t cb);

constexpr uint32_t REPORT_LAST_ERROR = 0xFFFFFFFF;
// To the debugger output, while g_bSocketDebug is set: description first, operation second, then the code
// (REPORT_LAST_ERROR: GetLastError()) with the system's text for it; bNotifyOnly: neither. The last error stays as it
// was.
void ReportSocketError(const char16_t *pszOperation, const char16_t *pszDescription, bool bNotifyOnly,
                       uint32_t dwError);
// The same with WSAGetLastError().
void ReportWSAError(const char16_t *pszOperation, const char16_t *pszDescription);
