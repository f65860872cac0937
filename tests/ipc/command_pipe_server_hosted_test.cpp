// command_pipe_server_hosted_test.cpp: the accept loop when its calls fail: what it tries again, when it ends, what it
// leaves open.
#include "ipc/command_pipe_server.h"
#include "ipc/stop_signal.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/test_machine.h"
#include "tests/trace/trace_session_hosted.h"
#include <chrono>
#include <functional>
#include <thread>

using namespace platform;

class CommandPipeFaults : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        hosted::SetClockRate(20);
        GetOwnSessionId();
        m_nHandles  = hosted::OpenHandles();
        m_nBlocks   = hosted::LiveBlocks();
        g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        hosted::ClearFaults();
    }
    void TearDown() override { CloseHandle(g_hAppEvent.exchange(nullptr)); }
    void ExpectNothingLeft()
    {
        EXPECT_EQ(m_nHandles + 1, hosted::OpenHandles()); // the stop signal
        EXPECT_EQ(m_nBlocks, hosted::LiveBlocks());
    }
    static bool Becomes(const std::function<bool()> &Condition)
    {
        for (int n = 0; n < 2000 && !Condition(); n++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return Condition();
    }
    int m_nHandles = 0, m_nBlocks = 0;
};

TEST_F(CommandPipeFaults, ThreeFailuresInARowEndTheServer)
{
    hosted::FailCall("CreateNamedPipeW", 1, 5, true);
    const uint64_t ullStart = GetTickCount64();
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(3, hosted::CallCount("CreateNamedPipeW"));
    EXPECT_GE(GetTickCount64() - ullStart, 1000u - 40); // 500 ms after the first and the second
    ExpectNothingLeft();
}

TEST_F(CommandPipeFaults, WithoutItsMutexOrWithTheStopSignalItServesNothing)
{
    hosted::FailCall("CreateMutexW", 1, 5);
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(0, hosted::CallCount("CreateNamedPipeW"));
    SetEvent(g_hAppEvent);
    EXPECT_EQ(0u, CommandPipeServerThread(nullptr));
    EXPECT_EQ(1, hosted::CallCount("CreateMutexW"));
    ExpectNothingLeft();
}

// A single failure of each call: the server goes on and can still be stopped, which closes whatever it had open.
TEST_F(CommandPipeFaults, OneFailureIsSurvivedAndTheStopSignalEndsTheWait)
{
    static const struct {
        const char *pszCall;
        uint32_t    dwError;
        int         nPipes; // instances made until one is awaited
        uint32_t    dwPauseMs;
    } aCases[] = {
        {"CreateNamedPipeW", 5, 2, 500},
        {"CreateEventW", 8, 2, 1000},
        {"ConnectNamedPipe", 995, 2, 0},
        {"CreateEveryoneSecurity", 8, 1, 0}, // default security then
        {nullptr, 0, 1, 0},
    };
    for (const auto &c : aCases) {
        SCOPED_TRACE(c.pszCall != nullptr ? c.pszCall : "no failure");
        ResetEvent(g_hAppEvent);
        hosted::ClearFaults();
        if (c.pszCall != nullptr) hosted::FailCall(c.pszCall, 1, c.dwError);
        const uint64_t ullStart = GetTickCount64();
        std::thread    server([] { CommandPipeServerThread(nullptr); });
        EXPECT_TRUE(Becomes([&] { return hosted::CallCount("WaitForMultipleObjects") >= 1; }));
        EXPECT_EQ(c.nPipes, hosted::CallCount("CreateNamedPipeW"));
        EXPECT_GE(GetTickCount64() - ullStart + 40, c.dwPauseMs);
        SetEvent(g_hAppEvent);
        server.join();
        ExpectNothingLeft();
    }
}

