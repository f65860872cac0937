// send_file.cpp: one file's body to the peer.
// An error that arises before or within the stream does not end it at once: the peer would wait for the rest. It is
// kept as the pending error, the next chunk carries the cancel block, and only then the stream ends. The source is
// opened twice: once to learn its size, refusing to share it with writers, as the peers in the field do
// (-401 tells a file that is being written), and once to read it, sharing it with everybody for as long as the link may
// take.
#include "transfer/send_file.h"
#include "ipc/thread_execution.h"
#include "net/command_channel.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/answer_queue.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include "transfer/prepared_file.h"
#include "transfer/socket_io.h"
#include <algorithm>
#include <cassert>
#include <cstring>

using namespace platform;

// The cipher context of one file.
struct SendCipher {
    BCRYPT_ALG_HANDLE hAlgorithm;
    BCRYPT_KEY_HANDLE hKey;
    uint8_t          *pbKeyObject;
};

// Bytes, or -1 (reported).
static int64_t SourceSize(const char16_t *pszPath)
{
    int64_t      cbSize = -1;
    const HANDLE hFile =
        CreateFileW(pszPath, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        ReportSocketError(u"GetFileSize", u"fopen_s failed!", false, REPORT_LAST_ERROR);
        return -1;
    }
    const bool     bSized  = GetFileSizeEx(hFile, &cbSize);
    const uint32_t dwError = GetLastError();
    CloseHandle(hFile);
    if (bSized) return cbSize;
    SetLastError(dwError);
    return -1;
}

// The key's length and blob. 0, or the code that ends the send here.
static int64_t SendBlob(SOCKET hSocket, const uint8_t *pbBlob, uint32_t cbBlob)
{
    TraceDebugW(u"[SendFile] nkeyData [%d]", cbBlob);
    if (SendBuffer(hSocket, &cbBlob, sizeof(cbBlob)) < static_cast<int32_t>(sizeof(cbBlob))) {
        ReportSocketError(u"SendFile", u"Send nkeyData failed", true, 0);
        return SENDFILE_KEY_SIZE_NOT_SENT;
    }
    if (cbBlob == 0) {
        TraceDebugW(u"[SendFile] nkeyData not right, exit !");
        return SENDFILE_NOT_ENCRYPTED;
    }
    if (SendBuffer(hSocket, pbBlob, static_cast<int32_t>(cbBlob)) < static_cast<int32_t>(cbBlob)) {
        ReportSocketError(u"SendFile", u"Send key failed", true, 0);
        return SENDFILE_KEY_NOT_SENT;
    }
    return 0;
}

// A new key and its blob to the peer. 0, or the code that ends the send here. A key that cannot be made or exported has
// no code of its own (-110 and -111 are never returned): the peer learns of it by a key length of 0, and
// SendNetworkFile knows a sender's encryption error by -1313 alone.
static int64_t SendKey(SOCKET hSocket, SendCipher *pCipher)
{
    uint8_t *pbBlob = nullptr;
    uint32_t cbBlob = 0;
    if (!GetKeyAlgHandle(nullptr, 0, &pCipher->hKey, &pCipher->pbKeyObject, &pCipher->hAlgorithm)) {
        TraceDebugW(u"[SendFile] GetKeyAlgHandle failed!");
    } else if (!OutputKeyHandleToByte(pCipher->hKey, &pbBlob, &cbBlob)) {
        TraceDebugW(u"[SendFile] OutputKeyHandleToByte failed!");
        cbBlob = 0;
    }
    const int64_t nRet = SendBlob(hSocket, pbBlob, cbBlob);
    delete[] pbBlob;
    return nRet;
}

// The reason to abort that was found last, or nPending.
static int64_t TestAbort(int64_t nPending)
{
    if (IsThreadExecutionCancel(g_hSendExecution)) {
        TraceDebugW(u"[SendFile] IsThreadExecutionCancel !");
        nPending = SENDFILE_CANCELLED;
    }
    const FileOutcome outcome = GetCurrentOutcome();
    if (outcome.bError) {
        TraceDebugW(u"[SendFile] g_bRemoteFileError !");
        nPending = SENDFILE_PEER_ERROR;
    }
    if (outcome.bFull) {
        TraceDebugW(u"[SendFile] g_bRemoteFileFull !");
        nPending = SENDFILE_PEER_DISK_FULL;
    }
    if (outcome.bTypeUnknown) {
        TraceDebugW(u"[SendFile] g_bRemoteFileTypeUnknown !");
        nPending = SENDFILE_PEER_TYPE_UNKNOWN;
    }
    return nPending;
}

// Fills the chunk from the file; what the file does not give is zeroed. False when it did not give all.
static bool ReadChunk(HANDLE hFile, uint8_t *pbChunk, uint32_t cbChunk)
{
    uint32_t cbDone = 0;
    while (cbDone < cbChunk) {
        uint32_t cbRead = 0;
        if (!ReadFile(hFile, pbChunk + cbDone, cbChunk - cbDone, &cbRead, nullptr)) break;
        if (cbRead == 0) {
            SetLastError(ERROR_HANDLE_EOF); // the file has become shorter than it was
            break;
        }
        cbDone += cbRead;
    }
    if (cbDone == cbChunk) return true;
    gdwErr = GetLastError();
    ReportSocketError(u"SendFile", u"file read failed", false, gdwErr);
    std::memset(pbChunk + cbDone, 0, cbChunk - cbDone);
    return false;
}

