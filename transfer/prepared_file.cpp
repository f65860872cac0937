// prepared_file.cpp: the steps of SendFile that need neither the line nor the lock, ahead of their time.
// The file is opened as SendFile opens it: refusing writers while its size and first chunk are read, sharing it with
// everybody while it waits.
#include "transfer/prepared_file.h"
#include "net/network_link.h"
#include "platform/files.h"
#include "platform/path.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include <algorithm>
#include <memory>
#include <new>

using namespace platform;

// Size, write time and attributes. False when it cannot be asked, or is a folder.
static bool QuerySource(const char16_t *pszPath, PreparedFile *pFile)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExW(pszPath, GetFileExInfoStandard, &data)) return false;
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return false;
    pFile->dwAttributes = data.dwFileAttributes;
    pFile->cbSize       = static_cast<int64_t>(static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow);
    pFile->ullWriteTime =
        static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
    return true;
}

static bool ReadAll(HANDLE hFile, uint8_t *pb, uint32_t cb)
{
    for (uint32_t cbDone = 0, cbRead = 0; cbDone < cb; cbDone += cbRead)
        if (!ReadFile(hFile, pb + cbDone, cb - cbDone, &cbRead, nullptr) || cbRead == 0) return false;
    return true;
}

// The first chunk as plain bytes, and the handle to go on with where there is more. False: not as it was asked before.
static bool ReadFirstChunk(const char16_t *pszPath, PreparedFile *pFile, uint8_t *pbPlain, uint32_t cbPlain)
{
    int64_t cbSize = 0;
    HANDLE  hFile =
        CreateFileW(pszPath, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return false;
    bool bRead = GetFileSizeEx(hFile, &cbSize) && cbSize == pFile->cbSize;
    if (bRead && cbSize > cbPlain) {
        const HANDLE hShared = CreateFileW(pszPath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
        bRead                = hShared != INVALID_HANDLE_VALUE;
        if (bRead) pFile->hFile = hShared;
    }
    bRead = bRead && ReadAll(pFile->hFile != nullptr ? pFile->hFile : hFile, pbPlain, cbPlain);
    CloseHandle(hFile);
    return bRead;
}

static bool MakeKey(PreparedFile *pFile)
{
    EnterCriticalSection(&g_csNetSocket); // the key material is the process's
    const bool bMade = GetKeyAlgHandle(nullptr, 0, &pFile->hKey, &pFile->pbKeyObject, &pFile->hAlgorithm);
    LeaveCriticalSection(&g_csNetSocket);
    return bMade && OutputKeyHandleToByte(pFile->hKey, &pFile->pbBlob, &pFile->cbBlob) && pFile->cbBlob != 0;
}

void PrepareFile(const char16_t *pszSource, PreparedFile *pFile)
{
    char16_t        szLong[LONG_PATH_UNITS];
    const char16_t *pszPath = LongPathForm(pszSource, STREAM_PATH_UNITS + 1, szLong);
    *pFile                  = {};
    if (!QuerySource(pszPath, pFile)) {
        ReleasePrepared(pFile);
        return;
    }
    const auto cbPlain = static_cast<uint32_t>(std::min<int64_t>(pFile->cbSize, FILE_CHUNK_BYTES));
    const std::unique_ptr<uint8_t[]> pbPlain(new (std::nothrow) uint8_t[cbPlain > 0 ? cbPlain : 1]);
    pFile->bReady = pbPlain != nullptr && ReadFirstChunk(pszPath, pFile, pbPlain.get(), cbPlain) && MakeKey(pFile);
    if (pFile->bReady && cbPlain > 0)
        pFile->bReady = EncryptDataWithKeyHandle(pFile->hAlgorithm, pFile->hKey, pbPlain.get(), cbPlain,
                                                 &pFile->pbCipher, &pFile->cbCipher) &&
                        pFile->cbCipher >= cbPlain && pFile->cbCipher < CIPHER_CHUNK_BYTES;
    if (!pFile->bReady) ReleasePrepared(pFile);
}

bool IsStillPrepared(const char16_t *pszSource, const PreparedFile *pFile)
{
    char16_t     szLong[LONG_PATH_UNITS];
    PreparedFile now = {};
    return pFile->bReady && QuerySource(LongPathForm(pszSource, STREAM_PATH_UNITS + 1, szLong), &now) &&
           now.cbSize == pFile->cbSize && now.ullWriteTime == pFile->ullWriteTime;
}

void ReleasePrepared(PreparedFile *pFile)
{
    if (pFile->hFile != nullptr) CloseHandle(pFile->hFile);
    // Without a provider no key was tried; lines about one that cannot be released would mislead.
    if (pFile->hAlgorithm != nullptr) ReleaseKeyHandle(pFile->hAlgorithm, pFile->hKey, pFile->pbKeyObject);
    delete[] pFile->pbBlob;
    delete[] pFile->pbCipher;
    *pFile = {};
}
