// Exact-length transfers: pieces, retries, an orderly close, and what the reporters print.
#include "tests/transfer/transfer_fixture.h"

using namespace platform;

class SocketIoTest : public TransferTest {};

TEST_F(SocketIoTest, NothingToMoveMakesNoCall)
{
    char ch = 0;
    for (const int32_t cb : {0, -1}) {
        EXPECT_EQ(0, SendBuffer(m_pLink->hClient, &ch, cb));
        EXPECT_EQ(0, RecvBuffer(m_pLink->hServer, &ch, cb));
    }
    EXPECT_EQ(0, hosted::CallCount("send") + hosted::CallCount("recv"));
}

TEST_F(SocketIoTest, MovesInPiecesOf4096AndReportsOnlyTheWhole)
{
    const std::string sSent = Content(10000);
    std::string       sReceived(10000, '\0');
    EXPECT_EQ(10000, SendBuffer(m_pLink->hClient, sSent.data(), 10000));
    EXPECT_EQ(3, hosted::CallCount("send"));
    EXPECT_EQ(10000, RecvBuffer(m_pLink->hServer, sReceived.data(), 10000));
    EXPECT_EQ(sSent, sReceived);

    KeepLines();
    hosted::FailCall("send", 2, WSAETIMEDOUT);
    EXPECT_EQ(-1, SendBuffer(m_pLink->hClient, sSent.data(), 10000)) << "a part is no success";
    EXPECT_STREQ("[VnNetSocket][WSA]send failed! -> SendBuffer error: 10060(0x274C) - [",
                 std::string(hosted::TakeDebugOutput()).substr(0, 69).c_str());
    EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError()) << "a report changes no error";
}

TEST_F(SocketIoTest, ATimeOutIsSilentOutsideAFileAndRetriedElevenTimesWithin)
{
    static const struct {
        bool bFile;
        int  nCalls; // on the piece that times out
    } aCases[] = {{false, 1}, {true, 12}};
    PrepareLinkSocket(m_pLink->hServer);
    hosted::SetSocketTimeout(5);
    KeepLines();
    for (const auto &c : aCases) {
        char aBuffer[10];
        send(m_pLink->hClient, "ab", 2, 0);
        ASSERT_EQ(1, RecvBuffer(m_pLink->hServer, aBuffer, 1)); // the second byte is there, too
        g_bRecvFileActive = c.bFile;
        hosted::ClearFaults();
        hosted::TakeDebugOutput();
        EXPECT_EQ(-1, RecvBuffer(m_pLink->hServer, aBuffer, 2));
        EXPECT_EQ(WSAETIMEDOUT, WSAGetLastError());
        const std::string sLines = hosted::TakeDebugOutput();
        EXPECT_EQ(c.nCalls + 1, hosted::CallCount("recv"));
        EXPECT_EQ(c.bFile, sLines.find("[RecvBuffer] recv failed by timeout. i[1], Retry[0]") == 0) << sLines;
        EXPECT_EQ(c.bFile, sLines.find("i[1], Retry[10]") != std::string::npos) << sLines;
        EXPECT_EQ(c.bFile, !sLines.empty());
        EXPECT_EQ(std::string::npos, sLines.find("Retry[11]"));
    }
}

TEST_F(SocketIoTest, ARetryThatBringsBytesGoesOnAndAnotherErrorEndsIt)
{
    char aBuffer[6000];
    KeepLines();
    g_bRecvFileActive = 1;
    hosted::FailCall("recv", 1, WSAETIMEDOUT);
    hosted::FailCall("recv", 2, WSAETIMEDOUT);
    SendBuffer(m_pLink->hClient, aBuffer, 6000);
    EXPECT_EQ(6000, RecvBuffer(m_pLink->hServer, aBuffer, 6000));

    hosted::ClearFaults();
    hosted::FailCall("recv", 1, WSAETIMEDOUT);
    hosted::FailCall("recv", 2, WSAECONNRESET);
    hosted::TakeDebugOutput();
    EXPECT_EQ(-1, RecvBuffer(m_pLink->hServer, aBuffer, 1));
    EXPECT_EQ(WSAECONNRESET, WSAGetLastError());
    for (const bool bFile : {true, false}) {
        g_bRecvFileActive = bFile;
        hosted::ClearFaults();
        hosted::FailCall("recv", 1, WSAECONNRESET);
        hosted::TakeDebugOutput();
        EXPECT_EQ(-1, RecvBuffer(m_pLink->hServer, aBuffer, 1));
        const std::string sLine = hosted::TakeDebugOutput();
        EXPECT_EQ(bFile ? "[RecvBuffer] recv failed (retry and not timeout). Ret[-1] Err[0x2746]"
                        : "[RecvBuffer] recv failed (not timeout). Ret[-1] Err[0x2746]",
                  sLine.substr(0, sLine.find('\n')));
    }
}

TEST_F(SocketIoTest, AnOrderlyCloseAndOurOwnOneEndAReceiveAtOnce)
{
    char ch = 0;
    for (const bool bFile : {true, false}) {
        g_bRecvFileActive = bFile;
        shutdown(m_pLink->hClient, SD_BOTH);
        hosted::ClearFaults();
        EXPECT_EQ(-1, RecvBuffer(m_pLink->hServer, &ch, 1));
        EXPECT_EQ(WSAEDISCON, WSAGetLastError());
        EXPECT_EQ(1, hosted::CallCount("recv")) << "not repeated";
    }
    LinkPair     open;
    const SOCKET hServer = open.hServer;
    std::thread  closer([&] { LinkPair::Close(&open.hServer); });
    EXPECT_EQ(-1, RecvBuffer(hServer, &ch, 1));
    EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
    closer.join();
}

TEST_F(SocketIoTest, ReportsDescriptionFirst)
{
    KeepLines();
    SetLastError(ERROR_DISK_FULL);
    ReportSocketError(u"Operation", u"description", true, 5);
    ReportSocketError(u"Operation", u"description", false, REPORT_LAST_ERROR);
    EXPECT_EQ(ERROR_DISK_FULL, GetLastError());
    const std::string sLines = hosted::TakeDebugOutput();
    EXPECT_NE(std::string::npos, sLines.find("[VnNetSocket][Notify]description -> Operation\r\n")) << sLines;
    EXPECT_NE(std::string::npos, sLines.find("[VnNetSocket]description -> Operation error: 112(0x70) - ")) << sLines;
    EXPECT_EQ(0, hosted::LiveBlocks());
}
