// cipher.cpp: AES in CBC mode with block padding, on libcrypto.
// Blob     the opaque key blob is the secret's length as four little-endian bytes and the secret: 20 bytes for AES-128.
//          Wine's is the same, so that a hosted agent and a Windows agent under Wine read each other's files. Windows'
//          own is Windows' secret, and differs between its versions.
// Object   the secret lies in the caller's key object, as on Windows: the block must outlive the key.
// Contexts each key has one for each direction, made at its first use; a chunk only sets the start vector anew.
// Differences from Windows: only 128-bit keys, only CBC, only block padding, an explicit key object and start vector;
// everything else is refused. The size of a decryption is told as the input's length, an upper bound, as Windows does
// for padded data.
#include "platform/cipher.h"
#include "platform/hosted/machine/counts.h"
#include "platform/hosted/machine/faults.h"
#include "platform/text.h"
#include <cstring>
#include <new>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace {

using namespace platform;

constexpr uint32_t BLOCK_BYTES         = 16;
constexpr uint32_t SECRET_BYTES        = 16;
constexpr uint32_t BLOB_HEADER_BYTES   = 4;
constexpr uint32_t ALGORITHM_SIGNATURE = 0x474C4156, KEY_SIGNATURE = 0x59454B56;
constexpr NTSTATUS STATUS_INVALID_BUFFER_SIZE = static_cast<NTSTATUS>(0xC0000206);
constexpr NTSTATUS STATUS_NOT_FOUND           = static_cast<NTSTATUS>(0xC0000225);

struct Algorithm {
    uint32_t dwSignature = ALGORITHM_SIGNATURE;
};

// What lies in the caller's key object.
struct KeyObject {
    uint8_t aSecret[SECRET_BYTES];
};

struct Key {
    uint32_t        dwSignature = KEY_SIGNATURE;
    uint8_t        *pbObject    = nullptr; // a KeyObject
    EVP_CIPHER_CTX *pEncrypt    = nullptr;
    EVP_CIPHER_CTX *pDecrypt    = nullptr;
};

Algorithm *AlgorithmOf(void *hAlgorithm)
{
    auto *p = static_cast<Algorithm *>(hAlgorithm);
    return p != nullptr && p->dwSignature == ALGORITHM_SIGNATURE ? p : nullptr;
}

Key *KeyOf(void *hKey)
{
    auto *p = static_cast<Key *>(hKey);
    return p != nullptr && p->dwSignature == KEY_SIGNATURE ? p : nullptr;
}

// A process ends while its threads still run, as a Windows process may: libcrypto must not take away at exit what they
// use, nor the key by which a thread's own state is freed.
void KeepLibraryToTheEnd()
{
    static const bool bKept = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    static_cast<void>(bKept);
}

// Looked up once for the process: the look-up costs more than the encryption of a small file.
const EVP_CIPHER *TheCipher()
{
    static const EVP_CIPHER *const s_pCipher = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    return s_pCipher;
}

// True when the call must fail now; *pnStatus says how.
bool Fails(const char *pszCall, NTSTATUS *pnStatus)
{
    uint32_t dwError = 0;
    if (!hosted::FailsNow(pszCall, &dwError)) return false;
    *pnStatus = static_cast<NTSTATUS>(dwError);
    return true;
}

NTSTATUS MakeKey(BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject, uint32_t cbKeyObject, const uint8_t *pbSecret,
                 uint32_t cbSecret)
{
    if (cbSecret == 24 || cbSecret == 32) return STATUS_NOT_SUPPORTED; // AES has them, this product has not
    if (cbSecret != SECRET_BYTES) return STATUS_INVALID_PARAMETER;
    if (cbKeyObject < sizeof(KeyObject)) return STATUS_BUFFER_TOO_SMALL;
    Key *pKey = new (std::nothrow) Key;
    if (pKey == nullptr) return STATUS_NO_MEMORY;
    std::memcpy(pbKeyObject, pbSecret, sizeof(KeyObject));
    pKey->pbObject = pbKeyObject;
    ++hosted::g_nCiphers;
    *phKey = pKey;
    return STATUS_SUCCESS;
}

