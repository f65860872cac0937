// payload_cipher.cpp: the five operations on a file's cipher context.
// The chunks' common initialisation vector and the key that grows from one pseudo-random byte are what the peers in the
// field speak. They hide a file from a casual listener and no more; strengthening them needs both ends.
#include "transfer/payload_cipher.h"
#include "platform/kernel.h"
#include "trace/debug_output.h"
#include <cstdlib>
#include <cstring>
#include <new>

using namespace platform;

uint8_t  g_szFileKey[FILE_KEY_BYTES];
uint32_t g_dwKeySize = 0;

static uint8_t g_aKeyMaterial[KEY_MATERIAL_BYTES]; // of the last new key; under g_csNetSocket

static const uint8_t INITIALISATION_VECTOR[CIPHER_BLOCK_BYTES] = {0x5c, 0x12, 0xa7, 0x3e, 0x90, 0xd4, 0x61, 0x08,
                                                                  0xbb, 0x27, 0xf3, 0x4e, 0x19, 0xc6, 0x85, 0x7a};

// The operations read their input alone, but their Win32 signatures take it without const.
static uint8_t *AsInput(const uint8_t *pb)
{
    return const_cast<uint8_t *>(pb);
}

static bool GetLengthProperty(BCRYPT_ALG_HANDLE hAlgorithm, const char16_t *pszProperty, uint32_t *pdwLength)
{
    uint32_t cbResult = 0;
    *pdwLength        = 0;
    return BCryptGetProperty(hAlgorithm, pszProperty, reinterpret_cast<uint8_t *>(pdwLength), sizeof(*pdwLength),
                             &cbResult, 0) == STATUS_SUCCESS;
}

// First byte from the pseudo-random generator seeded with the clock, every further one its predecessor plus one.
static void MakeKeyMaterial()
{
    srand(GetTickCount());
    g_aKeyMaterial[0] = static_cast<uint8_t>(rand() % 256);
    for (uint32_t i = 1; i < KEY_MATERIAL_BYTES; ++i)
        g_aKeyMaterial[i] = static_cast<uint8_t>(g_aKeyMaterial[i - 1] + 1);
}

bool GetKeyAlgHandle(const uint8_t *pbBlob, uint32_t cbBlob, BCRYPT_KEY_HANDLE *phKey, uint8_t **ppbKeyObject,
                     BCRYPT_ALG_HANDLE *phAlgorithm)
{
    uint32_t cbKeyObject = 0;
    *phKey               = nullptr;
    *ppbKeyObject        = nullptr;
    *phAlgorithm         = nullptr;

    if (BCryptOpenAlgorithmProvider(phAlgorithm, BCRYPT_AES_ALGORITHM, nullptr, 0) != STATUS_SUCCESS) {
        *phAlgorithm = nullptr;
        TraceDebugW(u"**** [GetKeyAlgHandle] BCryptOpenAlgorithmProvider failed!. \n");
        return false;
    }
    if (!GetLengthProperty(*phAlgorithm, BCRYPT_OBJECT_LENGTH, &cbKeyObject)) {
        TraceDebugW(u"**** [GetKeyAlgHandle] BCryptGetProperty (get size) failed!. \n");
        return false;
    }
    *ppbKeyObject = new (std::nothrow) uint8_t[cbKeyObject];
    if (*ppbKeyObject == nullptr) {
        TraceDebugW(u"**** [GetKeyAlgHandle] catch exception !. \n");
        return false;
    }
    if (pbBlob != nullptr || cbBlob != 0) {
        if (BCryptImportKey(*phAlgorithm, nullptr, BCRYPT_OPAQUE_KEY_BLOB, phKey, *ppbKeyObject, cbKeyObject,
                            AsInput(pbBlob), cbBlob, 0) == STATUS_SUCCESS)
            return true; // the blob carries the key's chaining mode
        *phKey = nullptr;
        TraceDebugW(
            u"**** [GetKeyAlgHandle] BCryptSetProperty failed!. \n"); // the wrong call's name; logs are searched for it
        return false;
    }
    char16_t szMode[sizeof(BCRYPT_CHAIN_MODE_CBC) / sizeof(char16_t)];
    static_assert(sizeof(szMode) == 32);
    std::memcpy(szMode, BCRYPT_CHAIN_MODE_CBC, sizeof(szMode));
    if (BCryptSetProperty(*phAlgorithm, BCRYPT_CHAINING_MODE, reinterpret_cast<uint8_t *>(szMode), sizeof(szMode), 0) !=
        STATUS_SUCCESS) {
        TraceDebugW(u"**** [GetKeyAlgHandle] BCryptSetProperty failed! \n");
        return false;
    }
    MakeKeyMaterial();
    if (BCryptGenerateSymmetricKey(*phAlgorithm, phKey, *ppbKeyObject, cbKeyObject, g_aKeyMaterial, KEY_MATERIAL_BYTES,
                                   0) != STATUS_SUCCESS) {
        *phKey = nullptr;
        TraceDebugW(u"**** [GetKeyAlgHandle] BCryptGenerateSymmetricKey failed. \n");
        return false;
    }
    return true;
}

