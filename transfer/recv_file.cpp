// recv_file.cpp: one file's body from the peer.
// The stream has no marks to find the next command by, so a local failure never ends the reading: the rest is read and
// discarded, and each chunk counts with the length it should have had. Only the sender's cancel block and a broken link
// end a stream early. Every length comes from the peer and is bounded before it is used.
#include "transfer/recv_file.h"
#include "net/command_channel.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include "transfer/socket_io.h"
#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

using namespace platform;

constexpr size_t FILE_NAME_UNITS = 255; // of one name, without terminator

// What RecvFile keeps of one file.
struct FileReceipt {
    SOCKET          hSocket;
    const char16_t *pszDestination; // as given, for the log
    const char16_t *pszPath;        // the destination in the form it is opened in
    char16_t        szLong[LONG_PATH_UNITS];
    char16_t szReceiving[LONG_PATH_UNITS]; // what is written while the file is not whole; empty: the destination itself
    HANDLE   hFile;                        // INVALID_HANDLE_VALUE: chunks are discarded
    bool     bCreated;                     // by us, so a failure deletes it
    bool     bEncrypt;
    BCRYPT_ALG_HANDLE hAlgorithm;
    BCRYPT_KEY_HANDLE hKey;
    uint8_t          *pbKeyObject;
    int64_t           nPending; // the last error, 0: none
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
    if (!RecvField(pReceipt, &cbKey, sizeof cbKey, u"Recv key size failed")) return RECVFILE_NO_KEY_SIZE;
    TraceDebugW(u"[RecvFile] nkeyData [%d]", cbKey);
    g_dwKeySize = cbKey;
    if (cbKey == 0) {
        TraceDebugW(u"[RecvFile] nkeyData not right, exit!");
        return RECVFILE_EMPTY_KEY;
    }
    const uint32_t cbHeld = std::min(cbKey, CIPHER_CHUNK_BYTES);
    if (!RecvField(pReceipt, pbBuffer, cbHeld, u"Recv key failed")) return RECVFILE_NO_KEY;
    memcpy(g_szFileKey, pbBuffer, std::min(cbHeld, FILE_KEY_BYTES));