static void WriteCancelBlock(uint8_t *pbBlock)
{
    std::memset(pbBlock, 0, CANCEL_BLOCK_BYTES);
    std::memcpy(pbBlock, CANCEL_TEXT, CANCEL_TEXT_BYTES);
}

// 0; -3 or -4: the link took no more.
static int64_t SendCipherText(SOCKET hSocket, const uint8_t *pbCipher, uint32_t cbCipher)
{
    if (SendBuffer(hSocket, &cbCipher, sizeof(cbCipher)) < static_cast<int32_t>(sizeof(cbCipher))) {
        ReportSocketError(u"SendFile", u"Send nEncryptData failed", true, 0);
        return SENDFILE_LENGTH_NOT_SENT;
    }
    if (SendBuffer(hSocket, pbCipher, static_cast<int32_t>(cbCipher)) < static_cast<int32_t>(cbCipher)) {
        ReportSocketError(u"SendFile", u"Send file buffer failed", true, 0);
        return SENDFILE_CHUNK_NOT_SENT;
    }
    return 0;
}

// One chunk, encrypted. 0; -3 or -4: the link took no more and the stream ends.
//   bUnreadable   the chunk is no content and too short for the cancel block, which then goes in place of the cipher
//   text *pnPending    -120 and -121 are added to it *pbEncrypted  what became of this chunk
static int64_t SendEncrypted(SOCKET hSocket, const SendCipher *pCipher, const uint8_t *pbChunk, uint32_t cbChunk,
                             bool bUnreadable, int64_t *pnPending, bool *pbEncrypted)
{
    uint8_t       *pbCipher = nullptr;
    uint32_t       cbCipher = 0;
    uint8_t        aCancel[CANCEL_BLOCK_BYTES];
    const uint8_t *pbOut = nullptr;

    *pbEncrypted = EncryptDataWithKeyHandle(pCipher->hAlgorithm, pCipher->hKey, pbChunk, cbChunk, &pbCipher, &cbCipher);
    TraceDebugW(u"[SendFile] size [%d], nEncryptData [%d], diff [%d], bEncryptRet [%d]", cbChunk, cbCipher,
                cbCipher - cbChunk, *pbEncrypted ? 1 : 0);
    if (cbCipher >= CIPHER_CHUNK_BYTES) {
        ReportSocketError(u"SendFile", u"nEncryptData too large", true, 0);
        *pnPending   = SENDFILE_CIPHER_TOO_LARGE;
        *pbEncrypted = false;
    }
    if (*pbEncrypted && cbCipher < cbChunk) {
        ReportSocketError(u"SendFile", u"nEncryptData < size", true, 0);
        *pnPending   = SENDFILE_CIPHER_TOO_SMALL;
        *pbEncrypted = false;
    }
    pbOut = pbCipher;
    if (!*pbEncrypted || bUnreadable) {
        WriteCancelBlock(aCancel);
        pbOut    = aCancel;
        cbCipher = CANCEL_BLOCK_BYTES;
    }
    const int64_t nRet = SendCipherText(hSocket, pbOut, cbCipher);
    delete[] pbCipher;
    return nRet;
}

// The chunks. Result: the pending error, 0 when there is none.
//   pbLastEncrypted  of the last chunk that was tried     pbWhole  SendFile's
static int64_t SendChunks(SOCKET hSocket, HANDLE hFile, int64_t cbSize, const SendCipher *pCipher, int64_t nPending,
                          bool *pbLastEncrypted, bool *pbWhole)
{
    static uint8_t s_aChunk[FILE_CHUNK_BYTES]; // under g_csNetSocket
    uint8_t *const pbChunk     = s_aChunk;
    int64_t        cbRemaining = cbSize;
    bool           bCancelSent = false;
    while (cbRemaining > 0) {
        const auto cbChunk     = static_cast<uint32_t>(std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES));
        bool       bUnreadable = false;
        int64_t    nSendRet    = 0;
        nPending               = TestAbort(nPending);
        if (!ReadChunk(hFile, pbChunk, cbChunk)) {
            nPending    = SENDFILE_READ_FAILED;
            bUnreadable = cbChunk <= CANCEL_BLOCK_BYTES;
        }
        if (nPending != 0 && cbChunk > CANCEL_BLOCK_BYTES) {
            WriteCancelBlock(pbChunk);
            bCancelSent = true;
        }
        if (pCipher != nullptr) {
            nSendRet = SendEncrypted(hSocket, pCipher, pbChunk, cbChunk, bUnreadable, &nPending, pbLastEncrypted);
            bCancelSent |= !*pbLastEncrypted || bUnreadable;
        } else if (SendBuffer(hSocket, pbChunk, static_cast<int32_t>(cbChunk)) < static_cast<int32_t>(cbChunk)) {
            ReportSocketError(u"SendFile", u"Send file buffer failed", true, 0);
            nSendRet = SENDFILE_CHUNK_NOT_SENT;
        }
        if (nSendRet != 0) {
            nPending = nSendRet;
            break;
        }
        cbRemaining -= cbChunk;
        if (nPending != 0) {
            TraceDebugA("[SendFile] nErr -> Exit!");
            break;
        }
    }
    if (cbRemaining == 0 && !bCancelSent && pbWhole != nullptr) *pbWhole = true;
    return nPending;
}

