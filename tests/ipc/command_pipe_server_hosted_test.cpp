// command_pipe_server_hosted_test.cpp: the accept loop when its calls fail: what it tries again, when it ends, what it
// leaves open; and what it takes from clients in a hurry.
#include "ipc/command_pipe_server.h"
#include "ipc/stop_signal.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/eventually.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <thread>

using namespace platform;

class CommandPipeFaults : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        hosted::SetClockRate(20);
        GetOwnSessionId();
        g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_nHandles  = hosted::OpenHandles();
        m_nBlocks   = hosted::LiveBlocks();
        hosted::ClearFaults();
    }
    void TearDown() override
    {
        Stop();
        CloseHandle(g_hAppEvent.exchange(nullptr));
    }
    // Starts the server and returns when it waits for its first client.
    void Serve()
    {
        m_Server = std::thread([] { CommandPipeServerThread(nullptr); });
        ExpectWaits(1);
    }
    static void ExpectWaits(int n)
    {
        EXPECT_TRUE(Eventually([n] { return hosted::CallCount("WaitForMultipleObjects") >= n; }));
    }
    // Ends it; whatever it had open is closed.
    void Stop()
    {
        SetEvent(g_hAppEvent);
        if (m_Server.joinable()) m_Server.join();
        EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
        EXPECT_EQ(m_nHandles, hosted::OpenHandles());
        EXPECT_EQ(m_nBlocks, hosted::LiveBlocks());
    }
    // Connects the moment an instance is there.
    static HANDLE Connect()
    {
        HANDLE hPipe = INVALID_HANDLE_VALUE;
        while (hPipe == INVALID_HANDLE_VALUE) {
            hPipe = CreateFileW(u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x1", GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        }
        return hPipe;
    }
    static void Write(HANDLE hPipe, const void *pData, size_t cb)
    {
        uint32_t cbWritten = 0;
        EXPECT_TRUE(WriteFile(hPipe, pData, static_cast<uint32_t>(cb), &cbWritten, nullptr)) << GetLastError();
    }
    // A client of one record, nobody's, so that it leaves its trace and no thread.
    static void SendNumber(uint32_t n)
    {
        const IpcMessage record = MakeRecord(0x306, n);
        const HANDLE     hPipe  = Connect();
        Write(hPipe, &record, sizeof(record));
        CloseHandle(hPipe);
    }
    static std::string NumberLine(uint32_t n)
    {
        return "27 VornTramsaNet: NetHandleIPC, STOA_, " + std::to_string(n) + ", 0, 0, , , ";
    }
    static std::vector<std::string> TakeLines(TraceSession *pSession, size_t nLines, const char *pszStart = "")
    {
        std::vector<std::string> aLines;
        EXPECT_TRUE(Eventually([&] {
            for (std::string &sLine : pSession->Take())
                if (sLine.rfind(pszStart, 0) == 0) aLines.push_back(std::move(sLine));
            return aLines.size() >= nLines;
        }));
        return aLines;
    }
    std::thread m_Server;
    int         m_nHandles = 0, m_nBlocks = 0;
};

TEST_F(CommandPipeFaults, ThreeFailuresInARowEndTheServer)
{
    hosted::FailCall("CreateNamedPipeW", 1, 5, true);
    const uint64_t ullStart = GetTickCount64();
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(3, hosted::CallCount("CreateNamedPipeW"));
    EXPECT_GE(GetTickCount64() - ullStart, 1000u - 40); // 500 ms after the first and the second

    hosted::ClearFaults();
    Serve();
    for (uint32_t n = 1; n <= 3; n++) { // not in a row
        hosted::FailCall("CreateNamedPipeW", 1, 5);
        SendNumber(n);
        ExpectWaits(static_cast<int>(n) + 1);
    }
}

TEST_F(CommandPipeFaults, WithoutItsMutexOrWithTheStopSignalItServesNothing)
{
    hosted::FailCall("CreateMutexW", 1, 5);
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(0, hosted::CallCount("CreateNamedPipeW"));
    SetEvent(g_hAppEvent);
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(1, hosted::CallCount("CreateMutexW"));
}

TEST_F(CommandPipeFaults, AMutexThatTheServiceStillHoldsIsOpened)
{
    const HANDLE hHeld = CreateMutexW(nullptr, FALSE, u"Global\\VornMigrationNet_NamedPipeMux_0x1");
    hosted::FailCall("CreateMutexW", 1, 5);
    Serve();
    SendNumber(1); // finds the pipe
    EXPECT_TRUE(CloseHandle(hHeld));
}

TEST_F(CommandPipeFaults, EachReadIsTracedWithItsBytesAndItsWholeRecordsAreHandled)
{
    static const struct {
        size_t nBytes;
        int    nRecords, nForeign; // those of another session, which come first and do not count
    } aCases[] = {{1584, 1, 0}, {1600, 1, 0}, {1583, 0, 0}, {4, 0, 0}, {3168, 2, 1}, {7920, 5, 0}};
    TraceSession session;
    Serve();
    const HANDLE hPipe = Connect();
    for (const auto &c : aCases) {
        IpcMessage aRecords[5];
        for (IpcMessage &record : aRecords) record = MakeRecord(0x306, 1, 2, 3, u"a", u"b", u"c");
        for (int n = 0; n < c.nForeign; n++) aRecords[n].dwSessionId = 1;
        Write(hPipe, aRecords, c.nBytes);
        std::vector<std::string> aExpected = {"13 VornTramsaNet: NetLoopThread ReadFile, " + std::to_string(c.nBytes) +
                                              " bytes"};
        for (int n = c.nForeign; n < c.nRecords; n++) {
            aExpected.push_back("27 VornTramsaNet: NetHandleIPC, STOA_, 1, 2, 3, a, b, c");
            aExpected.push_back("10 VornTramsaNet: ## Unhandle IPC");
        }
        EXPECT_EQ(aExpected, TakeLines(&session, aExpected.size())) << c.nBytes;
    }
    CloseHandle(hPipe);
}

// A service opens a connection for each record: a disconnect and the connect after it must not change places, and what
// a client wrote counts also when it has left before its instance was awaited.
TEST_F(CommandPipeFaults, RecordsOnConnectionsOfTheirOwnAllArriveInTheirOrder)
{
    constexpr uint32_t RECORDS = 300;
    TraceSession       session;
    hosted::SetClockRate(1); // nobody is late only because this machine is busy
    Serve();
    std::vector<std::string> aExpected;
    for (uint32_t n = 1; n <= RECORDS; n++) {
        SendNumber(n);
        aExpected.push_back(NumberLine(n));
    }
    EXPECT_EQ(aExpected, TakeLines(&session, RECORDS, "27 "));
}

// What an older connection has written before a newer one came is handled before that one's records, also when it is
// not its first.
TEST_F(CommandPipeFaults, FurtherRecordsOfAnOlderConnectionComeBeforeTheNextOnes)
{
    TraceSession session;
    hosted::SetClockRate(1);
    Serve();
    const HANDLE hOlder = Connect();
    for (uint32_t n = 2; n <= 400; n += 2) {
        const IpcMessage record = MakeRecord(0x306, n);
        Write(hOlder, &record, sizeof(record));
        SendNumber(n + 1);
        ASSERT_EQ((std::vector<std::string>{NumberLine(n), NumberLine(n + 1)}), TakeLines(&session, 2, "27 "));
    }
    CloseHandle(hOlder);
}

// Clients that stay silent are waited for, but not for long, all of them together, and meanwhile others find the pipe
// free; an older one that ends makes no difference to that.
TEST_F(CommandPipeFaults, SilentConnectionsHoldTheNextOneUpFor200MillisecondsTogether)
{
    constexpr int SILENT = 10;
    TraceSession  session;
    hosted::SetClockRate(1);
    Serve();
    const HANDLE   hOlder   = Connect();
    const uint64_t ullStart = GetTickCount64();
    HANDLE         ahSilent[SILENT];
    for (HANDLE &hSilent : ahSilent) hSilent = Connect();
    CloseHandle(hOlder);
    SendNumber(1);
    EXPECT_EQ(std::vector<std::string>{NumberLine(1)}, TakeLines(&session, 1, "27 "));
    EXPECT_GE(GetTickCount64() - ullStart, 200u);
    EXPECT_LT(GetTickCount64() - ullStart, 1500u);
    for (const HANDLE hSilent : ahSilent) CloseHandle(hSilent);
}

TEST_F(CommandPipeFaults, TheStopSignalEndsAReaderWhoseClientStays)
{
    TraceSession session;
    Serve();
    const HANDLE     hSilent = Connect(), hSpeaker = Connect();
    const IpcMessage record = MakeRecord(0x306, 1);
    Write(hSpeaker, &record, sizeof(record));
    EXPECT_EQ(1u, TakeLines(&session, 1, "27 ").size());
    SetEvent(g_hAppEvent);
    EXPECT_TRUE(Eventually([] { return hosted::LiveThreads() == 0; }));
    EXPECT_TRUE(CloseHandle(hSilent) && CloseHandle(hSpeaker));
}
