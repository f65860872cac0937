// The cipher's wire constants, its lengths, and each failing step's line and clean-up.
#include "tests/transfer/transfer_fixture.h"

using namespace platform;

class PayloadCipherTest : public TransferTest
{
};

TEST_F(PayloadCipherTest, KnownKeyAndPlainTextGiveTheKnownCipherText)
{
    std::string sBlob("\x10\0\0\0", 4);
    for (char ch = 0; ch < 16; ch++)
        sBlob += ch;
    const TestKey     key(sBlob);
    const std::string sKnown("\xd6\x26\xe7\x7a\xb6\x8e\x2f\x8b\x5b\xf1\xa5\x19\xeb\x4f\x32\xee"
                             "\x86\x24\xf1\xb4\x88\x70\xca\x1f\x26\x95\xac\x5d\x2d\x3c\xa3\x27");
    EXPECT_EQ(sKnown, key.Encrypt("0123456789abcdef"));
    EXPECT_EQ(sKnown, key.Encrypt("0123456789abcdef")) << "each chunk starts from the same vector";
    EXPECT_EQ("0123456789abcdef", key.Decrypt(sKnown));
    static const size_t aLengths[][2] = {{0, 16}, {15, 16}, {16, 32}, {65535, 65536}, {65536, 65552}};
    for (const auto &a : aLengths) {
        const std::string sCipher = key.Encrypt(Content(a[0]));
        EXPECT_EQ(a[1], sCipher.size());
        EXPECT_EQ(Content(a[0]), key.Decrypt(sCipher));
    }
    EXPECT_EQ("", key.Decrypt("not a whole block")) << "decryption reports success and no bytes";
}

TEST_F(PayloadCipherTest, ANewKeyCountsUpFromOneByteOfTheTick)
{
    BCRYPT_ALG_HANDLE hAlgorithm = nullptr;
    BCRYPT_KEY_HANDLE hKey       = nullptr;
    uint8_t          *pbObject   = nullptr;
    uint8_t          *pbBlob     = nullptr;
    uint32_t          cbBlob     = 0;
    ASSERT_TRUE(GetKeyAlgHandle(nullptr, 0, &hKey, &pbObject, &hAlgorithm));
    ASSERT_TRUE(OutputKeyHandleToByte(hKey, &pbBlob, &cbBlob));
    ASSERT_EQ(20u, cbBlob);
    for (uint32_t i = 5; i < cbBlob; i++)
        EXPECT_EQ(static_cast<uint8_t>(pbBlob[i - 1] + 1), pbBlob[i]);
    delete[] pbBlob;
    ReleaseKeyHandle(hAlgorithm, hKey, pbObject);
}

TEST_F(PayloadCipherTest, EachFailingStepHasItsLineAndLeavesNothing)
{
    static const struct {
        const char *pszCall;
        int         nth;
        const char *pszLine;
    } aCases[] = {
        {"BCryptOpenAlgorithmProvider", 1, "**** [GetKeyAlgHandle] BCryptOpenAlgorithmProvider failed!. \n"},
        {"BCryptGetProperty", 1, "**** [GetKeyAlgHandle] BCryptGetProperty (get size) failed!. \n"},
        {"BCryptSetProperty", 1, "**** [GetKeyAlgHandle] BCryptSetProperty failed! \n"},
        {"BCryptGenerateSymmetricKey", 1, "**** [GetKeyAlgHandle] BCryptGenerateSymmetricKey failed. \n"},
        {"BCryptExportKey", 1, "**** [OutputKeyHandleToByte] BCryptExportKey (get size) failed!.\n"},
        {"BCryptExportKey", 2, "**** [OutputKeyHandleToByte] BCryptExportKey failed! \n"},
        // Names the wrong call; the full stop tells it from the line above.
        {"BCryptImportKey", 1, "**** [GetKeyAlgHandle] BCryptSetProperty failed!. \n"},
        {"BCryptGetProperty", 3, "**** [EncryptDataWithKeyHandle] BCryptGetProperty failed!. \n"},
        {"BCryptEncrypt", 1, "**** [EncryptDataWithKeyHandle] BCryptEncrypt (get size) failed!. \n"},
        {"BCryptEncrypt", 2, "**** [EncryptDataWithKeyHandle] BCryptEncrypt failed!. \n"},
        {"BCryptGetProperty", 4, "**** [DecryptDataWithKeyHandle] BCryptGetProperty (get size) failed!. \n"},
        {"BCryptGetProperty", 5, "**** [DecryptDataWithKeyHandle] BCryptGetProperty failed!. \n"},
        {"BCryptDecrypt", 1, "[DecryptDataWithKeyHandle] BCryptDecrypt (get size) failed!. \n"},
        {"BCryptDecrypt", 2, "[DecryptDataWithKeyHandle] BCryptDecrypt failed!. \n"},
    };
    KeepLines();
    const int nCiphers = hosted::OpenCiphers();
    for (const auto &c : aCases) {
        BCRYPT_ALG_HANDLE hAlgorithm = nullptr, hPeerAlgorithm = nullptr;
        BCRYPT_KEY_HANDLE hKey = nullptr, hPeerKey = nullptr;
        uint8_t          *pbObject = nullptr, *pbBlob = nullptr, *pbCipher = nullptr, *pbPlain = nullptr;
        uint8_t          *pbPeerObject = nullptr;
        uint32_t          cbBlob = 0, cbCipher = 0, cbPlain = 99;
        hosted::ClearFaults();
        hosted::FailCall(c.pszCall, c.nth, static_cast<uint32_t>(STATUS_DATA_ERROR));
        hosted::TakeDebugOutput();
        const bool bAll = GetKeyAlgHandle(nullptr, 0, &hKey, &pbObject, &hAlgorithm) &&
                          OutputKeyHandleToByte(hKey, &pbBlob, &cbBlob) &&
                          GetKeyAlgHandle(pbBlob, cbBlob, &hPeerKey, &pbPeerObject, &hPeerAlgorithm) &&
                          EncryptDataWithKeyHandle(hAlgorithm, hKey, reinterpret_cast<const uint8_t *>("abc"), 3,
                                                   &pbCipher, &cbCipher) &&
                          DecryptDataWithKeyHandle(hPeerAlgorithm, hPeerKey, pbCipher, cbCipher, &pbPlain, &cbPlain);
        EXPECT_EQ(std::string(c.pszCall) == "BCryptDecrypt", bAll) << c.pszLine; // that one says true all the same
        if (bAll) {
            EXPECT_EQ(0u, cbPlain) << c.pszLine;
        }
        EXPECT_EQ(0u, std::string(hosted::TakeDebugOutput()).find(c.pszLine)) << c.pszLine;
        ReleaseKeyHandle(hAlgorithm, hKey, pbObject);
        ReleaseKeyHandle(hPeerAlgorithm, hPeerKey, pbPeerObject);
        EXPECT_EQ(hPeerKey == nullptr, strstr(hosted::TakeDebugOutput(),
                                              "**** [ReleaseKeyHandle] BCryptDestroyKey failed!. \n") != nullptr);
        delete[] pbBlob;
        delete[] pbCipher;
        delete[] pbPlain;
        EXPECT_EQ(nCiphers, hosted::OpenCiphers()) << c.pszLine;
    }
}