// The context of one direction, ready for a message with this start vector; null when there is no memory.
EVP_CIPHER_CTX *ReadyContext(Key &key, bool bEncrypt, const uint8_t *pbIV)
{
    EVP_CIPHER_CTX *&pContext = bEncrypt ? key.pEncrypt : key.pDecrypt;
    if (pContext != nullptr)
        return EVP_CipherInit_ex(pContext, nullptr, nullptr, nullptr, pbIV, bEncrypt) == 1 ? pContext : nullptr;
    EVP_CIPHER_CTX *pNew = TheCipher() != nullptr ? EVP_CIPHER_CTX_new() : nullptr;
    if (pNew != nullptr && EVP_CipherInit_ex(pNew, TheCipher(), nullptr, key.pbObject, pbIV, bEncrypt) == 1)
        pContext = pNew;
    else EVP_CIPHER_CTX_free(pNew);
    return pContext;
}

// The arguments that both directions share; STATUS_SUCCESS when they can be served.
NTSTATUS CheckMessage(const Key *pKey, const uint8_t *pbInput, uint32_t cbInput, const void *pPaddingInfo,
                      const uint8_t *pbIV, uint32_t cbIV, const uint32_t *pcbResult, uint32_t dwFlags)
{
    if (pKey == nullptr) return STATUS_INVALID_HANDLE;
    if (dwFlags != BCRYPT_BLOCK_PADDING || pPaddingInfo != nullptr) return STATUS_NOT_SUPPORTED;
    if (pcbResult == nullptr || (pbInput == nullptr && cbInput != 0) || pbIV == nullptr || cbIV != BLOCK_BYTES ||
        cbInput > INT32_MAX - BLOCK_BYTES)
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

NTSTATUS Encrypt(Key &key, const uint8_t *pbInput, uint32_t cbInput, uint8_t *pbIV, uint8_t *pbOutput)
{
    int             cbBody = 0, cbTail = 0;
    EVP_CIPHER_CTX *pContext = ReadyContext(key, true, pbIV);
    if (pContext == nullptr) return STATUS_NO_MEMORY;
    if (EVP_EncryptUpdate(pContext, pbOutput, &cbBody, pbInput, static_cast<int>(cbInput)) != 1 ||
        EVP_EncryptFinal_ex(pContext, pbOutput + cbBody, &cbTail) != 1)
        return STATUS_DATA_ERROR;
    std::memcpy(pbIV, pbOutput + cbBody + cbTail - BLOCK_BYTES, BLOCK_BYTES);
    return STATUS_SUCCESS;
}

// pbOutput takes cbInput bytes. *pcbPlain: what of them is the text.
NTSTATUS Decrypt(Key &key, const uint8_t *pbInput, uint32_t cbInput, uint8_t *pbIV, uint8_t *pbOutput,
                 uint32_t *pcbPlain)
{
    int             cbBody = 0, cbTail = 0;
    uint8_t         aLastBlock[BLOCK_BYTES];
    EVP_CIPHER_CTX *pContext = ReadyContext(key, false, pbIV);
    if (pContext == nullptr) return STATUS_NO_MEMORY;
    std::memcpy(aLastBlock, pbInput + cbInput - BLOCK_BYTES, BLOCK_BYTES); // input and output may be one buffer
    if (EVP_DecryptUpdate(pContext, pbOutput, &cbBody, pbInput, static_cast<int>(cbInput)) != 1 ||
        EVP_DecryptFinal_ex(pContext, pbOutput + cbBody, &cbTail) != 1)
        return STATUS_DATA_ERROR;
    std::memcpy(pbIV, aLastBlock, BLOCK_BYTES);
    *pcbPlain = static_cast<uint32_t>(cbBody + cbTail);
    return STATUS_SUCCESS;
}

} // namespace

