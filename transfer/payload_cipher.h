// payload_cipher.h: AES-128-CBC of one file's chunks, each chunk on its own with the same initialisation vector.
// Context  three values that the file stream owns: provider handle, key handle and the key object (the block in which
//          the provider keeps the key). GetKeyAlgHandle makes them, ReleaseKeyHandle frees them.
// Buffers  the export, encrypt and decrypt operations allocate with new[]; the caller deletes them. They are null
//          after a failure that came before the allocation, and may be not null after a later one: the caller deletes
//          in both cases.
// Failures one line to the debugger output each; nothing is thrown.
// Threads  new keys are made by the file sender alone, under g_csNetSocket: key material and pseudo-random generator
//          belong to the process. Everything else only touches its arguments.
#pragma once
#include "platform/cipher.h"
#include <cstdint>

constexpr uint32_t FILE_KEY_BYTES     = 580; // of the receiver's copy of a blob
constexpr uint32_t CIPHER_BLOCK_BYTES = 16;
constexpr uint32_t KEY_MATERIAL_BYTES = 16;

extern uint8_t  g_szFileKey[FILE_KEY_BYTES]; // the last received blob, cut; receiving thread
extern uint32_t g_dwKeySize;                 // its full length; receiving thread

// Null and 0 make a new key (caller holds g_csNetSocket), a blob is imported. What was created before a failure stays
// with the caller, who releases it; the three are set to "nothing" first.
bool GetKeyAlgHandle(const uint8_t *pbBlob, uint32_t cbBlob, platform::BCRYPT_KEY_HANDLE *phKey, uint8_t **ppbKeyObject,
                     platform::BCRYPT_ALG_HANDLE *phAlgorithm);
// The key as "OpaqueKeyBlob", which only GetKeyAlgHandle on the same kind of system reads.
bool OutputKeyHandleToByte(platform::BCRYPT_KEY_HANDLE hKey, uint8_t **ppbBlob, uint32_t *pcbBlob);
// *pcbCipher: the next multiple of 16 above cbData.
bool EncryptDataWithKeyHandle(platform::BCRYPT_ALG_HANDLE hAlgorithm, platform::BCRYPT_KEY_HANDLE hKey,
                              const uint8_t *pbData, uint32_t cbData, uint8_t **ppbCipher, uint32_t *pcbCipher);
// True once the block length is known to fit, even when decryption failed: then *pcbData is 0, which no chunk's length
// is, and the caller's length tests catch the bad chunk.
bool DecryptDataWithKeyHandle(platform::BCRYPT_ALG_HANDLE hAlgorithm, platform::BCRYPT_KEY_HANDLE hKey,
                              const uint8_t *pbCipher, uint32_t cbCipher, uint8_t **ppbData, uint32_t *pcbData);
// Runs to its end whatever fails. A null handle is a failure like any other: the log of a file without a key says so.
void ReleaseKeyHandle(platform::BCRYPT_ALG_HANDLE hAlgorithm, platform::BCRYPT_KEY_HANDLE hKey, uint8_t *pbKeyObject);