bool OutputKeyHandleToByte(BCRYPT_KEY_HANDLE hKey, uint8_t **ppbBlob, uint32_t *pcbBlob)
{
    *ppbBlob                = nullptr;
    *pcbBlob                = 0;
    uint32_t       cbBlob   = 0;
    const NTSTATUS nSizeRet = BCryptExportKey(hKey, nullptr, BCRYPT_OPAQUE_KEY_BLOB, nullptr, 0, &cbBlob, 0);
    if (nSizeRet != STATUS_SUCCESS && nSizeRet != STATUS_BUFFER_TOO_SMALL) {
        TraceDebugW(u"**** [OutputKeyHandleToByte] BCryptExportKey (get size) failed!.\n");
        return false;
    }
    *ppbBlob = new (std::nothrow) uint8_t[cbBlob];
    if (*ppbBlob == nullptr ||
        BCryptExportKey(hKey, nullptr, BCRYPT_OPAQUE_KEY_BLOB, *ppbBlob, cbBlob, &cbBlob, 0) != STATUS_SUCCESS) {
        TraceDebugW(u"**** [OutputKeyHandleToByte] BCryptExportKey failed! \n");
        return false;
    }
    *pcbBlob = cbBlob;
    return true;
}

bool EncryptDataWithKeyHandle(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hKey, const uint8_t *pbData,
                              uint32_t cbData, uint8_t **ppbCipher, uint32_t *pcbCipher)
{
    uint32_t cbBlock  = 0;
    uint32_t cbCipher = 0;
    uint32_t cbResult = 0;
    uint8_t  aIV[CIPHER_BLOCK_BYTES];
    *ppbCipher = nullptr;
    *pcbCipher = 0;

    if (!GetLengthProperty(hAlgorithm, BCRYPT_BLOCK_LENGTH, &cbBlock)) {
        TraceDebugW(u"**** [EncryptDataWithKeyHandle] BCryptGetProperty failed!. \n");
        return false;
    }
    if (cbBlock > sizeof(aIV)) {
        TraceDebugW(u"**** [EncryptDataWithKeyHandle] Block length is longer than the provided IV length\n");
        return false;
    }
    std::memcpy(aIV, INITIALISATION_VECTOR, cbBlock); // a copy for each chunk: the encryption overwrites it
    if (BCryptEncrypt(hKey, AsInput(pbData), cbData, nullptr, aIV, cbBlock, nullptr, 0, &cbCipher,
                      BCRYPT_BLOCK_PADDING) != STATUS_SUCCESS) {
        TraceDebugW(u"**** [EncryptDataWithKeyHandle] BCryptEncrypt (get size) failed!. \n");
        return false;
    }
    *ppbCipher = new (std::nothrow) uint8_t[cbCipher];
    if (*ppbCipher == nullptr || BCryptEncrypt(hKey, AsInput(pbData), cbData, nullptr, aIV, cbBlock, *ppbCipher,
                                               cbCipher, &cbResult, BCRYPT_BLOCK_PADDING) != STATUS_SUCCESS) {
        TraceDebugW(u"**** [EncryptDataWithKeyHandle] BCryptEncrypt failed!. \n");
        return false;
    }
    *pcbCipher = cbCipher;
    return true;
}

bool DecryptDataWithKeyHandle(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hKey, const uint8_t *pbCipher,
                              uint32_t cbCipher, uint8_t **ppbData, uint32_t *pcbData)
{
    uint32_t cbKeyObject = 0;
    uint32_t cbBlock     = 0;
    uint32_t cbPlain     = 0;
    uint32_t cbResult    = 0;
    uint8_t  aIV[CIPHER_BLOCK_BYTES];
    *ppbData = nullptr;
    *pcbData = 0;

    // The object's length is asked for, since its failure is a result of its own, but nothing needs a block of it.
    if (!GetLengthProperty(hAlgorithm, BCRYPT_OBJECT_LENGTH, &cbKeyObject)) {
        TraceDebugW(u"**** [DecryptDataWithKeyHandle] BCryptGetProperty (get size) failed!. \n");
        return false;
    }
    if (!GetLengthProperty(hAlgorithm, BCRYPT_BLOCK_LENGTH, &cbBlock)) {
        TraceDebugW(u"**** [DecryptDataWithKeyHandle] BCryptGetProperty failed!. \n");
        return false;
    }
    if (cbBlock > sizeof(aIV)) {
        TraceDebugW(u"**** [DecryptDataWithKeyHandle] Block length is longer than the provided IV length\n");
        return false;
    }
    std::memcpy(aIV, INITIALISATION_VECTOR, cbBlock);
    if (BCryptDecrypt(hKey, AsInput(pbCipher), cbCipher, nullptr, aIV, cbBlock, nullptr, 0, &cbPlain,
                      BCRYPT_BLOCK_PADDING) != STATUS_SUCCESS) {
        cbPlain = 0;
        TraceDebugW(u"[DecryptDataWithKeyHandle] BCryptDecrypt (get size) failed!. \n");
    }
    *ppbData = new (std::nothrow) uint8_t[cbPlain > 0 ? cbPlain : 1];
    if (*ppbData == nullptr || BCryptDecrypt(hKey, AsInput(pbCipher), cbCipher, nullptr, aIV, cbBlock, *ppbData,
                                             cbPlain, &cbResult, BCRYPT_BLOCK_PADDING) != STATUS_SUCCESS) {
        // A length told by the failed call would be that of bytes nobody wrote, and could pass for the chunk's.
        cbResult = 0;
        TraceDebugW(u"[DecryptDataWithKeyHandle] BCryptDecrypt failed!. \n");
    }
    *pcbData = cbResult;
    return true; // also when the decryption failed: the receiver's code for a bad chunk rests on its length alone
}

void ReleaseKeyHandle(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hKey, uint8_t *pbKeyObject)
{
    if (BCryptDestroyKey(hKey) != STATUS_SUCCESS) TraceDebugW(u"**** [ReleaseKeyHandle] BCryptDestroyKey failed!. \n");
    delete[] pbKeyObject;
    if (BCryptCloseAlgorithmProvider(hAlgorithm, 0) != STATUS_SUCCESS)
        TraceDebugW(u"**** [ReleaseKeyHandle] BCryptCloseAlgorithmProvider failed!. \n");
}
