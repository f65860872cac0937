// recv_file.cpp: one file's body from the peer.
// The stream has no marks to find the next command by, so a local failure never ends the reading: the rest is read and
// discarded, and each chunk counts with the length it should have had. Only the sender's cancel block and a broken link
// end a stream early. Every length comes from the peer and is bounded before it is used.
#include "transfer/recv_file.h"
#include "net/command_channel.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include "transfer/receipt_answer.h"
#include "transfer/socket_io.h"
#include <algorithm>
#include <cstring>
#include <new>

using namespace platform;

// Of a file whose stream is there already: the answers before it wait for its own.
constexpr uint32_t KEY_ROOM    = 1024;    // for the key and the chunks' lengths and padding
constexpr int64_t  LARGE_BYTES = 1 << 30; // more than ever waits on a socket

// What RecvFile keeps of one file.
struct FileReceipt {
    SOCKET            hSocket;
    IncomingFile     *pFile;
    bool              bEncrypt;
    bool              bTypeUnknown; // the stream is read, and nothing stored
    bool              bAnswered;    // the sender has its error word; one is enough
    BCRYPT_ALG_HANDLE hAlgorithm;
    BCRYPT_KEY_HANDLE hKey;
    uint8_t          *pbKeyObject;
    int64_t           nPending; // the last error, 0: none
};

// One chunk of an encrypted stream.
struct CipherChunk {
    uint32_t cbExpected; // plain bytes
    uint32_t cbCipher;   // as announced
    uint32_t cbHeld;     // of them in the buffer
    uint8_t *pbPlain;    // to be deleted
    uint32_t cbPlain;
};

// The chunk as it comes from the wire. One block serves all files, since one listener receives at a time; where a new
// link's listener starts while the last one's still ends, the second takes one of its own.
static uint8_t           g_aChunk[CIPHER_CHUNK_BYTES];
static std::atomic<bool> g_bChunkTaken{false};

static uint8_t *TakeChunkBuffer()
{
    return g_bChunkTaken.exchange(true) ? new (std::nothrow) uint8_t[CIPHER_CHUNK_BYTES] : g_aChunk;
}

static void GiveChunkBuffer(uint8_t *pbBuffer)
{
    if (pbBuffer == g_aChunk) g_bChunkTaken = false;
    else delete[] pbBuffer;
}

// Receives a field; a failure is saved and reported.
static bool RecvField(const FileReceipt *pReceipt, void *pField, uint32_t cb, const char16_t *pszFailure)
{
    if (RecvBuffer(pReceipt->hSocket, pField, static_cast<int32_t>(cb)) >= static_cast<int32_t>(cb)) return true;
    g_nWSAErr = WSAGetLastError();
    ReportSocketError(u"RecvFile", pszFailure, true, 0);
    return false;
}

// Reads cb bytes and keeps none, in pieces of the buffer's size.
static bool DiscardBytes(const FileReceipt *pReceipt, uint8_t *pbBuffer, uint32_t cb, const char16_t *pszFailure)
{
    while (cb > 0) {
        const uint32_t cbPiece = std::min(cb, CIPHER_CHUNK_BYTES);
        if (!RecvField(pReceipt, pbBuffer, cbPiece, pszFailure)) return false;
        cb -= cbPiece;
    }
    return true;
}

