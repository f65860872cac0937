// Receiving a stream: what is stored, the word that goes back, the code of each bad stream, and the link left in step.
#include "tests/transfer/transfer_fixture.h"
#include "transfer/recv_file.h"

using namespace platform;

class RecvFileTest : public TransferTest {
  protected:
    void SetUp() override
    {
        TransferTest::SetUp();
        m_sFile = m_sFolder + u"\\received.bin";
        PrepareLinkSocket(m_pLink->hServer);
    }
    // Receives the stream, closes nothing. What came back is in m_sWords, 10 bytes each.
    int64_t Receive(const std::string &sStream, uint8_t bEncrypt)
    {
        std::thread writer([&] { SendBuffer(m_pLink->hClient, sStream.data(), static_cast<int32_t>(sStream.size())); });
        const int64_t nRet = ReceiveHere(bEncrypt);
        writer.join();
        const std::string sEnd = Field("END");
        SendBuffer(m_pLink->hServer, sEnd.data(), 10);
        m_sWords.clear();
        for (char szWord[10]; RecvBuffer(m_pLink->hClient, szWord, 10) == 10 && std::string(szWord) != "END";)
            m_sWords += std::string(szWord) + ' ';
        return nRet;
    }
    int64_t ReceiveHere(uint8_t bEncrypt)
    {
        m_file = {};
        SetIncomingFile(&m_file, m_sFile.c_str(), m_bOverwrite);
        return RecvFile(m_pLink->hServer, &m_file, bEncrypt);
    }
    // The link is in step: the next bytes are those that follow the stream.
    bool InStep()
    {
        char szNext[10];
        SendBuffer(m_pLink->hClient, "NextWord!", 10);
        return RecvBuffer(m_pLink->hServer, szNext, 10) == 10 && std::string(szNext) == "NextWord!";
    }
    // Names in the folder, other than "." and "..".
    std::u16string Listing()
    {
        std::u16string s;
        for (const std::u16string &sName : NamesOf(m_sFolder + u"\\*"))
            if (sName[0] != u'.') s += sName + u"|";
        return s;
    }

    std::u16string m_sFile;
    bool           m_bOverwrite = true;
    IncomingFile   m_file       = {};
    std::string    m_sWords;
};

TEST_F(RecvFileTest, StoresWhatWasSent)
{
    for (const size_t cb : {0, 1, 65535, 65536, 65537}) {
        const std::string sContent = Content(cb);
        EXPECT_EQ(static_cast<int64_t>(cb), Receive(Bytes(static_cast<int64_t>(cb)) + sContent, 0));
        EXPECT_EQ(sContent, ReadTestFile(m_sFile));
        std::string sStream = Bytes(static_cast<int64_t>(cb)) + KeyField();
        for (size_t i = 0; i < cb; i += 65536) sStream += CipherChunk(sContent.substr(i, 65536));
        m_sFile += u"x";
        EXPECT_EQ(static_cast<int64_t>(cb), Receive(sStream, 1));
        EXPECT_EQ(sContent, ReadTestFile(m_sFile));
        EXPECT_EQ(20u, g_dwKeySize);
        EXPECT_EQ(static_cast<int64_t>(cb), g_nRecvFileWritten);
        EXPECT_EQ("", m_sWords);
    }
    m_sFile = m_sFolder + u"\\received.bin";
    EXPECT_EQ(3, Receive(Bytes(int64_t{3}) + "new", 0));
    EXPECT_EQ("new", ReadTestFile(m_sFile)) << "an existing file is overwritten";
    EXPECT_TRUE(InStep());
}