    constexpr uint32_t SHOWN_BYTES         = 5;
    uint8_t            aFirst[SHOWN_BYTES] = {};
    uint8_t            aLast[SHOWN_BYTES]  = {};
    memcpy(aFirst, pbBuffer, std::min(cbHeld, SHOWN_BYTES));
    if (cbKey > cbHeld) { // the last bytes come on their own, whatever the length
        if (!DiscardBytes(pReceipt, pbBuffer, cbKey - cbHeld - std::min(cbKey - cbHeld, SHOWN_BYTES),
                          u"Recv key failed") ||
            !RecvField(pReceipt, aLast, std::min(cbKey - cbHeld, SHOWN_BYTES), u"Recv key failed"))
            return RECVFILE_NO_KEY;
    } else {
        memcpy(aLast, pbBuffer + cbHeld - std::min(cbHeld, SHOWN_BYTES), std::min(cbHeld, SHOWN_BYTES));
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

// True when the destination's name is free, with the path to write meanwhile in szReceiving. Anything else (the name is
// taken, is no name, its folder is missing or closed to us) is for the destination's own creation to find out.
static bool ChooseReceivingPath(FileReceipt *pReceipt)
{
    char16_t szPlain[LONG_PATH_UNITS];
    size_t   cchFolder = 0;
    if (GetFileAttributesW(pReceipt->pszPath) != INVALID_FILE_ATTRIBUTES || GetLastError() != ERROR_FILE_NOT_FOUND)
        return false;
    for (size_t i = 0; pReceipt->pszPath[i] != 0; ++i)
        if (pReceipt->pszPath[i] == u'\\') cchFolder = i + 1;
    if (cchFolder == 0 || !CopyTextW(szPlain, LONG_PATH_UNITS, pReceipt->pszPath)) return false;
    const bool bSuffixFits = TextLengthW(szPlain + cchFolder) + std::size(RECEIVING_SUFFIX) - 1 <= FILE_NAME_UNITS;
    if (!bSuffixFits) szPlain[cchFolder] = 0;
    if (!AppendTextW(szPlain, LONG_PATH_UNITS, RECEIVING_SUFFIX)) return false;
    const char16_t *pszForm = LongPathForm(szPlain, STREAM_PATH_UNITS + 1, pReceipt->szReceiving);
    return pszForm == pReceipt->szReceiving || CopyTextW(pReceipt->szReceiving, LONG_PATH_UNITS, pszForm);
}

static void CreateDestination(FileReceipt *pReceipt)
{
    if (!ChooseReceivingPath(pReceipt)) pReceipt->szReceiving[0] = 0;
    pReceipt->hFile =
        CreateFileW(pReceipt->szReceiving[0] != 0 ? pReceipt->szReceiving : pReceipt->pszPath, GENERIC_WRITE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    pReceipt->bCreated = pReceipt->hFile != INVALID_HANDLE_VALUE;
    if (pReceipt->bCreated) return;
    gdwErr = GetLastError();
    ReportSocketError(u"RecvFile", u"file create failed", false, gdwErr);
    SendFileError(pReceipt->hSocket, pReceipt->pszDestination);
    pReceipt->nPending = RECVFILE_CREATE_FAILED;
}

static void CloseDestination(FileReceipt *pReceipt)
{
    if (pReceipt->hFile != INVALID_HANDLE_VALUE) CloseHandle(pReceipt->hFile);
    pReceipt->hFile = INVALID_HANDLE_VALUE;
}

static void FailWrite(FileReceipt *pReceipt)
{
    gdwErr = GetLastError();
    ReportSocketError(u"RecvFile", u"file write failed", false, gdwErr);
    SendFileError(pReceipt->hSocket, pReceipt->pszDestination);
    CloseDestination(pReceipt);
    pReceipt->nPending = RECVFILE_WRITE_FAILED;
}

static void WriteChunk(FileReceipt *pReceipt, const uint8_t *pbPlain, uint32_t cbPlain)
{
    uint32_t cbDone = 0;
    if (pReceipt->hFile == INVALID_HANDLE_VALUE || g_bRecvFileTypeUnknown) {
        TraceDebugW(u"[RecvFile] !bFileCreateOK or g_bRecvFileTypeUnknown, not write file.");
        return;
    }
    while (cbDone < cbPlain) {
        uint32_t cbWritten = 0;
        if (!WriteFile(pReceipt->hFile, pbPlain + cbDone, cbPlain - cbDone, &cbWritten, nullptr)) {
            FailWrite(pReceipt);
            return;
        }
        cbDone += cbWritten;
    }
    g_nRecvFileWritten += cbPlain;
}

static bool IsCancelText(const uint8_t *pb, uint32_t cb)
{
    return cb >= CANCEL_TEXT_BYTES && memcmp(pb, CANCEL_TEXT, CANCEL_TEXT_BYTES) == 0;
}

// The bytes of a chunk that cannot be content: the sender is told, and nothing more is written.
static void RefuseChunk(FileReceipt *pReceipt, int64_t nError)
{
    pReceipt->nPending = nError;
    SendFileError(pReceipt->hSocket, pReceipt->pszDestination);
    CloseDestination(pReceipt);
}

// One chunk's cipher text, decrypted and written. False: the stream ends here, with the error set.
static bool RecvCipherChunk(FileReceipt *pReceipt, uint8_t *pbBuffer, int64_t cbRemaining)
{
    const auto cbExpected = static_cast<uint32_t>(std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES));
    uint32_t   cbCipher   = 0;
    uint8_t   *pbPlain    = nullptr;
    uint32_t   cbPlain    = 0;
    if (!RecvField(pReceipt, &cbCipher, sizeof cbCipher, u"Recv encrypt size failed")) {
        pReceipt->nPending = RECVFILE_NO_LENGTH;
        return false;
    }
    const bool bTooLarge = cbCipher >= CIPHER_CHUNK_BYTES;
    if (bTooLarge) {
        TraceDebugW(u"[RecvFile] !!! nEncryptData [%d] too large", cbCipher);
        pReceipt->nPending = RECVFILE_CIPHER_TOO_LARGE;
    }
    if (cbCipher < cbExpected) {
        ReportSocketError(u"RecvFile", u"!!! nEncryptData < size", true, 0);
        pReceipt->nPending = RECVFILE_CIPHER_TOO_SMALL;
    }
    const uint32_t cbHeld = std::min(cbCipher, CIPHER_CHUNK_BYTES);
    if (!RecvField(pReceipt, pbBuffer, cbHeld, u"Recv file buffer failed")) {
        pReceipt->nPending = RECVFILE_NO_CHUNK;
        return false;
    }
    const bool bCancelBlock = IsCancelText(pbBuffer, cbHeld); // looked for first: what is discarded goes over it
    if (!DiscardBytes(pReceipt, pbBuffer, cbCipher - cbHeld, u"Recv file buffer failed")) {
        pReceipt->nPending = RECVFILE_NO_CHUNK;
        return false;
    }
    if (bCancelBlock) {
        TraceDebugA("[RecvFile] buffer2 Recv SENDFILECANCEL.");
        pReceipt->nPending = RECVFILE_CANCEL_IN_CIPHER;
        return false;
    }
    if (bTooLarge) { // no chunk decrypts to what the peer may send from so many bytes
        RefuseChunk(pReceipt, RECVFILE_CIPHER_TOO_LARGE);
        WriteChunk(pReceipt, pbBuffer, 0);
        return true;
    }
    const bool bDecrypted =
        DecryptDataWithKeyHandle(pReceipt->hAlgorithm, pReceipt->hKey, pbBuffer, cbCipher, &pbPlain, &cbPlain);
    TraceDebugW(u"[RecvFile] nDecryptData [%d], size [%d], diff [%d], nEncryptData [%d], bDecryptRet [%d]", cbPlain,
                cbExpected, cbCipher - cbPlain, cbCipher, bDecrypted ? 1 : 0);
    int64_t nError = 0;
    if (cbPlain > FILE_CHUNK_BYTES) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData > chunkSize", true, 0);
        nError = RECVFILE_PLAIN_ABOVE_CHUNK;
    } else if (cbPlain < FILE_CHUNK_BYTES && cbRemaining > FILE_CHUNK_BYTES) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData < chunkSize && i > chunkSize", true, 0);
        nError = RECVFILE_PLAIN_BELOW_CHUNK;
    } else if (cbPlain != cbExpected) {
        ReportSocketError(u"RecvFile", u"!!! nDecryptData != size", true, 0);
        nError = RECVFILE_PLAIN_WRONG;
    }
    if (nError != 0 || !bDecrypted) RefuseChunk(pReceipt, nError);
    const bool bCancelled = IsCancelText(pbPlain, cbPlain);
    if (bCancelled) {
        TraceDebugA("[RecvFile] Recv SENDFILECANCEL.");
        pReceipt->nPending = RECVFILE_CANCEL_IN_DATA;
    } else {
        WriteChunk(pReceipt, pbPlain, std::min(cbPlain, FILE_CHUNK_BYTES));
    }
    delete[] pbPlain;
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

// Gives a file that is whole its name. Somebody's scan of new files may hold it for a moment.
static void NameDestination(FileReceipt *pReceipt)
{
    constexpr int      ATTEMPTS = 10;
    constexpr uint32_t PAUSE_MS = 20;
    for (int i = 1; !MoveFileExW(pReceipt->szReceiving, pReceipt->pszPath, 0); ++i) {
        const uint32_t dwError = GetLastError();
        if (i == ATTEMPTS || (dwError != ERROR_SHARING_VIOLATION && dwError != ERROR_ACCESS_DENIED)) {
            FailWrite(pReceipt);
            return;
        }
        Sleep(PAUSE_MS);
    }
    pReceipt->bCreated = false; // nothing of ours is left under the other name
}

// Everything behind size and key. The file's size, or the error.
static int64_t RecvBody(FileReceipt *pReceipt, uint8_t *pbBuffer, int64_t cbSize)
{
    if (g_bRecvFileTypeUnknown) {
        TraceDebugW(u"[RecvFile] g_bRecvFileTypeUnknown!");
        SendFileError(pReceipt->hSocket, pReceipt->pszDestination);
        pReceipt->nPending = RECVFILE_TYPE_UNKNOWN; // and the destination, whoever's it is, is not touched
    } else {
        CreateDestination(pReceipt);
    }
    g_bRecvFileActive = 1;
    for (int64_t cbRemaining = cbSize; cbRemaining > 0; cbRemaining -= std::min<int64_t>(cbRemaining, FILE_CHUNK_BYTES))
        if (!(pReceipt->bEncrypt ? RecvCipherChunk(pReceipt, pbBuffer, cbRemaining)
                                 : RecvPlainChunk(pReceipt, pbBuffer, cbRemaining)))
            break;
    // One line for each step of the clean-up, as the logs have always had them; the chunk's buffers are gone with the
    // chunk.
    TraceDebugW(u"[RecvFile] exit while - delete buffer.");
    TraceDebugW(u"[RecvFile] exit while - delete buffer2.");
    TraceDebugW(u"[RecvFile] exit while - check if file close.");
    CloseDestination(pReceipt);
    g_bRecvFileActive = 0;
    TraceDebugW(u"[RecvFile] exit while - check if delete[] decryptData.");
    TraceDebugW(u"[RecvFile] exit while - ReleaseKeyHandle.");
    if (pReceipt->bEncrypt) ReleaseKeyHandle(pReceipt->hAlgorithm, pReceipt->hKey, pReceipt->pbKeyObject);

    if (cbSize >= 0 && pReceipt->nPending == 0 && pReceipt->szReceiving[0] != 0) NameDestination(pReceipt);
    const int64_t nRet = pReceipt->nPending != 0 ? pReceipt->nPending : cbSize;
    if (nRet >= 0) return nRet;
    TraceDebugW(u"[RecvFile] nErr -> try delete file.");
    // A destination that could not be created is somebody else's file, or none.
    if (pReceipt->bCreated) DeleteFileW(pReceipt->szReceiving[0] != 0 ? pReceipt->szReceiving : pReceipt->pszPath);
    return nRet;
}

int64_t RecvFile(SOCKET hSocket, const char16_t *pszDestination, uint8_t bEncrypt)
{
    FileReceipt receipt    = {};
    int64_t     cbSize     = 0;
    int64_t     nRet       = 0;
    receipt.hSocket        = hSocket;
    receipt.pszDestination = pszDestination;
    receipt.pszPath        = LongPathForm(pszDestination, STREAM_PATH_UNITS + 1, receipt.szLong);
    receipt.hFile          = INVALID_HANDLE_VALUE;
    receipt.bEncrypt       = bEncrypt != 0;
    if (receipt.pszPath == receipt.szLong) TraceDebugW(u"[RecvFile] szDstUNC [%s]", receipt.pszPath);
    g_dwKeySize        = 0;
    g_nRecvFileWritten = 0;
    gdwErr             = ERROR_SUCCESS; // an earlier file's full disk must not choose this file's error word
    memset(g_szFileKey, 0, sizeof g_szFileKey);

    if (!RecvField(&receipt, &cbSize, sizeof cbSize, u"Recv file size failed")) return RECVFILE_NO_SIZE;
    TraceDebugA("[RecvFile] filesize [%I64d]", cbSize);
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