// The key's length and blob, and its import. 0, or the code that ends the receipt here.
// A blob above the buffer is no key: what its copy and the log show of it is kept, the rest is read and discarded.
static int64_t RecvKey(FileReceipt *pReceipt, uint8_t *pbBuffer)
{
    uint32_t cbKey = 0;
    if (!RecvField(pReceipt, &cbKey, sizeof(cbKey), u"Recv key size failed")) return RECVFILE_NO_KEY_SIZE;
    TraceDebugW(u"[RecvFile] nkeyData [%d]", cbKey);
    g_dwKeySize = cbKey;
    if (cbKey == 0) {
        TraceDebugW(u"[RecvFile] nkeyData not right, exit!");
        return RECVFILE_EMPTY_KEY;
    }
    const uint32_t cbHeld = std::min(cbKey, CIPHER_CHUNK_BYTES);
    if (!RecvField(pReceipt, pbBuffer, cbHeld, u"Recv key failed")) return RECVFILE_NO_KEY;
    std::memcpy(g_szFileKey, pbBuffer, std::min(cbHeld, FILE_KEY_BYTES));

    constexpr uint32_t SHOWN_BYTES         = 5;
    uint8_t            aFirst[SHOWN_BYTES] = {};
    uint8_t            aLast[SHOWN_BYTES]  = {};
    std::memcpy(aFirst, pbBuffer, std::min(cbHeld, SHOWN_BYTES));
    if (cbKey > cbHeld) { // the last bytes come on their own, whatever the length
        if (!DiscardBytes(pReceipt, pbBuffer, cbKey - cbHeld - std::min(cbKey - cbHeld, SHOWN_BYTES),
                          u"Recv key failed") ||
            !RecvField(pReceipt, aLast, std::min(cbKey - cbHeld, SHOWN_BYTES), u"Recv key failed"))
            return RECVFILE_NO_KEY;
    } else {
        std::memcpy(aLast, pbBuffer + cbHeld - std::min(cbHeld, SHOWN_BYTES), std::min(cbHeld, SHOWN_BYTES));
    }
    if (cbKey >= FILE_KEY_BYTES) TraceDebugW(u"[RecvFile] nkeyData >= 580 !");
    TraceDebugW(
        u"[RecvFile] g_dwKeySize[%d], g_szFileKey [0x%X][0x%X][0x%X][0x%X][0x%X] - [0x%X][0x%X][0x%X][0x%X][0x%X]",
        cbKey, aFirst[0], aFirst[1], aFirst[2], aFirst[3], aFirst[4], aLast[0], aLast[1], aLast[2], aLast[3], aLast[4]);
    if (cbKey > cbHeld ||
        !GetKeyAlgHandle(pbBuffer, cbKey, &pReceipt->hKey, &pReceipt->pbKeyObject, &pReceipt->hAlgorithm)) {
        TraceDebugW(u"[RecvFile] GetKeyAlgHandle failed!");
        pReceipt->nPending = RECVFILE_KEY_REFUSED;
    }
    return 0;
}

// The failure's code, and the one word to the sender.
static void Fail(FileReceipt *pReceipt, int64_t nError, uint32_t dwError)
{
    pReceipt->nPending = nError;
    if (pReceipt->bAnswered) return;
    pReceipt->bAnswered = true;
    SendFileError(pReceipt->hSocket, pReceipt->pFile->szPath, pReceipt->bTypeUnknown, dwError);
}

// A failure of this machine's disk.
static void FailDisk(FileReceipt *pReceipt, int64_t nError, const char16_t *pszWhat)
{
    gdwErr = pReceipt->pFile->dwError;
    ReportSocketError(u"RecvFile", pszWhat, false, pReceipt->pFile->dwError);
    Fail(pReceipt, nError, pReceipt->pFile->dwError);
}

static void WriteChunk(FileReceipt *pReceipt, const uint8_t *pbPlain, uint32_t cbPlain)
{
    if (pReceipt->pFile->hFile == INVALID_HANDLE_VALUE)
        TraceDebugW(u"[RecvFile] !bFileCreateOK or g_bRecvFileTypeUnknown, not write file.");
    else if (WriteIncomingFile(pReceipt->pFile, pbPlain, cbPlain)) g_nRecvFileWritten += cbPlain;
    else FailDisk(pReceipt, RECVFILE_WRITE_FAILED, u"file write failed");
}

static bool IsCancelText(const uint8_t *pb, uint32_t cb)
{
    return cb >= CANCEL_TEXT_BYTES && std::memcmp(pb, CANCEL_TEXT, CANCEL_TEXT_BYTES) == 0;
}

// The bytes of a chunk that cannot be content: the sender is told, and nothing more is written.
static void RefuseChunk(FileReceipt *pReceipt, int64_t nError)
{
    Fail(pReceipt, nError, ERROR_SUCCESS);
    CloseIncomingFile(pReceipt->pFile);
}