TEST_F(CommandPipeFaults, AConnectionThatNoThreadCanReadIsClosed)
{
    std::thread server([] { CommandPipeServerThread(nullptr); });
    EXPECT_TRUE(Becomes([] { return hosted::CallCount("WaitForMultipleObjects") == 1; }));
    hosted::FailCall("CreateThread", 1, 8);
    const HANDLE hPipe = CreateFileW(u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x1", GENERIC_WRITE, 0, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, hPipe) << GetLastError();
    EXPECT_TRUE(
        Becomes([] { return hosted::CallCount("WaitForMultipleObjects") == 2; })); // the next instance is awaited
    CloseHandle(hPipe);
    SetEvent(g_hAppEvent);
    server.join();
    ExpectNothingLeft();
}

TEST_F(CommandPipeFaults, EachReadIsTracedWithItsBytesAndItsWholeRecords)
{
    static const struct {
        size_t nBytes;
        int    nRecords;
    } aCases[] = {{1584, 1}, {1600, 1}, {1583, 0}, {4, 0}, {3168, 2}, {7920, 5}};
    std::thread server([] { CommandPipeServerThread(nullptr); });
    EXPECT_TRUE(Becomes([] { return hosted::CallCount("WaitForMultipleObjects") == 1; }));
    {
        TraceSession session;
        const HANDLE hPipe = CreateFileW(u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x1", GENERIC_WRITE, 0,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        for (const auto &c : aCases) {
            IpcMessage aRecords[5];
            for (IpcMessage &record : aRecords) record = MakeRecord(0x306, 1, 2, 3, u"a", u"b", u"c"); // nobody's
            uint32_t cbWritten = 0;
            EXPECT_TRUE(WriteFile(hPipe, aRecords, static_cast<uint32_t>(c.nBytes), &cbWritten, nullptr));
            std::vector<std::string> aLines;
            EXPECT_TRUE(Becomes([&] {
                for (std::string &sLine : session.Take()) aLines.push_back(std::move(sLine));
                return aLines.size() >= static_cast<size_t>(1 + 2 * c.nRecords);
            })) << c.nBytes;
            std::vector<std::string> aExpected = {
                "13 VornTramsaNet: NetLoopThread ReadFile, " + std::to_string(c.nBytes) + " bytes"};
            for (int n = 0; n < c.nRecords; n++) {
                aExpected.push_back("27 VornTramsaNet: NetHandleIPC, STOA_, 1, 2, 3, a, b, c");
                aExpected.push_back("10 VornTramsaNet: ## Unhandle IPC");
            }
            EXPECT_EQ(aExpected, aLines) << c.nBytes;
        }
        CloseHandle(hPipe);
        EXPECT_TRUE(Becomes([] { return hosted::LiveThreads() == 0; }));
    }
    SetEvent(g_hAppEvent);
    server.join();
    ExpectNothingLeft();
}

// A service opens a connection for each record: a disconnect and the connect after it must not change places. A client
// that stays silent holds nobody up for long.
TEST_F(CommandPipeFaults, RecordsOnConnectionsOfTheirOwnAreTakenInTheirOrder)
{
    constexpr int RECORDS = 200;
    const char16_t *pszPipe = u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x1";
    std::thread     server([] { CommandPipeServerThread(nullptr); });
    EXPECT_TRUE(Becomes([] { return hosted::CallCount("WaitForMultipleObjects") == 1; }));
    {
        TraceSession session;
        HANDLE       hSilent = INVALID_HANDLE_VALUE;
        for (int n = 0; n <= RECORDS; n++) {
            HANDLE hPipe;
            do hPipe = CreateFileW(pszPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
            while (hPipe == INVALID_HANDLE_VALUE && WaitNamedPipeW(pszPipe, 5000));
            EXPECT_NE(INVALID_HANDLE_VALUE, hPipe) << GetLastError();
            if (n == 0) {
                hSilent = hPipe;
                continue;
            }
            const IpcMessage record = MakeRecord(0x306, static_cast<uint32_t>(n), 0, 0, u"");
            uint32_t         cbWritten = 0;
            EXPECT_TRUE(WriteFile(hPipe, &record, sizeof(record), &cbWritten, nullptr));
            CloseHandle(hPipe);
        }
        std::vector<std::string> aTaken, aExpected;
        for (int n = 1; n <= RECORDS; n++)
            aExpected.push_back("27 VornTramsaNet: NetHandleIPC, STOA_, " + std::to_string(n) + ", 0, 0, , , ");
        EXPECT_TRUE(Becomes([&] {
            for (std::string &sLine : session.Take())
                if (sLine.rfind("27 ", 0) == 0) aTaken.push_back(std::move(sLine));
            return aTaken.size() >= aExpected.size();
        }));
        EXPECT_EQ(aExpected, aTaken);
        CloseHandle(hSilent);
        EXPECT_TRUE(Becomes([] { return hosted::LiveThreads() == 0; }));
    }
    SetEvent(g_hAppEvent);
    server.join();
    ExpectNothingLeft();
}

// A client may connect, write and leave before its instance is awaited. What it wrote counts all the same.
TEST_F(CommandPipeFaults, NoRecordOfAClientInAHurryIsLost)
{
    hosted::SetClockRate(1);
    std::thread server([] { CommandPipeServerThread(nullptr); });
    {
        TraceSession session;
        const auto   record = MakeRecord(0x306); // nobody's, so that each leaves one line and no thread
        for (int n = 0; n < 300; n++) {
            HANDLE hPipe = INVALID_HANDLE_VALUE;
            while (hPipe == INVALID_HANDLE_VALUE) { // the moment the next instance is there
                hPipe = CreateFileW(u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x1", GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
            }
            uint32_t cbWritten = 0;
            EXPECT_TRUE(WriteFile(hPipe, &record, sizeof(record), &cbWritten, nullptr)) << GetLastError();
            CloseHandle(hPipe);
        }
        int nUnhandled = 0;
        Becomes([&] {
            for (const std::string &sLine : session.Take()) nUnhandled += sLine.find("## Unhandle IPC") != sLine.npos;
            return nUnhandled >= 300;
        });
        EXPECT_EQ(300, nUnhandled);
    }
    SetEvent(g_hAppEvent);
    server.join();
    EXPECT_TRUE(Becomes([] { return hosted::LiveThreads() == 0; }));
    ExpectNothingLeft();
}
