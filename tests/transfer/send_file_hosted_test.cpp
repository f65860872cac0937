// One file's stream as it lies on the wire, and the code of each way in which sending it fails.
#include "tests/transfer/transfer_fixture.h"
#include "transfer/file_queries.h"
#include "transfer/send_file.h"
#include <unistd.h>

using namespace platform;

class SendFileTest : public TransferTest {
  protected:
    void SetUp() override
    {
        TransferTest::SetUp();
        m_sFile = m_sFolder + u"\\source.bin";
    }
    // Sends the file inside a hold, as the command layer does; what the peer got is in m_sStream.
    int64_t Send(uint8_t bEncrypt, const char *pszCall = nullptr, int nth = 0, uint32_t dwError = 0)
    {
        LinkPair link;
        auto     drain = Drain(link.hServer);
        m_bWhole       = false;
        EnterCriticalSection(&g_csNetSocket);
        HoldSends(link.hClient);
        hosted::ClearFaults();
        if (pszCall != nullptr) hosted::FailCall(pszCall, nth, dwError);
        const int64_t nRet = SendFile(link.hClient, m_sFile.c_str(), bEncrypt, &m_bWhole);
        FlushSends(link.hClient);
        LeaveCriticalSection(&g_csNetSocket);
        LinkPair::Close(&link.hClient);
        m_sStream = drain.get();
        hosted::ClearFaults();
        return nRet;
    }
    std::string CancelBlock() const { return Field("VnNetSocket_CancelSendFile", 50); }

    std::u16string m_sFile;
    std::string    m_sStream;
    bool           m_bWhole = false;
};

TEST_F(SendFileTest, TheStreamIsSizeThenChunks)
{
    static const struct {
        size_t                cb;
        std::vector<uint32_t> aCipher;
    } aCases[] = {{0, {}}, {1, {16}}, {50, {64}}, {51, {64}}, {65535, {65536}}, {65536, {65552}}, {65537, {65552, 16}}};
    for (const auto &c : aCases) {
        const std::string sContent = Content(c.cb);
        WriteTestFile(m_sFile, sContent);
        EXPECT_EQ(static_cast<int64_t>(c.cb), Send(0));
        EXPECT_EQ(Bytes(static_cast<int64_t>(c.cb)) + sContent, m_sStream);
        EXPECT_TRUE(m_bWhole);

        EXPECT_EQ(static_cast<int64_t>(c.cb), Send(1));
        ASSERT_EQ(Bytes(static_cast<int64_t>(c.cb)) + Bytes(uint32_t{20}), m_sStream.substr(0, 12));
        for (size_t k = 17; k < 32; k++)
            EXPECT_EQ(static_cast<char>(m_sStream[k - 1] + 1), m_sStream[k]) << "a key counts up from its first byte";
        const TestKey key(m_sStream.substr(12, 20));
        size_t        i = 32;
        std::string   sPlain;
        for (const uint32_t cb : c.aCipher) {
            EXPECT_EQ(Bytes(cb), m_sStream.substr(i, 4)) << c.cb;
            sPlain += key.Decrypt(m_sStream.substr(i + 4, cb));
            i += 4 + cb;
        }
        EXPECT_EQ(m_sStream.size(), i) << c.cb;
        EXPECT_EQ(sContent, sPlain) << c.cb;
    }
}

TEST_F(SendFileTest, AnAbortSendsOneMoreChunkThatBeginsWithTheCancelBlock)
{
    const uint64_t ullExecution = AddThreadExecution();
    g_hSendExecution            = ullExecution;
    CancelAllThreadExecutions();
    WriteTestFile(m_sFile, Content(200000));
    EXPECT_EQ(-201, Send(0));
    EXPECT_EQ(Bytes(int64_t{200000}) + CancelBlock() + Content(65536).substr(50), m_sStream);
    EXPECT_FALSE(m_bWhole);
    WriteTestFile(m_sFile, Content(50)); // no room for the block: the real bytes, and the peer takes them for the file
    EXPECT_EQ(-201, Send(0));
    EXPECT_EQ(Bytes(int64_t{50}) + Content(50), m_sStream);
    EXPECT_TRUE(m_bWhole);

    WriteTestFile(m_sFile, Content(51));
    static const struct {
        std::atomic<uint8_t> *pFlag;
        int64_t               nExpected; // over the cancellation, and over the flags before it
    } aFlags[] = {{&g_bRemoteFileError, -202}, {&g_bRemoteFileFull, -203}, {&g_bRemoteFileTypeUnknown, -204}};
    for (const auto &c : aFlags) {
        *c.pFlag = 1;
        EXPECT_EQ(c.nExpected, Send(1));
        EXPECT_FALSE(m_bWhole);
        EXPECT_EQ(CancelBlock() + Content(51).substr(50),
                  TestKey(m_sStream.substr(12, 20)).Decrypt(m_sStream.substr(36)));
    }
    RemoveThreadExecution(ullExecution);
}

