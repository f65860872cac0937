// cipher_test.cpp: AES-CBC with block padding, as the payload cipher calls it.
#include "platform/cipher.h"
#include "tests/support/test_machine.h"
#include <cstring>
#include <string>
#include <vector>

using namespace platform;

namespace {

using Bytes = std::vector<uint8_t>;

const Bytes g_aSecret = {0x2B, 0x7E, 0x15, 0x16, 0x28, 0xAE, 0xD2, 0xA6,
                         0xAB, 0xF7, 0x15, 0x88, 0x09, 0xCF, 0x4F, 0x3C};
const Bytes g_aIV     = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// A provider and a key, made new or from a blob; status tells how it went.
struct CipherKey {
    BCRYPT_ALG_HANDLE hAlgorithm = nullptr;
    BCRYPT_KEY_HANDLE hKey       = nullptr;
    Bytes             aObject;
    NTSTATUS          nStatus = -1;

    explicit CipherKey(Bytes aSecretOrBlob, bool bImport = false)
    {
        uint32_t cbObject = 0, cb = 0;
        EXPECT_EQ(STATUS_SUCCESS, BCryptOpenAlgorithmProvider(&hAlgorithm, BCRYPT_AES_ALGORITHM, nullptr, 0));
        EXPECT_EQ(STATUS_SUCCESS, BCryptGetProperty(hAlgorithm, BCRYPT_OBJECT_LENGTH,
                                                    reinterpret_cast<uint8_t *>(&cbObject), sizeof(cbObject), &cb, 0));
        aObject.resize(cbObject);
        if (!bImport) {
            char16_t szMode[std::size(BCRYPT_CHAIN_MODE_CBC)];
            std::memcpy(szMode, BCRYPT_CHAIN_MODE_CBC, sizeof(szMode));
            EXPECT_EQ(STATUS_SUCCESS,
                      BCryptSetProperty(hAlgorithm, BCRYPT_CHAINING_MODE, reinterpret_cast<uint8_t *>(szMode), 32, 0));
        }
        const auto cbInput = static_cast<uint32_t>(aSecretOrBlob.size());
        nStatus = bImport ? BCryptImportKey(hAlgorithm, nullptr, BCRYPT_OPAQUE_KEY_BLOB, &hKey, aObject.data(),
                                            cbObject, aSecretOrBlob.data(), cbInput, 0)
                          : BCryptGenerateSymmetricKey(hAlgorithm, &hKey, aObject.data(), cbObject,
                                                       aSecretOrBlob.data(), cbInput, 0);
    }
    ~CipherKey()
    {
        if (hKey != nullptr) {
            EXPECT_EQ(STATUS_SUCCESS, BCryptDestroyKey(hKey));
        }
        EXPECT_EQ(STATUS_SUCCESS, BCryptCloseAlgorithmProvider(hAlgorithm, 0));
    }
    CipherKey(const CipherKey &)            = delete;
    CipherKey &operator=(const CipherKey &) = delete;

    Bytes Blob() const
    {
        uint32_t       cb    = 0;
        const NTSTATUS nSize = BCryptExportKey(hKey, nullptr, BCRYPT_OPAQUE_KEY_BLOB, nullptr, 0, &cb, 0);
        EXPECT_TRUE(nSize == STATUS_SUCCESS || nSize == STATUS_BUFFER_TOO_SMALL);
        Bytes aBlob(cb);
        EXPECT_EQ(STATUS_SUCCESS, BCryptExportKey(hKey, nullptr, BCRYPT_OPAQUE_KEY_BLOB, aBlob.data(), cb, &cb, 0));
        return aBlob;
    }
    // The size query and the real call; the result is empty when the real call fails, and the status is kept.
    Bytes Run(decltype(&BCryptEncrypt) pfn, Bytes aInput, Bytes *paIV)
    {
        uint32_t    cb      = 0;
        const auto  cbInput = static_cast<uint32_t>(aInput.size());
        const Bytes aBefore = *paIV;
        aInput.reserve(1); // a pointer also for no bytes
        EXPECT_EQ(STATUS_SUCCESS,
                  pfn(hKey, aInput.data(), cbInput, nullptr, paIV->data(), 16, nullptr, 0, &cb, BCRYPT_BLOCK_PADDING));
        EXPECT_EQ(aBefore, *paIV) << "a size query leaves the vector alone";
        Bytes aOutput(cb);
        nStatus =
            pfn(hKey, aInput.data(), cbInput, nullptr, paIV->data(), 16, aOutput.data(), cb, &cb, BCRYPT_BLOCK_PADDING);
        aOutput.resize(nStatus == STATUS_SUCCESS ? cb : 0);
        return aOutput;
    }
};

class Cipher : public MachineTest {};

} // namespace

TEST_F(Cipher, AgreesWithTheStandardsExampleAndComesBackThroughAnImportedKey)
{
    const Bytes aPlain  = {0x6B, 0xC1, 0xBE, 0xE2, 0x2E, 0x40, 0x9F, 0x96,
                           0xE9, 0x3D, 0x7E, 0x11, 0x73, 0x93, 0x17, 0x2A};
    const Bytes aCipher = {0x76, 0x49, 0xAB, 0xAC, 0x81, 0x19, 0xB2, 0x46,
                           0xCE, 0xE9, 0x8E, 0x9B, 0x12, 0xE9, 0x19, 0x7D};
    CipherKey   sender(g_aSecret), receiver(sender.Blob(), true);
    ASSERT_EQ(STATUS_SUCCESS, receiver.nStatus);
    for (const size_t cb : {0u, 15u, 16u, 65536u}) {
        Bytes aText = aPlain, aSendIV = g_aIV, aRecvIV = g_aIV;
        aText.resize(cb, 'x');
        const Bytes aSent = sender.Run(BCryptEncrypt, aText, &aSendIV);
        ASSERT_EQ(cb / 16 * 16 + 16, aSent.size()) << cb;
        if (cb >= 16) {
            EXPECT_EQ(aCipher, Bytes(aSent.begin(), aSent.begin() + 16));
        }
        EXPECT_EQ(aText, receiver.Run(BCryptDecrypt, aSent, &aRecvIV)) << cb;
        EXPECT_NE(g_aIV, aSendIV) << cb << ": a real call moves the vector on";
    }
}

TEST_F(Cipher, ForeignOrDamagedTextFails)
{
    CipherKey key(g_aSecret), other(Bytes(16, 0x55));
    Bytes     aIV = g_aIV, aText = key.Run(BCryptEncrypt, Bytes(100, 'x'), &aIV);
    aIV = g_aIV;
    EXPECT_TRUE(other.Run(BCryptDecrypt, aText, &aIV).empty());
    EXPECT_NE(STATUS_SUCCESS, other.nStatus);
    aText.back() ^= 0x40;
    aIV = g_aIV;
    EXPECT_TRUE(key.Run(BCryptDecrypt, aText, &aIV).empty());
    EXPECT_NE(STATUS_SUCCESS, key.nStatus);
    uint32_t cb = 0;
    aIV         = g_aIV;
    EXPECT_NE(STATUS_SUCCESS, BCryptDecrypt(key.hKey, aText.data(), 17, nullptr, aIV.data(), 16, aText.data(), 112, &cb,
                                            BCRYPT_BLOCK_PADDING))
        << "no whole blocks";
}