// A chunk's length and cipher text into the buffer, as much as that holds. False: the stream ends here, with the error
// set.
static bool RecvCipherText(FileReceipt *pReceipt, uint8_t *pbBuffer, CipherChunk *pChunk)
{
    if (!RecvField(pReceipt, &pChunk->cbCipher, sizeof(pChunk->cbCipher), u"Recv encrypt size failed")) {
        pReceipt->nPending = RECVFILE_NO_LENGTH;
        return false;
    }
    if (pChunk->cbCipher >= CIPHER_CHUNK_BYTES) {
        TraceDebugW(u"[RecvFile] !!! nEncryptData [%d] too large", pChunk->cbCipher);
        pReceipt->nPending = RECVFILE_CIPHER_TOO_LARGE;
    }
    if (pChunk->cbCipher < pChunk->cbExpected) {
        ReportSocketError(u"RecvFile", u"!!! nEncryptData < size", true, 0);
        pReceipt->nPending = RECVFILE_CIPHER_TOO_SMALL;
    }
    pChunk->cbHeld = std::min(pChunk->cbCipher, CIPHER_CHUNK_BYTES);
    if (!RecvField(pReceipt, pbBuffer, pChunk->cbHeld, u"Recv file buffer failed")) {
        pReceipt->nPending = RECVFILE_NO_CHUNK;
        return false;
    }
    const bool bCancelBlock = IsCancelText(pbBuffer, pChunk->cbHeld); // before what is discarded goes over it
    if (!DiscardBytes(pReceipt, pbBuffer, pChunk->cbCipher - pChunk->cbHeld, u"Recv file buffer failed")) {
        pReceipt->nPending = RECVFILE_NO_CHUNK;
        return false;
    }
    if (!bCancelBlock) return true;
    TraceDebugA("[RecvFile] buffer2 Recv SENDFILECANCEL.");
    pReceipt->nPending = RECVFILE_CANCEL_IN_CIPHER;
    return false;
}

// What is wrong with a decrypted chunk's length; reported. 0: nothing.
static int64_t CheckPlainLength(const CipherChunk *pChunk, int64_t cbRemaining)
{
    if (pChunk->cbPlain > FILE_CHUNK_BYTES) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData > chunkSize", true, 0);
        return RECVFILE_PLAIN_ABOVE_CHUNK;
    }
    if (pChunk->cbPlain < FILE_CHUNK_BYTES && cbRemaining > FILE_CHUNK_BYTES) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData < chunkSize && i > chunkSize", true, 0);
        return RECVFILE_PLAIN_BELOW_CHUNK;
    }
    if (pChunk->cbPlain != pChunk->cbExpected) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData != size", true, 0);
        return RECVFILE_PLAIN_WRONG;
    }
    return 0;
}

// One chunk, received, decrypted and written. False: the stream ends here, with the error set.
static bool RecvCipherChunk(FileReceipt *pReceipt, uint8_t *pbBuffer, int64_t cbRemaining)
{
    CipherChunk chunk = {};
    chunk.cbExpected  = static_cast<uint32_t>(std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES));
    if (!RecvCipherText(pReceipt, pbBuffer, &chunk)) return false;
    if (chunk.cbCipher >= CIPHER_CHUNK_BYTES) { // no chunk decrypts to what the peer may send from so many bytes
        RefuseChunk(pReceipt, RECVFILE_CIPHER_TOO_LARGE);
        WriteChunk(pReceipt, pbBuffer, 0);
        return true;
    }
    const bool bDecrypted = DecryptDataWithKeyHandle(pReceipt->hAlgorithm, pReceipt->hKey, pbBuffer, chunk.cbCipher,
                                                     &chunk.pbPlain, &chunk.cbPlain);
    TraceDebugW(u"[RecvFile] nDecryptData [%d], size [%d], diff [%d], nEncryptData [%d], bDecryptRet [%d]",
                chunk.cbPlain, chunk.cbExpected, chunk.cbCipher - chunk.cbPlain, chunk.cbCipher, bDecrypted ? 1 : 0);
    const int64_t nError = CheckPlainLength(&chunk, cbRemaining);
    if (nError != 0 || !bDecrypted) RefuseChunk(pReceipt, nError);
    const bool bCancelled = IsCancelText(chunk.pbPlain, chunk.cbPlain);
    if (bCancelled) {
        TraceDebugA("[RecvFile] Recv SENDFILECANCEL.");
        pReceipt->nPending = RECVFILE_CANCEL_IN_DATA;
    } else {
        WriteChunk(pReceipt, chunk.pbPlain, std::min(chunk.cbPlain, FILE_CHUNK_BYTES));
    }
    delete[] chunk.pbPlain;
    return !bCancelled;
}

