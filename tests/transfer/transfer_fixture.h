// transfer_fixture.h: two connected sockets, what a file looks like on them, and a role whose peer answers as told.
#pragma once
#include "ipc/thread_execution.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "net/network_link.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "tests/migration/fake_peer.h"
#include "tests/net/net_fixture.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include "trace/debug_output.h"
#include "transfer/answer_queue.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include "transfer/socket_io.h"
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Bytes in which every chunk differs from every other.
inline std::string Content(size_t cb)
{
    std::string s(cb, '\0');
    for (size_t i = 0; i < cb; i++) s[i] = static_cast<char>(i * 7 + i / 65536 * 3 + i / 251);
    return s;
}

// A key and what it makes of chunks; independent of the streams under test.
inline std::string KeyBlob()
{
    return std::string("\x10\0\0\0ABCDEFGHIJKLMNOP", 20);
}
struct TestKey {
    platform::BCRYPT_ALG_HANDLE hAlgorithm  = nullptr;
    platform::BCRYPT_KEY_HANDLE hKey        = nullptr;
    uint8_t                    *pbKeyObject = nullptr;

    explicit TestKey(const std::string &sBlob = KeyBlob())
    {
        EXPECT_TRUE(GetKeyAlgHandle(reinterpret_cast<const uint8_t *>(sBlob.data()),
                                    static_cast<uint32_t>(sBlob.size()), &hKey, &pbKeyObject, &hAlgorithm));
    }
    ~TestKey() { ReleaseKeyHandle(hAlgorithm, hKey, pbKeyObject); }
    TestKey(const TestKey &)               = delete;
    TestKey    &operator=(const TestKey &) = delete;
    std::string Encrypt(const std::string &s) const { return Run(EncryptDataWithKeyHandle, s); }
    std::string Decrypt(const std::string &s) const { return Run(DecryptDataWithKeyHandle, s); }

  private:
    template <class F> std::string Run(F pOperation, const std::string &s) const
    {
        uint8_t *pb = nullptr;
        uint32_t cb = 0;
        EXPECT_TRUE(pOperation(hAlgorithm, hKey, reinterpret_cast<const uint8_t *>(s.data()),
                               static_cast<uint32_t>(s.size()), &pb, &cb));
        std::string sOut(reinterpret_cast<char *>(pb), cb);
        delete[] pb;
        return sOut;
    }
};
inline std::string KeyField()
{
    return Bytes(uint32_t{20}) + KeyBlob();
}
inline std::string CipherChunk(const std::string &sPlain)
{
    const std::string sCipher = TestKey().Encrypt(sPlain);
    return Bytes(static_cast<uint32_t>(sCipher.size())) + sCipher;
}

// What arrives at a socket until its other end closes.
inline std::future<std::string> Drain(platform::SOCKET h)
{
    return std::async(std::launch::async, [h] {
        std::string s;
        char        aPiece[65536];
        for (int32_t n; (n = platform::recv(h, aPiece, sizeof(aPiece), 0)) > 0;)
            s.append(aPiece, static_cast<size_t>(n));
        return s;
    });
}

class TransferTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        FreshMachine();
        ResetNetworkLink();
        ResetLinkWindow();
        ResetAnswerQueue();
        MakeNetSocketLock();
        GetFileOutcomeEvent();
        InitThreadExecutionList();
        BindThreadToLink(0);
        ClearOutcome();
        g_bSendingFile = g_bRecvFileActive = g_bRecvFileTypeUnknown = 0;
        g_nWSAErr                                                   = 0;
        g_hSendExecution                                            = 0;
        m_pLink                                                     = std::make_unique<LinkPair>();
        m_sFolder                                                   = TestFolder();
    }
    void TearDown() override
    {
        m_pPeer.reset();
        g_bSocketDebug = 0;
        ResetNetworkLink();
        DeleteThreadExecutionList();
    }
    static void ClearOutcome()
    {
        g_bRemoteFileDone = g_bRemoteFileError = g_bRemoteFileFull = g_bRemoteFileAllFull = g_bRemoteFileTypeUnknown =
            0;
    }
    static void KeepLines()
    {
        g_bSocketDebug = 1;
        hosted::KeepDebugOutput(true);
        hosted::TakeDebugOutput();
    }
    WinsockStarted            m_Winsock;
    std::unique_ptr<LinkPair> m_pLink;
    std::unique_ptr<FakePeer> m_pPeer;
    std::u16string            m_sFolder;
};
