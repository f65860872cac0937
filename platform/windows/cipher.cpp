// cipher.cpp: CNG, forwarded.
// Asked for an exported key's size with no buffer, Windows answers STATUS_SUCCESS and Wine STATUS_BUFFER_TOO_SMALL;
// both give the size, and the interface lets callers take either.
// A call that encrypts or decrypts moves the vector on: it then holds the last block of cipher text. Wine leaves it as
// it was, so it is moved on here; on Windows that stores what is there already.
#include "platform/cipher.h"
#include "platform/windows/mirror.h"

// clang-format off
#define MIRRORED(X)                                                                                                    \
    X(STATUS_SUCCESS) X(STATUS_BUFFER_TOO_SMALL) X(STATUS_INVALID_PARAMETER) X(STATUS_INVALID_HANDLE)                  \
    X(STATUS_NOT_SUPPORTED) X(STATUS_DATA_ERROR) X(STATUS_NO_MEMORY) X(BCRYPT_BLOCK_PADDING)
// clang-format on
#define MIRRORED_TEXTS(X)                                                                                              \
    X(BCRYPT_AES_ALGORITHM)                                                                                            \
    X(BCRYPT_OBJECT_LENGTH)                                                                                            \
    X(BCRYPT_BLOCK_LENGTH) X(BCRYPT_CHAINING_MODE) X(BCRYPT_CHAIN_MODE_CBC) X(BCRYPT_OPAQUE_KEY_BLOB)
#define MIRROR_CAPTURE_TEXT(NAME) constexpr const char16_t *captured_##NAME = platform::NAME;
#define MIRROR_COMPARE_TEXT(NAME) static_assert(SameText(captured_##NAME, NAME), #NAME " is not the SDK's");
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
MIRRORED_TEXTS(MIRROR_CAPTURE_TEXT)
} // namespace mirror

#define WIN32_NO_STATUS
#include "platform/windows/sdk.h"
#undef WIN32_NO_STATUS
#include <ntstatus.h>
#include <bcrypt.h>

#include <cstring>

namespace mirror {
constexpr bool SameText(const char16_t *pszLeft, const wchar_t *pszRight)
{
    while (*pszLeft != u'\0' && *pszLeft == static_cast<char16_t>(*pszRight)) {
        ++pszLeft;
        ++pszRight;
    }
    return *pszLeft == static_cast<char16_t>(*pszRight);
}
MIRRORED(MIRROR_COMPARE)
MIRRORED_TEXTS(MIRROR_COMPARE_TEXT)
MIRROR_SIZE(BCRYPT_ALG_HANDLE)
MIRROR_SIZE(BCRYPT_KEY_HANDLE)
MIRROR_SIZE(NTSTATUS)
} // namespace mirror

namespace platform {

constexpr size_t CB_BLOCK_MAX = 16; // AES, the one algorithm in use

static ULONG *AsUlong(uint32_t *pdwValue)
{
    return reinterpret_cast<ULONG *>(pdwValue);
}

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE *phAlgorithm, const char16_t *pszAlgId,
                                     const char16_t *pszImplementation, uint32_t dwFlags)
{
    return ::BCryptOpenAlgorithmProvider(phAlgorithm, AsWide(pszAlgId), AsWide(pszImplementation), dwFlags);
}

NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE hAlgorithm, uint32_t dwFlags)
{
    return ::BCryptCloseAlgorithmProvider(hAlgorithm, dwFlags);
}

NTSTATUS BCryptGetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbOutput, uint32_t cbOutput,
                           uint32_t *pcbResult, uint32_t dwFlags)
{
    return ::BCryptGetProperty(hObject, AsWide(pszProperty), pbOutput, cbOutput, AsUlong(pcbResult), dwFlags);
}

NTSTATUS BCryptSetProperty(void *hObject, const char16_t *pszProperty, uint8_t *pbInput, uint32_t cbInput,
                           uint32_t dwFlags)
{
    return ::BCryptSetProperty(hObject, AsWide(pszProperty), pbInput, cbInput, dwFlags);
}

NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject,
                                    uint32_t cbKeyObject, uint8_t *pbSecret, uint32_t cbSecret, uint32_t dwFlags)
{
    return ::BCryptGenerateSymmetricKey(hAlgorithm, phKey, pbKeyObject, cbKeyObject, pbSecret, cbSecret, dwFlags);
}

NTSTATUS BCryptImportKey(BCRYPT_ALG_HANDLE hAlgorithm, BCRYPT_KEY_HANDLE hImportKey, const char16_t *pszBlobType,
                         BCRYPT_KEY_HANDLE *phKey, uint8_t *pbKeyObject, uint32_t cbKeyObject, uint8_t *pbInput,
                         uint32_t cbInput, uint32_t dwFlags)
{
    return ::BCryptImportKey(hAlgorithm, hImportKey, AsWide(pszBlobType), phKey, pbKeyObject, cbKeyObject, pbInput,
                             cbInput, dwFlags);
}

NTSTATUS BCryptExportKey(BCRYPT_KEY_HANDLE hKey, BCRYPT_KEY_HANDLE hExportKey, const char16_t *pszBlobType,
                         uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    return ::BCryptExportKey(hKey, hExportKey, AsWide(pszBlobType), pbOutput, cbOutput, AsUlong(pcbResult), dwFlags);
}

NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE hKey)
{
    return ::BCryptDestroyKey(hKey);
}

NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    const NTSTATUS nStatus = ::BCryptEncrypt(hKey, pbInput, cbInput, pPaddingInfo, pbIV, cbIV, pbOutput, cbOutput,
                                             AsUlong(pcbResult), dwFlags);
    if (nStatus == STATUS_SUCCESS && pbOutput != nullptr && pbIV != nullptr && *pcbResult >= cbIV)
        std::memcpy(pbIV, pbOutput + *pcbResult - cbIV, cbIV);
    return nStatus;
}

NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE hKey, uint8_t *pbInput, uint32_t cbInput, void *pPaddingInfo, uint8_t *pbIV,
                       uint32_t cbIV, uint8_t *pbOutput, uint32_t cbOutput, uint32_t *pcbResult, uint32_t dwFlags)
{
    uint8_t    aLastBlock[CB_BLOCK_MAX]; // taken first: the output may lie over the input
    const bool bMovesOn = pbOutput != nullptr && pbIV != nullptr && cbIV <= sizeof(aLastBlock) && cbInput >= cbIV;
    if (bMovesOn) std::memcpy(aLastBlock, pbInput + cbInput - cbIV, cbIV);
    const NTSTATUS nStatus = ::BCryptDecrypt(hKey, pbInput, cbInput, pPaddingInfo, pbIV, cbIV, pbOutput, cbOutput,
                                             AsUlong(pcbResult), dwFlags);
    if (nStatus == STATUS_SUCCESS && bMovesOn) std::memcpy(pbIV, aLastBlock, cbIV);
    return nStatus;
}

} // namespace platform
