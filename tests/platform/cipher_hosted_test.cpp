// cipher_hosted_test.cpp: the hosted key blob, which comes from the peer and is read with care.
#include "platform/cipher.h"
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include <vector>

using namespace platform;

class HostedCipher : public MachineTest {};

TEST_F(HostedCipher, OnlyAWholeBlobIsAKey)
{
    static const struct {
        std::vector<uint8_t> aStart;
        size_t               cb;
        bool                 bGood;
    } aCases[] = {
        {{16, 0, 0, 0}, 20, true},
        {{32, 0, 0, 0}, 36, false},
        {{}, 0, false},
        {{16, 0, 0}, 3, false},
        {{0, 0, 0, 0}, 4, false},
        {{16, 0, 0, 0}, 19, false},
        {{16, 0, 0, 0}, 21, false},
        {{15, 0, 0, 0}, 19, false},
        {{0xFF, 0xFF, 0xFF, 0xFF}, 20, false},
        {{64, 0, 0, 0}, 68, false},
        {{0xFC, 0xFF, 0xFF, 0xFF}, 0, false},
    };
    BCRYPT_ALG_HANDLE hAlgorithm = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, BCryptOpenAlgorithmProvider(&hAlgorithm, BCRYPT_AES_ALGORITHM, nullptr, 0));
    for (const auto &c : aCases) {
        std::vector<uint8_t> aBlob = c.aStart, aObject(1024);
        BCRYPT_KEY_HANDLE    hKey  = nullptr;
        aBlob.resize(c.cb, 0xAA);
        aBlob.reserve(1);
        const NTSTATUS nStatus = BCryptImportKey(hAlgorithm, nullptr, BCRYPT_OPAQUE_KEY_BLOB, &hKey, aObject.data(),
                                                 1024, aBlob.data(), static_cast<uint32_t>(c.cb), 0);
        EXPECT_EQ(c.bGood, nStatus == STATUS_SUCCESS) << c.cb;
        if (c.bGood) {
            EXPECT_EQ(2, hosted::OpenCiphers());
            EXPECT_EQ(STATUS_SUCCESS, BCryptDestroyKey(hKey));
        }
    }
    EXPECT_EQ(STATUS_SUCCESS, BCryptCloseAlgorithmProvider(hAlgorithm, 0));
    EXPECT_EQ(0, hosted::OpenCiphers());
}
