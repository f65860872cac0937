// transfer_fixture.h: two connected sockets, bytes written to one of them, and a peer that takes files and says what it
// got.
#pragma once
#include "ipc/thread_execution.h"
#include "net/command_channel.h"
#include "net/network_link.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "tests/support/eventually.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/payload_cipher.h"
#include "transfer/socket_io.h"
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

template <class T> std::string Bytes(T value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

inline std::string Field(const std::string &sText, size_t cb = 10)
{
    std::string sField = sText;
    sField.resize(cb, '\0');
    return sField;
}

// Bytes in which every chunk differs from every other.
inline std::string Content(size_t cb)
{
    std::string s(cb, '\0');
    for (size_t i = 0; i < cb; i++)
        s[i] = static_cast<char>(i * 7 + i / 65536 * 3 + i / 251);
    return s;
}

// A key and what it makes of chunks; independent of the streams under test.
struct TestKey {
    platform::BCRYPT_ALG_HANDLE hAlgorithm  = nullptr;
    platform::BCRYPT_KEY_HANDLE hKey        = nullptr;
    uint8_t                    *pbKeyObject = nullptr;

    explicit TestKey(const std::string &sBlob = std::string("\x10\0\0\0ABCDEFGHIJKLMNOP", 20))
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
    return Bytes(uint32_t{20}) + std::string("\x10\0\0\0ABCDEFGHIJKLMNOP", 20);
}
inline std::string CipherChunk(const std::string &sPlain)
{
    const std::string sCipher = TestKey().Encrypt(sPlain);
    return Bytes(static_cast<uint32_t>(sCipher.size())) + sCipher;
}

// What arrives at a socket until its other end closes.
class Drain
{
  public:
    explicit Drain(platform::SOCKET s)
        : m_Thread([this, s] {
              char    aPiece[65536];
              int32_t n = 0;
              while ((n = platform::recv(s, aPiece, sizeof aPiece, 0)) > 0)
                  m_s.append(aPiece, static_cast<size_t>(n));
          })
    {
    }
    ~Drain()
    {
        if (m_Thread.joinable()) m_Thread.join();
    }
    std::string Take() // after the other end was closed
    {
        m_Thread.join();
        return m_s;
    }

  private:
    std::string m_s;
    std::thread m_Thread;
};

// What a peer's listener would do: takes whole exchanges off the link and answers each file through the outcome flags.
struct PeerFile {
    std::u16string sPath;
    uint32_t       dwType;
    std::string    sContent;
    bool           bCancelled;
};
class FakePeer
{
  public:
    // The answer to a file: the flag to set, or null for none.
    using Answer = std::function<std::atomic<uint8_t> *(const PeerFile &)>;
    FakePeer(platform::SOCKET s, Answer answer) : m_s(s), m_Answer(std::move(answer)), m_Thread([this] { Run(); }) {}
    ~FakePeer() { m_Thread.join(); } // after the link was closed
    std::vector<PeerFile> Files()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_aFiles;
    }
    std::vector<IpcMessage> Records()
    {
        std::lock_guard<std::mutex> lock(m_Lock);
        return m_aRecords;
    }

  private:
    bool Take(void *p, size_t cb)
    {
        for (size_t cbDone = 0; cbDone < cb;) {
            const int32_t n =
                platform::recv(m_s, static_cast<char *>(p) + cbDone, static_cast<int32_t>(cb - cbDone), 0);
            if (n <= 0) return false;
            cbDone += static_cast<size_t>(n);
        }
        return true;
    }
    bool TakeBody(PeerFile &file)
    {
        int64_t     cbLeft = 0;
        uint32_t    cb     = 0;
        std::string s(5, '\0');
        if (!Take(s.data(), 5) || !Take(&cbLeft, sizeof cbLeft) || !Take(&cb, sizeof cb) || cb == 0) return false;
        s.resize(cb);
        if (!Take(s.data(), cb)) return false;
        TestKey key(s);
        while (cbLeft > 0) {
            if (!Take(&cb, sizeof cb)) return false;
            s.resize(cb);
            if (!Take(s.data(), cb)) return false;
            const std::string sPlain = cb == 50 ? s : key.Decrypt(s);
            file.bCancelled          = sPlain.compare(0, 26, "VnNetSocket_CancelSendFile") == 0;
            if (file.bCancelled) return true;
            file.sContent += sPlain;
            cbLeft -= static_cast<int64_t>(sPlain.size());
        }
        return true;
    }
    void Run()
    {
        char szWord[10];
        while (Take(szWord, sizeof szWord)) {
            if (std::string(szWord) == "SendData") {
                IpcMessage record;
                if (!Take(&record, sizeof record)) return;
                std::lock_guard<std::mutex> lock(m_Lock);
                m_aRecords.push_back(record);
                continue;
            }
            ASSERT_STREQ("SendFile", szWord);
            PeerFile              file = {};
            std::vector<char16_t> aPath(1025);
            if (!Take(aPath.data(), 2050) || !Take(&file.dwType, sizeof file.dwType)) return;
            file.sPath = aPath.data();
            if (file.dwType != 2 && !TakeBody(file)) return;
            {
                std::lock_guard<std::mutex> lock(m_Lock);
                m_aFiles.push_back(file);
            }
            if (std::atomic<uint8_t> *pFlag = file.bCancelled ? nullptr : m_Answer(file)) {
                *pFlag = 1;
                platform::SetEvent(GetFileOutcomeEvent());
            }
        }
    }
    const platform::SOCKET  m_s;
    const Answer            m_Answer;
    std::mutex              m_Lock;
    std::vector<PeerFile>   m_aFiles;
    std::vector<IpcMessage> m_aRecords;
    std::thread             m_Thread;
};

class TransferTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        FreshMachine();
        ResetNetworkLink();
        OpenNetSocketLock();
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
    // The role of a server on the link; what its peer gets goes to pPeer.
    void BecomeServer(FakePeer::Answer answer)
    {
        g_bServer          = 1;
        g_ServerSendSocket = m_pLink->hServer;
        m_pPeer            = std::make_unique<FakePeer>(m_pLink->hClient, std::move(answer));
    }
    void EndRole()
    {
        g_bServer          = 0;
        g_ServerSendSocket = platform::INVALID_SOCKET;
        LinkPair::Close(&m_pLink->hServer);
        m_pPeer.reset();
    }

    WinsockStarted            m_Winsock;
    std::unique_ptr<LinkPair> m_pLink;
    std::unique_ptr<FakePeer> m_pPeer;
    std::u16string            m_sFolder;
};
