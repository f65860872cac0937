// The cipher's wire constants, its lengths, and each failing step's line and clean-up.
#include "tests/transfer/transfer_fixture.h"

using namespace platform;

class PayloadCipherTest : public TransferTest {};

TEST_F(PayloadCipherTest, KnownKeyAndPlainTextGiveTheKnownCipherText)
{
    std::string sBlob("\x10\0\0\0", 4);
    for (char ch = 0; ch < 16; ch++) sBlob += ch;
    const TestKey     key(sBlob);
    const std::string sKnown("\xd6\x26\xe7\x7a\xb6\x8e\x2f\x8b\x5b\xf1\xa5\x19\xeb\x4f\x32\xee"
                             "\x86\x24\xf1\xb4\x88\x70\xca\x1f\x26\x95\xac\x5d\x2d\x3c\xa3\x27");
    EXPECT_EQ(sKnown, key.Encrypt("0123456789abcdef"));
    EXPECT_EQ(sKnown, key.Encrypt("0123456789abcdef")) << "each chunk starts from the same vector";
    EXPECT_EQ("0123456789abcdef", key.Decrypt(sKnown));
    EXPECT_EQ("", key.Decrypt("not a whole block")) << "decryption reports success and no bytes";
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
    struct Context {
        BCRYPT_ALG_HANDLE hAlgorithm;
        BCRYPT_KEY_HANDLE hKey;
        uint8_t          *pbObject;
    };
    KeepLines();
    const int nCiphers = hosted::OpenCiphers();
    for (const auto &c : aCases) {
        Context  own = {}, peer = {};
        uint8_t *pbBlob = nullptr, *pbCipher = nullptr, *pbPlain = nullptr;
        uint32_t cbBlob = 0, cbCipher = 0, cbPlain = 0;
        hosted::ClearFaults();
        hosted::FailCall(c.pszCall, c.nth, static_cast<uint32_t>(STATUS_DATA_ERROR));
        hosted::TakeDebugOutput();
        const bool bAll = GetKeyAlgHandle(nullptr, 0, &own.hKey, &own.pbObject, &own.hAlgorithm) &&
                          OutputKeyHandleToByte(own.hKey, &pbBlob, &cbBlob) &&
                          GetKeyAlgHandle(pbBlob, cbBlob, &peer.hKey, &peer.pbObject, &peer.hAlgorithm) &&
                          EncryptDataWithKeyHandle(own.hAlgorithm, own.hKey, reinterpret_cast<const uint8_t *>("abc"),
                                                   3, &pbCipher, &cbCipher) &&
                          DecryptDataWithKeyHandle(peer.hAlgorithm, peer.hKey, pbCipher, cbCipher, &pbPlain, &cbPlain);
        EXPECT_EQ(std::string(c.pszCall) == "BCryptDecrypt", bAll) << c.pszLine; // that one says true all the same
        EXPECT_EQ(0u, cbPlain) << c.pszLine;
        EXPECT_EQ(0u, std::string(hosted::TakeDebugOutput()).find(c.pszLine)) << c.pszLine;
        ReleaseKeyHandle(own.hAlgorithm, own.hKey, own.pbObject);
        ReleaseKeyHandle(peer.hAlgorithm, peer.hKey, peer.pbObject);
        EXPECT_EQ(peer.hKey == nullptr, std::strstr(hosted::TakeDebugOutput(),
                                                    "**** [ReleaseKeyHandle] BCryptDestroyKey failed!. \n") != nullptr);
        delete[] pbBlob;
        delete[] pbCipher;
        delete[] pbPlain;
        EXPECT_EQ(nCiphers, hosted::OpenCiphers()) << c.pszLine;
    }
}
