// prepared_file.h: a file that is ready to go before its turn has come: looked up, read ahead by its first chunk, and
// that encrypted with the file's own new key. What it holds is what SendFile would find; it is used only as long as the
// file is still the same.
// Memory   one chunk and its key.
// Threads  one owner. g_csNetSocket is entered while the key is made (transfer/payload_cipher.h), and left again.
#pragma once
#include "platform/cipher.h"
#include "platform/types.h"
#include <cstdint>

struct PreparedFile { // zeroed: nothing is prepared
    bool                        bReady;
    uint32_t                    dwAttributes;
    int64_t                     cbSize;
    uint64_t                    ullWriteTime;
    platform::HANDLE            hFile; // behind the first chunk; null: the chunk is all
    platform::BCRYPT_ALG_HANDLE hAlgorithm;
    platform::BCRYPT_KEY_HANDLE hKey;
    uint8_t                    *pbKeyObject;
    uint8_t                    *pbBlob;
    uint32_t                    cbBlob;
    uint8_t                    *pbCipher; // of the first chunk; null for an empty file
    uint32_t                    cbCipher;
};

// What can be prepared is: a file that can be opened, read and encrypted. Anything else (*pFile stays zeroed) is for
// SendFile to find out in its own time.
//   pszSource  full path
void PrepareFile(const char16_t *pszSource, PreparedFile *pFile);
// True when it is ready and the file's size and write time are still those.
bool IsStillPrepared(const char16_t *pszSource, const PreparedFile *pFile);
// Frees what it holds; zeroed afterwards.
void ReleasePrepared(PreparedFile *pFile);