static bool RecvPlainChunk(FileReceipt *pReceipt, uint8_t *pbBuffer, int64_t cbRemaining)
{
    const auto cbExpected = static_cast<uint32_t>(std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES));
    if (!RecvField(pReceipt, pbBuffer, cbExpected, u"Recv file buffer failed")) {
        pReceipt->nPending = RECVFILE_NO_CHUNK;
        return false;
    }
    if (IsCancelText(pbBuffer, cbExpected)) {
        TraceDebugA("[RecvFile] Recv SENDFILECANCEL.");
        pReceipt->nPending = RECVFILE_CANCEL_IN_DATA;
        return false;
    }
    WriteChunk(pReceipt, pbBuffer, cbExpected);
    return true;
}

// Everything behind size and key. The file's size, or the error.
static int64_t RecvBody(FileReceipt *pReceipt, uint8_t *pbBuffer, int64_t cbSize)
{
    if (pReceipt->bTypeUnknown) {
        TraceDebugW(u"[RecvFile] g_bRecvFileTypeUnknown!");
        Fail(pReceipt, RECVFILE_TYPE_UNKNOWN, ERROR_SUCCESS); // and the destination, whoever's it is, is not touched
    } else if (!CreateIncomingFile(pReceipt->pFile, cbSize)) {
        FailDisk(pReceipt, RECVFILE_CREATE_FAILED, u"file create failed");
    }
    g_bRecvFileActive = 1;
    for (int64_t cbRemaining = cbSize; cbRemaining > 0; cbRemaining -= std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES))
        if (!(pReceipt->bEncrypt ? RecvCipherChunk(pReceipt, pbBuffer, cbRemaining)
                                 : RecvPlainChunk(pReceipt, pbBuffer, cbRemaining)))
            break;
    g_bRecvFileActive = 0;
    // One line for each step of the clean-up, as the logs have always had them; the chunk's buffers are gone with the
    // chunk.
    TraceDebugW(u"[RecvFile] exit while - delete buffer.");
    TraceDebugW(u"[RecvFile] exit while - delete buffer2.");
    TraceDebugW(u"[RecvFile] exit while - check if file close.");
    TraceDebugW(u"[RecvFile] exit while - check if delete[] decryptData.");
    TraceDebugW(u"[RecvFile] exit while - ReleaseKeyHandle.");
    if (pReceipt->bEncrypt) ReleaseKeyHandle(pReceipt->hAlgorithm, pReceipt->hKey, pReceipt->pbKeyObject);

    if (cbSize >= 0 && pReceipt->nPending == 0 && !FinishIncomingFile(pReceipt->pFile))
        FailDisk(pReceipt, RECVFILE_WRITE_FAILED, u"file write failed");
    const int64_t nRet = pReceipt->nPending != 0 ? pReceipt->nPending : cbSize;
    if (nRet >= 0) return nRet;
    TraceDebugW(u"[RecvFile] nErr -> try delete file.");
    DropIncomingFile(pReceipt->pFile);
    return nRet;
}

int64_t RecvFile(SOCKET hSocket, IncomingFile *pFile, uint8_t bEncrypt)
{
    FileReceipt receipt  = {};
    int64_t     cbSize   = 0;
    int64_t     nRet     = 0;
    receipt.hSocket      = hSocket;
    receipt.pFile        = pFile;
    receipt.bEncrypt     = bEncrypt != 0;
    receipt.bTypeUnknown = g_bRecvFileTypeUnknown != 0;
    if (CompareTextW(pFile->szPath, pFile->szLocal) != 0) TraceDebugW(u"[RecvFile] szDstUNC [%s]", pFile->szLocal);
    g_dwKeySize        = 0;
    g_nRecvFileWritten = 0;
    std::memset(g_szFileKey, 0, sizeof(g_szFileKey));

    if (!RecvField(&receipt, &cbSize, sizeof(cbSize), u"Recv file size failed")) return RECVFILE_NO_SIZE;
    TraceDebugA("[RecvFile] filesize [%I64d]", cbSize);
    ReleaseAnswersUnlessThere(hSocket, static_cast<uint32_t>(std::clamp<int64_t>(cbSize, 0, LARGE_BYTES)) + KEY_ROOM);
    uint8_t *pbBuffer = TakeChunkBuffer();
    if (pbBuffer == nullptr) {
        gdwErr = ERROR_NOT_ENOUGH_MEMORY;
        return RECVFILE_NO_SIZE;
    }
    if (receipt.bEncrypt) nRet = RecvKey(&receipt, pbBuffer);
    if (nRet == 0) nRet = RecvBody(&receipt, pbBuffer, cbSize);
    GiveChunkBuffer(pbBuffer);
    return nRet;
}
