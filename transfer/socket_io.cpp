// socket_io.cpp: the two primitives that every byte of the peer link passes through, and the error reporters.
// A caller sees the full length or a failure, never a part. The pieces are the peer's time-out unit: a time-out means
// that one piece of at most 4096 bytes waited that long, not that the whole transfer did.
#include "transfer/socket_io.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "trace/debug_output.h"
#include <algorithm>

using namespace platform;

std::atomic<uint8_t>  g_bRecvFileActive{0};
std::atomic<uint32_t> gdwErr{0};
std::atomic<int32_t>  g_nWSAErr{0};

int32_t SendBuffer(SOCKET hSocket, const void *pBuffer, int32_t cb)
{
    const char *pBytes = static_cast<const char *>(pBuffer);
    int32_t     cbDone = 0;
    if (cb < 1) return 0;
    for (;;) {
        const int32_t nSent = send(hSocket, pBytes + cbDone, std::min(cb - cbDone, SOCKET_PIECE_BYTES), 0);
        if (nSent < 0) {
            ReportWSAError(u"SendBuffer", u"send failed!");
            return nSent;
        }
        cbDone += nSent;
        if (cbDone >= cb) return cbDone;
    }
}

// One receive that brings something or fails. An empty one says that the peer has closed its side: nothing will ever
// come after it, so it is a failure, with a code of its own.
static int32_t RecvPiece(SOCKET hSocket, char *pBuffer, int32_t cb)
{
    const int32_t nReceived = recv(hSocket, pBuffer, cb, 0);
    if (nReceived != 0) return nReceived;
    WSASetLastError(WSAEDISCON);
    return SOCKET_ERROR;
}

// A piece of a file body that timed out, again. Positive, or the result of the attempt that ended it.
static int32_t RetryPiece(SOCKET hSocket, char *pBuffer, int32_t cb, int32_t cbDone)
{
    for (int32_t nRetry = 0;;) {
        TraceDebugW(u"[RecvBuffer] recv failed by timeout. i[%d], Retry[%d]", cbDone, nRetry);
        const int32_t nReceived = RecvPiece(hSocket, pBuffer, cb);
        if (nReceived >= 0 || WSAGetLastError() != WSAETIMEDOUT) return nReceived;
        if (++nRetry > RECV_RETRY_LIMIT) return nReceived;
    }
}

int32_t RecvBuffer(SOCKET hSocket, void *pBuffer, int32_t cb)
{
    char   *pBytes = static_cast<char *>(pBuffer);
    int32_t cbDone = 0;
    if (cb < 1) return 0;
    for (;;) {
        const int32_t cbPiece   = std::min(cb - cbDone, SOCKET_PIECE_BYTES);
        int32_t       nReceived = RecvPiece(hSocket, pBytes + cbDone, cbPiece);
        if (nReceived < 0) {
            const int32_t nError = WSAGetLastError();
            if (!g_bRecvFileActive) {
                if (nError != WSAETIMEDOUT)
                    TraceDebugW(u"[RecvBuffer] recv failed (not timeout). Ret[%d] Err[0x%X]", nReceived, nError);
                return nReceived;
            }
            if (nError != WSAETIMEDOUT) {
                TraceDebugW(u"[RecvBuffer] recv failed (retry and not timeout). Ret[%d] Err[0x%X]", nReceived, nError);
                return nReceived;
            }
            nReceived = RetryPiece(hSocket, pBytes + cbDone, cbPiece, cbDone);
            if (nReceived < 0) return nReceived;
        }
        cbDone += nReceived;
        if (cbDone >= cb) return cbDone;
    }
}

// The system's text for a code, to be freed with LocalFree; null when there is none.
static char16_t *SystemErrorText(uint32_t dwError)
{
    constexpr uint32_t LANGUAGE_NEUTRAL_DEFAULT = 0x400;
    char16_t          *pszText                  = nullptr;
    if (FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
                       nullptr, dwError, LANGUAGE_NEUTRAL_DEFAULT, &pszText, 0, nullptr) == 0)
        return nullptr;
    return pszText;
}

void ReportSocketError(const char16_t *pszOperation, const char16_t *pszDescription, bool bNotifyOnly, uint32_t dwError)
{
    if (!g_bSocketDebug) return;
    if (bNotifyOnly) {
        TraceDebugW(u"[VnNetSocket][Notify]%s -> %s\r\n", pszDescription, pszOperation);
        return;
    }
    const uint32_t dwLastError = GetLastError();
    const uint32_t dwCode      = dwError == REPORT_LAST_ERROR ? dwLastError : dwError;
    char16_t      *pszText     = SystemErrorText(dwCode);
    TraceDebugW(u"[VnNetSocket]%s -> %s error: %u(0x%X) - %s", pszDescription, pszOperation, dwCode, dwCode,
                pszText != nullptr ? pszText : u"");
    LocalFree(pszText);
    SetLastError(dwLastError);
}

void ReportWSAError(const char16_t *pszOperation, const char16_t *pszDescription)
{
    if (!g_bSocketDebug) return;
    const int32_t nError  = WSAGetLastError();
    char16_t     *pszText = SystemErrorText(static_cast<uint32_t>(nError));
    TraceDebugW(u"[VnNetSocket][WSA]%s -> %s error: %u(0x%X) - [%s]", pszDescription, pszOperation, nError, nError,
                pszText != nullptr ? pszText : u"");
    LocalFree(pszText);
    WSASetLastError(nError);
}