TEST_F(RecvFileTest, AFileHasItsNameOnlyWhenItIsWhole)
{
    WriteTestFile(m_sFile + RECEIVING_SUFFIX, "left behind by a process that was killed");
    int64_t     nRet = 0;
    std::thread receiver([&] { nRet = ReceiveHere(0); });
    const auto  sStream = Bytes(int64_t{100000}) + Content(100000);
    SendBuffer(m_pLink->hClient, sStream.data(), 70000);
    EXPECT_TRUE(Eventually([] { return g_nRecvFileWritten == 65536; }));
    EXPECT_EQ(std::u16string(u"received.bin") + RECEIVING_SUFFIX + u"|", Listing());
    SendBuffer(m_pLink->hClient, sStream.data() + 70000, 30008);
    receiver.join();
    EXPECT_EQ(100000, nRet);
    EXPECT_EQ(u"received.bin|", Listing());
    EXPECT_EQ(Content(100000), ReadTestFile(m_sFile));

    m_sFile = m_sFolder + u"\\" + std::u16string(255, u'n'); // the longest name there is
    EXPECT_EQ(1, Receive(Bytes(int64_t{1}) + "x", 0));
}

// A whole file is not given up for its name.
TEST_F(RecvFileTest, AWholeFileGetsANameOrTheSenderHearsOfIt)
{
    static const struct {
        const char     *pszCall;
        uint32_t        dwError;
        int             nTimes; // the call fails; 0: from then on
        bool            bOverwrite;
        const char16_t *pszStored; // null: nothing
        const char     *pszWords;
    } aCases[] = {
        {"MoveFileExW", ERROR_ALREADY_EXISTS, 1, false, u"received (2).bin", ""}, // taken meanwhile
        {"MoveFileExW", ERROR_ALREADY_EXISTS, 2, false, u"received (3).bin", ""},
        {"MoveFileExW", ERROR_SHARING_VIOLATION, 40, false, u"received.bin", ""}, // a scanner, for 800 ms
        {"MoveFileExW", ERROR_ACCESS_DENIED, 40, true, u"received.bin", ""},
        {"MoveFileExW", ERROR_SHARING_VIOLATION, 0, false, nullptr, "FileError "},
        {"MoveFileExW", ERROR_DISK_FULL, 1, true, nullptr, "FILEERRDF "},
        {"CreateFileW", ERROR_SHARING_VIOLATION, 1, true, u"received.bin", ""}, // the part is in use
        {"CreateFileW", ERROR_ACCESS_DENIED, 2, true, u"received.bin", ""},     // no part at all
        {"CreateFileW", ERROR_DISK_FULL, 1, false, nullptr, "FILEERRDF "},
    };
    hosted::SetClockRate(20);
    for (const auto &c : aCases) {
        const std::string sCase = c.pszCall + std::to_string(c.dwError) + '*' + std::to_string(c.nTimes);
        m_bOverwrite            = c.bOverwrite;
        hosted::ClearFaults();
        for (int i = 1; i <= c.nTimes; i++) hosted::FailCall(c.pszCall, i, c.dwError);
        if (c.nTimes == 0) hosted::FailCall(c.pszCall, 1, c.dwError, true);
        const int64_t nRet = Receive(Bytes(int64_t{1}) + "x", 0);
        hosted::ClearFaults();
        EXPECT_EQ(c.pszStored != nullptr, nRet == 1) << sCase << ": " << nRet;
        EXPECT_EQ(c.pszWords, m_sWords) << sCase;
        EXPECT_EQ(c.pszStored != nullptr ? c.pszStored + std::u16string(u"|") : u"", Listing()) << sCase;
        if (c.pszStored == nullptr) continue;
        EXPECT_EQ(m_sFolder + u"\\" + c.pszStored, m_file.szPath) << sCase;
        DeleteFileW(m_file.szPath);
    }
    // A folder in which nothing may be renamed: the next file is written under its own name.
    hosted::FailCall("MoveFileExW", 1, ERROR_ACCESS_DENIED, true);
    EXPECT_EQ(-102, Receive(Bytes(int64_t{1}) + "x", 0));
    EXPECT_EQ(1, Receive(Bytes(int64_t{1}) + "x", 0));
    EXPECT_EQ(u"received.bin|", Listing());
    hosted::ClearFaults();
    // A name that cannot be asked for is not free for that.
    m_bOverwrite = false;
    WriteTestFile(m_sFile, "the user's");
    hosted::FailCall("GetFileAttributesW", 1, ERROR_ACCESS_DENIED);
    hosted::FailCall("GetFileAttributesW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(1, Receive(Bytes(int64_t{1}) + "x", 0));
    EXPECT_EQ(u"received (2).bin|received.bin|", Listing());
    EXPECT_EQ("the user's", ReadTestFile(m_sFile));
}

TEST_F(RecvFileTest, ASizeAboveFourGigabytesIsTakenForWhatItIs)
{
    for (const uint8_t bEncrypt : {uint8_t{0}, uint8_t{1}}) {
        const std::string sChunk = Content(65536), sCancel = Field("VnNetSocket_CancelSendFile", 65536);
        const std::string sHead = Bytes((int64_t{1} << 32) + 5) + (bEncrypt ? KeyField() : "");
        const std::string sBody = bEncrypt ? CipherChunk(sChunk) + CipherChunk(sCancel) : sChunk + sCancel;
        EXPECT_EQ(-81, Receive(sHead + sBody, bEncrypt));
        EXPECT_EQ(65536, g_nRecvFileWritten) << "not the five bytes that 32 bits hold of it";
        EXPECT_EQ(u"", Listing());
        EXPECT_TRUE(InStep());
    }
}

TEST_F(RecvFileTest, EachBadStreamHasItsCodeAndItsWord)
{
    const std::string sKey    = KeyField();
    const std::string sBig    = Content(65536);
    const std::string sCancel = Field("VnNetSocket_CancelSendFile", 50);
    const struct {
        const char *pszWhat;
        std::string sStream;
        int64_t     nExpected;
        const char *pszWords;
    } aCases[] = {
        {"empty key", Bytes(int64_t{5}) + Bytes(uint32_t{0}), -90, ""},
        {"key refused", Bytes(int64_t{5}) + Bytes(uint32_t{3}) + "abc" + CipherChunk("hello"), -126, "FileError "},
        {"key refused, empty file", Bytes(int64_t{0}) + Bytes(uint32_t{3}) + "abc", -121, ""},
        {"key above the buffer", Bytes(int64_t{0}) + Bytes(uint32_t{70000}) + std::string(70000, 'k'), -121, ""},
        {"cancel block as cipher text",
         Bytes(int64_t{70000}) + sKey + CipherChunk(sBig) + Bytes(uint32_t{50}) + sCancel, -1110, ""},
        {"cancel block longer than the buffer",
         Bytes(int64_t{9}) + sKey + Bytes(uint32_t{200000}) + Field(sCancel, 200000), -1110, ""},
        {"cancel block in the data", Bytes(int64_t{100}) + sKey + CipherChunk(sCancel + std::string(50, 'x')), -81, ""},
        {"chunk too long for a cipher text",
         Bytes(int64_t{65537}) + sKey + Bytes(uint32_t{200000}) + std::string(200000, 'c') + CipherChunk("x"), -122,
         "FileError "},
        {"cipher text below the chunk", Bytes(int64_t{65537}) + sKey + CipherChunk("short") + CipherChunk("x"), -125,
         "FileError "},
        {"plain text above a chunk", Bytes(int64_t{9}) + sKey + CipherChunk(sBig + "1234"), -124, "FileError "},
        {"plain text of another length", Bytes(int64_t{9}) + sKey + CipherChunk("12345678"), -126, "FileError "},
        {"empty cipher text", Bytes(int64_t{65536}) + sKey + Bytes(uint32_t{0}), -126, "FileError "},
        {"negative size", Bytes(int64_t{-7}) + sKey, -7, ""},
    };
    KeepLines();
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles(), nCiphers = hosted::OpenCiphers();
        EXPECT_EQ(c.nExpected, Receive(c.sStream, 1)) << c.pszWhat;
        EXPECT_EQ(c.pszWords, m_sWords) << c.pszWhat;
        EXPECT_EQ(u"", Listing()) << c.pszWhat << ": no part of it stays";
        EXPECT_TRUE(InStep()) << c.pszWhat;
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << c.pszWhat;
        EXPECT_EQ(nCiphers, hosted::OpenCiphers()) << c.pszWhat;
        EXPECT_EQ(0, g_bRecvFileActive) << c.pszWhat;
    }
    // The key's copy and what the log shows of it.
    hosted::TakeDebugOutput();
    std::string sBlob = "firstK" + std::string(69988, '.') + "lastKE";
    EXPECT_EQ(-121, Receive(Bytes(int64_t{0}) + Bytes(uint32_t{70000}) + sBlob, 1));
    EXPECT_EQ(70000u, g_dwKeySize);
    EXPECT_EQ(0, std::memcmp(g_szFileKey, sBlob.data(), 580));
    EXPECT_NE(nullptr,
              std::strstr(hosted::TakeDebugOutput(), "g_dwKeySize[70000], g_szFileKey [0x66][0x69][0x72][0x73][0x74] - "
                                                     "[0x61][0x73][0x74][0x4B][0x45]"));
}

