// cipher.h: CNG (bcrypt): AES in CBC mode.
// Blob     what BCryptExportKey gives for BCRYPT_OPAQUE_KEY_BLOB differs by backend and is only read by
//          BCryptImportKey.
#pragma once
#include "platform/types.h"

namespace platform {

using BCRYPT_ALG_HANDLE = void *;
using BCRYPT_KEY_HANDLE = void *;

constexpr NTSTATUS STATUS_SUCCESS           = 0;
constexpr NTSTATUS STATUS_BUFFER_TOO_SMALL  = static_cast<NTSTATUS>(0xC0000023);
constexpr NTSTATUS STATUS_INVALID_PARAMETER = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS STATUS_INVALID_HANDLE    = static_cast<NTSTATUS>(0xC0000008);
constexpr NTSTATUS STATUS_NOT_SUPPORTED     = static_cast<NTSTATUS>(0xC00000BB);
constexpr NTSTATUS STATUS_DATA_ERROR        = static_cast<NTSTATUS>(0xC000003E);
constexpr NTSTATUS STATUS_NO_MEMORY         = static_cast<NTSTATUS>(0xC0000017);

constexpr const char16_t *BCRYPT_AES_ALGORITHM    = u"AES";
constexpr const char16_t *BCRYPT_OBJECT_LENGTH    = u"ObjectLength";
constexpr const char16_t *BCRYPT_BLOCK_LENGTH     = u"BlockLength";
constexpr const char16_t *BCRYPT_CHAINING_MODE    = u"ChainingMode";
constexpr char16_t        BCRYPT_CHAIN_MODE_CBC[] = u"ChainingModeCBC"; // 32 bytes with its terminator
constexpr const char16_t *BCRYPT_OPAQUE_KEY_BLOB  = u"OpaqueKeyBlob";
constexpr uint32_t        BCRYPT_BLOCK_PADDING    = 0x00000001;

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE *phAlgorithm, const char16_t *pszAlgId,
                                     const char16_t *pszImplementation, uint32_t dwFlags);
NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE hAlgorithm, uint32_t dwFlags);
NTSTATUS BCryptGetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbOutput, uint32_t cbOutput,
                           uint32_t *pcbResult, uint32_t dwFlags);
NTSTATUS BCryptSetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbInput, uint32_t cbInput,
                           uint32_t dwFlags);
// The key object is the caller's block of ObjectLength bytes; it lives until BCryptDestroyKey.
NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject,
                                    uint32_t cbKeyObject, uint8_t *pbSecret, uint32_t cbSecret, uint32_t dwFlags);
NTSTATUS BCryptImportKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hImportKey, const char16_t *pszBlobType,
                         BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject, uint32_t cbKeyObject, uint8_t *pbInput,
                         uint32_t cbInput, uint32_t dwFlags);
// With no buffer: the size in *pcbResult. Both STATUS_SUCCESS and STATUS_BUFFER_TOO_SMALL tell it (systems differ).
NTSTATUS BCryptExportKey(BCRYPT_KEY_HANDLE hKey, BCRYPT_KEY_HANDLE hExportKey, const char16_t *pszBlobType,
                         uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags);
NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE hKey);
// pPaddingInfo null. With no output buffer: the size in *pcbResult. pbIV is updated by a real call.
NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags);
NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags);

} // namespace platform