// A file whose size, key and first chunk are ready.
static int64_t SendAhead(SOCKET hSocket, const PreparedFile *pFile, bool *pbWhole)
{
    const SendCipher cipher     = {pFile->hAlgorithm, pFile->hKey, pFile->pbKeyObject};
    bool             bEncrypted = true;
    assert(HoldsCriticalSection(&g_csNetSocket));
    TraceDebugA("[SendFile] filesize [%I64d]", pFile->cbSize);
    if (SendBuffer(hSocket, &pFile->cbSize, sizeof(pFile->cbSize)) < static_cast<int32_t>(sizeof(pFile->cbSize))) {
        ReportSocketError(u"SendFile", u"Send file size failed", true, 0);
        return SENDFILE_SIZE_NOT_SENT;
    }
    int64_t nRet = SendBlob(hSocket, pFile->pbBlob, pFile->cbBlob);
    if (nRet == 0 && pFile->cbSize > 0) nRet = SendCipherText(hSocket, pFile->pbCipher, pFile->cbCipher);
    if (nRet != 0) return nRet;
    const int64_t cbRest = pFile->cbSize - std::min<int64_t>(pFile->cbSize, FILE_CHUNK_BYTES);
    nRet                 = SendChunks(hSocket, pFile->hFile, cbRest, &cipher, 0, &bEncrypted, pbWhole);
    if (!bEncrypted) return SENDFILE_NOT_ENCRYPTED;
    return nRet != 0 ? nRet : pFile->cbSize;
}

int64_t SendPreparedFile(SOCKET hSocket, const char16_t *pszSource, uint8_t bEncrypt, const PreparedFile *pPrepared,
                         bool *pbWhole)
{
    return pPrepared != nullptr && bEncrypt ? SendAhead(hSocket, pPrepared, pbWhole)
                                            : SendFile(hSocket, pszSource, bEncrypt, pbWhole);
}

int64_t SendFile(SOCKET hSocket, const char16_t *pszSource, uint8_t bEncrypt, bool *pbWhole)
{
    char16_t        szLong[LONG_PATH_UNITS];
    const char16_t *pszPath    = LongPathForm(pszSource, STREAM_PATH_UNITS + 1, szLong);
    int64_t         nPending   = 0;
    bool            bEncrypted = true;
    SendCipher      cipher     = {};
    assert(HoldsCriticalSection(&g_csNetSocket));
    if (pszPath == szLong) TraceDebugW(u"[SendFile] szSrcUNC [%s]", pszPath);

    int64_t cbSize = SourceSize(pszPath);
    if (cbSize < 0) {
        gdwErr = GetLastError();
        ReportSocketError(u"SendFile", u" !!! fileSize < 0", true, 0);
        TraceDebugW(u"[SendFile] fileSize < 0 [%s]", pszPath);
        cbSize   = 0;
        nPending = SENDFILE_SIZE_UNKNOWN;
    }
    const HANDLE hFile = CreateFileW(pszPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) {
        gdwErr = GetLastError();
        ReportSocketError(u"SendFile", u" !!! file create failed", false, REPORT_LAST_ERROR);
        TraceDebugW(u"[SendFile] fileSize create failed [%s]", pszPath);
        cbSize   = 0;
        nPending = SENDFILE_OPEN_FAILED;
    }
    TraceDebugA("[SendFile] filesize [%I64d]", cbSize);
    int64_t nEnd = 0; // not 0: nothing more is sent
    if (SendBuffer(hSocket, &cbSize, sizeof(cbSize)) < static_cast<int32_t>(sizeof(cbSize))) {
        ReportSocketError(u"SendFile", u"Send file size failed", true, 0);
        nEnd = SENDFILE_SIZE_NOT_SENT;
    } else if (bEncrypt) {
        nEnd = SendKey(hSocket, &cipher);
    }
    if (nEnd == 0)
        nPending = SendChunks(hSocket, hFile, cbSize, bEncrypt ? &cipher : nullptr, nPending, &bEncrypted, pbWhole);
    if (hFile != INVALID_HANDLE_VALUE) CloseHandle(hFile);
    // Without its size the stream never came to a key; lines about one that cannot be released would mislead.
    if (bEncrypt && nEnd != SENDFILE_SIZE_NOT_SENT)
        ReleaseKeyHandle(cipher.hAlgorithm, cipher.hKey, cipher.pbKeyObject);
    if (nEnd != 0) return nEnd;
    if (!bEncrypted) return SENDFILE_NOT_ENCRYPTED; // of the last chunk; the peer stopped at the first that failed
    return nPending != 0 ? nPending : cbSize;
}