TEST_F(SendFileTest, EachFailingCallHasItsCodeAndLeavesNothingOpen)
{
    constexpr uint32_t BAD = static_cast<uint32_t>(STATUS_DATA_ERROR);
    static const struct {
        const char *pszCall;
        int         nth;
        uint32_t    dwError;
        int64_t     nExpected;
        uint32_t    dwSaved; // gdwErr
        size_t      cbStream;
    } aCases[] = {
        {"CreateFileW", 1, ERROR_SHARING_VIOLATION, -401, ERROR_SHARING_VIOLATION, 32},
        {"CreateFileW", 2, ERROR_ACCESS_DENIED, -102, ERROR_ACCESS_DENIED, 32},
        {"GetFileSizeEx", 1, ERROR_GEN_FAILURE, -401, ERROR_GEN_FAILURE, 32},
        {"send", 1, WSAECONNRESET, -2, 0, 0},
        {"BCryptOpenAlgorithmProvider", 1, BAD, -1313, 0, 12},
        {"BCryptExportKey", 2, BAD, -1313, 0, 12},
        {"send", 2, WSAECONNRESET, -6, 0, 8},
        {"send", 3, WSAECONNRESET, -7, 0, 12},
        {"send", 4, WSAECONNRESET, -4, 0, 32},
        {"send", 5, WSAECONNRESET, -3, 0, 36},
        {"send", 21, WSAECONNRESET, -3, 0, 65572}, // the last of the first chunk's seventeen pieces
        {"ReadFile", 1, ERROR_GEN_FAILURE, -103, ERROR_GEN_FAILURE, 32 + 4 + 65552},
        {"ReadFile", 2, ERROR_GEN_FAILURE, -103, ERROR_GEN_FAILURE, 32 + 4 + 65552 + 4 + 50},
        {"BCryptEncrypt", 3, BAD, -1313, 0, 32 + 4 + 65552 + 4 + 50}, // the last chunk
        {"BCryptEncrypt", 1, BAD, 65546, 0, 32 + 4 + 50 + 4 + 16},    // only the last one decides
    };
    WriteTestFile(m_sFile, Content(65546));
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles(), nCiphers = hosted::OpenCiphers();
        gdwErr = 0;
        EXPECT_EQ(c.nExpected, Send(1, c.pszCall, c.nth, c.dwError)) << c.pszCall << c.nth;
        EXPECT_EQ(c.dwSaved, gdwErr) << c.pszCall << c.nth;
        EXPECT_EQ(c.cbStream, m_sStream.size()) << c.pszCall << c.nth;
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << c.pszCall << c.nth;
        EXPECT_EQ(nCiphers, hosted::OpenCiphers()) << c.pszCall << c.nth;
    }
    KeepLines();
    EXPECT_EQ(-2, Send(1, "send", 1, WSAECONNRESET));
    EXPECT_EQ(nullptr, std::strstr(hosted::TakeDebugOutput(), "ReleaseKeyHandle")) << "there is no key yet";
    EXPECT_EQ(-3, Send(0, "send", 2, WSAECONNRESET));
    EXPECT_EQ(-103, Send(0, "ReadFile", 1, ERROR_GEN_FAILURE));
    EXPECT_EQ(CancelBlock(), m_sStream.substr(8, 50));
    EXPECT_EQ(std::string(65536 - 50, '\0'), m_sStream.substr(58)) << "nothing of the sender's memory goes out";
}

TEST_F(SendFileTest, AFileThatShrinksIsCancelledAndOneThatGrowsKeepsItsSize)
{
    for (const bool bShrinks : {true, false}) {
        WriteTestFile(m_sFile, Content(6 << 20));
        LinkPair    link; // nobody reads yet, so the sender stands still in the middle
        int64_t     nRet = 0;
        std::thread sender([&] {
            EnterCriticalSection(&g_csNetSocket);
            nRet = SendFile(link.hClient, m_sFile.c_str(), 1, nullptr);
            LeaveCriticalSection(&g_csNetSocket);
            LinkPair::Close(&link.hClient);
        });
        int         nCalls = -1;
        EXPECT_TRUE(Eventually([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            return std::exchange(nCalls, hosted::CallCount("send")) == hosted::CallCount("send") && nCalls > 100;
        }));
        char sHost[1024];
        ASSERT_TRUE(hosted::HostPath(m_sFile.c_str(), sHost, sizeof(sHost)));
        ASSERT_EQ(0, truncate(sHost, bShrinks ? 1000 : 7 << 20));
        auto drain = Drain(link.hServer);
        sender.join();
        const std::string sStream = drain.get();
        EXPECT_EQ(bShrinks ? -103 : 6 << 20, nRet);
        if (bShrinks) {
            EXPECT_EQ(ERROR_HANDLE_EOF, gdwErr);
        } else {
            EXPECT_EQ(32u + 96 * (4 + 65552), sStream.size());
        }
    }
}

TEST_F(SendFileTest, ASizeAboveFourGigabytesIsAnnouncedAndACancelEndsIt)
{
    constexpr int64_t SIZE = 5LL << 30;
    char              sHost[1024];
    WriteTestFile(m_sFile, "");
    ASSERT_TRUE(hosted::HostPath(m_sFile.c_str(), sHost, sizeof(sHost)));
    ASSERT_EQ(0, truncate(sHost, SIZE)); // holes: the disk holds nothing of it
    InitThreadExecutionList();
    g_hSendExecution = AddThreadExecution();
    CancelAllThreadExecutions();
    EXPECT_EQ(-201, Send(0));
    EXPECT_EQ(Bytes(SIZE) + CancelBlock() + std::string(65536 - 50, '\0'), m_sStream);
    EXPECT_EQ(SIZE, GetFileSize64(m_sFile.c_str()));
    g_hSendExecution = 0;
    DeleteThreadExecutionList();
}