TEST_F(RecvFileTest, EachFailingCallHasItsCode)
{
    static const struct {
        const char *pszCall;
        int         nth;
        uint32_t    dwError;
        int64_t     nExpected;
        const char *pszWords;
        bool        bFromThenOn;
    } aCases[] = {
        {"recv", 1, WSAECONNRESET, -1, "", false},
        {"recv", 2, WSAECONNRESET, -21, "", false},
        {"recv", 3, WSAECONNRESET, -22, "", false},
        {"recv", 4, WSAECONNRESET, -11, "", false},
        {"recv", 5, WSAECONNRESET, -2, "", false},
        {"CreateFileW", 1, ERROR_ACCESS_DENIED, -101, "FileError ", true},
        {"CreateFileW", 1, ERROR_DISK_FULL, -101, "FILEERRDF ", false},
        {"WriteFile", 1, ERROR_DISK_FULL, -102, "FILEERRDF ", false},
        {"WriteFile", 2, ERROR_DISK_FULL, -102, "FileErrDF ", false},
        {"WriteFile", 2, ERROR_GEN_FAILURE, -102, "FileError ", false},
        {"BCryptDecrypt", 2, static_cast<uint32_t>(STATUS_DATA_ERROR), -125, "FileError ", false},
    };
    const std::string sStream =
        Bytes(int64_t{65600}) + KeyField() + CipherChunk(Content(65536)) + CipherChunk(Content(64));
    for (const auto &c : aCases) {
        m_pLink = std::make_unique<LinkPair>();
        hosted::ClearFaults();
        hosted::FailCall(c.pszCall, c.nth, c.dwError, c.bFromThenOn);
        EXPECT_EQ(c.nExpected, Receive(sStream, 1)) << c.pszCall << c.nth;
        EXPECT_EQ(c.pszWords, m_sWords) << c.pszCall << c.nth;
        EXPECT_EQ(u"", Listing()) << c.pszCall << c.nth;
        if (c.nExpected < -100) {
            EXPECT_TRUE(InStep()) << c.pszCall << c.nth;
        }
    }
    gdwErr = ERROR_DISK_FULL;
    EXPECT_EQ(-126, Receive(Bytes(int64_t{9}) + KeyField() + Bytes(uint32_t{0}), 1));
    EXPECT_EQ("FileError ", m_sWords) << "an earlier failure's full disk does not choose this one's word";
    // One word for a file: the chunks behind the one that was refused are no news.
    EXPECT_EQ(-126, Receive(Bytes(int64_t{65537}) + KeyField() + Bytes(uint32_t{0}) + Bytes(uint32_t{0}), 1));
    EXPECT_EQ("FileError ", m_sWords);
}

TEST_F(RecvFileTest, AnUnknownTypeAndAForeignFileAreNotTouched)
{
    WriteTestFile(m_sFile, "the user's");
    g_bRecvFileTypeUnknown = 1;
    EXPECT_EQ(-201, Receive(Bytes(int64_t{5}) + "hello", 0));
    EXPECT_EQ("TypeWrong ", m_sWords);
    EXPECT_EQ("the user's", ReadTestFile(m_sFile));
    EXPECT_TRUE(InStep());

    g_bRecvFileTypeUnknown = 0;
    const HANDLE hInUse    = CreateFileW(m_sFile.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                         OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(-101, Receive(Bytes(int64_t{5}) + "hello", 0));
    CloseHandle(hInUse);
    EXPECT_EQ("the user's", ReadTestFile(m_sFile));
    EXPECT_TRUE(InStep());
}