namespace platform {

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE *phAlgorithm, const char16_t *pszAlgId,
                                     const char16_t *pszImplementation, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptOpenAlgorithmProvider", &nStatus)) return nStatus;
    if (phAlgorithm == nullptr || pszAlgId == nullptr) return STATUS_INVALID_PARAMETER;
    if (CompareTextW(pszAlgId, BCRYPT_AES_ALGORITHM) != 0) return STATUS_NOT_FOUND;
    if (pszImplementation != nullptr || dwFlags != 0) return STATUS_NOT_SUPPORTED;
    KeepLibraryToTheEnd();
    auto *pAlgorithm = new (std::nothrow) Algorithm;
    if (pAlgorithm == nullptr) return STATUS_NO_MEMORY;
    ++hosted::g_nCiphers;
    *phAlgorithm = pAlgorithm;
    return STATUS_SUCCESS;
}

NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE hAlgorithm, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptCloseAlgorithmProvider", &nStatus)) return nStatus;
    Algorithm *pAlgorithm = AlgorithmOf(hAlgorithm);
    if (pAlgorithm == nullptr) return STATUS_INVALID_HANDLE;
    if (dwFlags != 0) return STATUS_INVALID_PARAMETER;
    pAlgorithm->dwSignature = 0;
    delete pAlgorithm;
    --hosted::g_nCiphers;
    return STATUS_SUCCESS;
}

NTSTATUS BCryptGetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbOutput, uint32_t cbOutput,
                           uint32_t *pcbResult, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    uint32_t dwValue = 0;
    if (Fails("BCryptGetProperty", &nStatus)) return nStatus;
    if (AlgorithmOf(hObject) == nullptr && KeyOf(hObject) == nullptr) return STATUS_INVALID_HANDLE;
    if (pszProperty == nullptr || pcbResult == nullptr || dwFlags != 0) return STATUS_INVALID_PARAMETER;
    if (CompareTextW(pszProperty, BCRYPT_OBJECT_LENGTH) == 0) dwValue = sizeof(KeyObject);
    else if (CompareTextW(pszProperty, BCRYPT_BLOCK_LENGTH) == 0) dwValue = BLOCK_BYTES;
    else return STATUS_NOT_SUPPORTED;
    *pcbResult = sizeof(dwValue);
    if (pbOutput == nullptr) return STATUS_SUCCESS;
    if (cbOutput < sizeof(dwValue)) return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(pbOutput, &dwValue, sizeof(dwValue));
    return STATUS_SUCCESS;
}

NTSTATUS BCryptSetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbInput, uint32_t cbInput,
                           uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptSetProperty", &nStatus)) return nStatus;
    if (AlgorithmOf(hObject) == nullptr && KeyOf(hObject) == nullptr) return STATUS_INVALID_HANDLE;
    if (pszProperty == nullptr || pbInput == nullptr || dwFlags != 0) return STATUS_INVALID_PARAMETER;
    if (CompareTextW(pszProperty, BCRYPT_CHAINING_MODE) != 0 || cbInput < sizeof(BCRYPT_CHAIN_MODE_CBC) ||
        std::memcmp(pbInput, BCRYPT_CHAIN_MODE_CBC, sizeof(BCRYPT_CHAIN_MODE_CBC)) != 0)
        return STATUS_NOT_SUPPORTED;
    return STATUS_SUCCESS; // it is the only mode, so there is nothing to keep
}

NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject,
                                    uint32_t cbKeyObject, uint8_t *pbSecret, uint32_t cbSecret, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptGenerateSymmetricKey", &nStatus)) return nStatus;
    if (AlgorithmOf(hAlgorithm) == nullptr) return STATUS_INVALID_HANDLE;
    if (phKey == nullptr || pbKeyObject == nullptr || pbSecret == nullptr || dwFlags != 0)
        return STATUS_INVALID_PARAMETER;
    return MakeKey(phKey, pbKeyObject, cbKeyObject, pbSecret, cbSecret);
}

NTSTATUS BCryptImportKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hImportKey, const char16_t *pszBlobType,
                         BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject, uint32_t cbKeyObject, uint8_t *pbInput,
                         uint32_t cbInput, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptImportKey", &nStatus)) return nStatus;
    if (AlgorithmOf(hAlgorithm) == nullptr) return STATUS_INVALID_HANDLE;
    if (hImportKey != nullptr || pszBlobType == nullptr || CompareTextW(pszBlobType, BCRYPT_OPAQUE_KEY_BLOB) != 0)
        return STATUS_NOT_SUPPORTED;
    if (phKey == nullptr || pbKeyObject == nullptr || pbInput == nullptr || dwFlags != 0 || cbInput < BLOB_HEADER_BYTES)
        return STATUS_INVALID_PARAMETER;
    const uint32_t cbSecret = pbInput[0] | pbInput[1] << 8 | pbInput[2] << 16 | static_cast<uint32_t>(pbInput[3]) << 24;
    if (cbSecret != cbInput - BLOB_HEADER_BYTES) return STATUS_INVALID_PARAMETER;
    return MakeKey(phKey, pbKeyObject, cbKeyObject, pbInput + BLOB_HEADER_BYTES, cbSecret);
}

NTSTATUS BCryptExportKey(BCRYPT_KEY_HANDLE hKey, BCRYPT_KEY_HANDLE hExportKey, const char16_t *pszBlobType,
                         uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptExportKey", &nStatus)) return nStatus;
    const Key *pKey = KeyOf(hKey);
    if (pKey == nullptr) return STATUS_INVALID_HANDLE;
    if (hExportKey != nullptr || pszBlobType == nullptr || CompareTextW(pszBlobType, BCRYPT_OPAQUE_KEY_BLOB) != 0)
        return STATUS_NOT_SUPPORTED;
    if (pcbResult == nullptr || dwFlags != 0) return STATUS_INVALID_PARAMETER;
    *pcbResult = BLOB_HEADER_BYTES + SECRET_BYTES;
    if (pbOutput == nullptr) return STATUS_SUCCESS;
    if (cbOutput < *pcbResult) return STATUS_BUFFER_TOO_SMALL;
    for (uint32_t i = 0; i < BLOB_HEADER_BYTES; i++) pbOutput[i] = static_cast<uint8_t>(SECRET_BYTES >> (8 * i));
    std::memcpy(pbOutput + BLOB_HEADER_BYTES, pKey->pbObject, SECRET_BYTES);
    return STATUS_SUCCESS;
}

NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE hKey)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptDestroyKey", &nStatus)) return nStatus;
    Key *pKey = KeyOf(hKey);
    if (pKey == nullptr) return STATUS_INVALID_HANDLE;
    OPENSSL_cleanse(pKey->pbObject, sizeof(KeyObject));
    EVP_CIPHER_CTX_free(pKey->pEncrypt);
    EVP_CIPHER_CTX_free(pKey->pDecrypt);
    pKey->dwSignature = 0;
    delete pKey;
    --hosted::g_nCiphers;
    return STATUS_SUCCESS;
}

NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptEncrypt", &nStatus)) return nStatus;
    Key *pKey = KeyOf(hKey);
    nStatus   = CheckMessage(pKey, pbInput, cbInput, pPaddingInfo, pbIV, cbIV, pcbResult, dwFlags);
    if (nStatus != STATUS_SUCCESS) return nStatus;
    *pcbResult = cbInput / BLOCK_BYTES * BLOCK_BYTES + BLOCK_BYTES;
    if (pbOutput == nullptr) return STATUS_SUCCESS;
    if (cbOutput < *pcbResult) return STATUS_BUFFER_TOO_SMALL;
    return Encrypt(*pKey, pbInput, cbInput, pbIV, pbOutput);
}

NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    NTSTATUS nStatus = STATUS_SUCCESS;
    if (Fails("BCryptDecrypt", &nStatus)) return nStatus;
    Key *pKey = KeyOf(hKey);
    nStatus   = CheckMessage(pKey, pbInput, cbInput, pPaddingInfo, pbIV, cbIV, pcbResult, dwFlags);
    if (nStatus != STATUS_SUCCESS) return nStatus;
    if (cbInput == 0 || cbInput % BLOCK_BYTES != 0) return STATUS_INVALID_BUFFER_SIZE;
    *pcbResult = cbInput;
    if (pbOutput == nullptr) return STATUS_SUCCESS;
    if (cbOutput < cbInput) return STATUS_BUFFER_TOO_SMALL;
    return Decrypt(*pKey, pbInput, cbInput, pbIV, pbOutput, pcbResult);
}

} // namespace platform
