// command_pipe_server_test.cpp: the agent's pipe as the service uses it: several clients, batches, records that do not
// count.
#include "ipc/command_pipe_server.h"
#include "ipc/stop_signal.h"
#include "migration/special_data.h"
#include "platform/kernel.h"
#include "platform/pipes.h"
#include "platform/security.h"
#include "platform/text.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/test_machine.h"
#include <chrono>
#include <cstring>
#include <thread>

using namespace platform;

class CommandPipeServer : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ClearSpecialFolders();
        g_hAppEvent           = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        const HANDLE hStartup = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_hStartupEvent       = hStartup;
        m_Server              = std::thread([] { CommandPipeServerThread(nullptr); });
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hStartup, 20000));
        EXPECT_EQ(nullptr, g_hStartupEvent.load());
        CloseHandle(hStartup);
    }
    void TearDown() override
    {
        SetEvent(g_hAppEvent);
        m_Server.join();
        CloseHandle(g_hAppEvent.exchange(nullptr));
        ClearSpecialFolders();
    }
    static HANDLE OpenPipe()
    {
        char16_t szName[MAX_PATH];
        FormatTextW(szName, MAX_PATH, u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x%x", GetOwnSessionId());
        for (int n = 0; n < 200; n++) {
            const HANDLE hPipe =
                CreateFileW(szName, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
            if (hPipe != INVALID_HANDLE_VALUE) return hPipe;
            EXPECT_EQ(ERROR_PIPE_BUSY, GetLastError());
            WaitNamedPipeW(szName, 100);
        }
        return INVALID_HANDLE_VALUE;
    }
    static void Write(HANDLE hPipe, const void *pData, size_t cb)
    {
        uint32_t cbWritten = 0;
        EXPECT_TRUE(WriteFile(hPipe, pData, static_cast<uint32_t>(cb), &cbWritten, nullptr)) << GetLastError();
        EXPECT_EQ(cb, cbWritten);
    }
    // The application data root is what a record of code 4129 leaves behind.
    static bool RootBecomes(const std::u16string &sRoot)
    {
        for (int n = 0; n < 2000; n++) {
            if (GetSpecialFolders().szAppDataRoot == sRoot) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::thread m_Server;
};

TEST_F(CommandPipeServer, ABatchIsHandledRecordByRecordAndOtherSessionsAreSkipped)
{
    const HANDLE hFirst = OpenPipe();
    const HANDLE hSecond = OpenPipe(); // while the first is still being read
    ASSERT_NE(INVALID_HANDLE_VALUE, hFirst);
    ASSERT_NE(INVALID_HANDLE_VALUE, hSecond);

    IpcMessage aBatch[3] = {MakeRecord(4129, 2, 0, 0, u"C:\\one"), MakeRecord(4129, 2, 0, 0, u"C:\\two"),
                            MakeRecord(4129, 2, 0, 0, u"C:\\three")};
    aBatch[2].dwSessionId = 1; // not the service's
    Write(hFirst, aBatch, sizeof(aBatch));
    EXPECT_TRUE(RootBecomes(u"C:\\two"));

    // One record and 16 bytes: the tail belongs to no record, also not to the next write's.
    unsigned char     aBytes[1600] = {};
    const IpcMessage  odd          = MakeRecord(4129, 2, 0, 0, std::u16string(260, u'r'));
    std::memcpy(aBytes, &odd, sizeof(odd));
    std::memset(aBytes + sizeof(odd), 0xFF, 16);
    Write(hSecond, aBytes, sizeof(aBytes));
    EXPECT_TRUE(RootBecomes(std::u16string(259, u'r'))); // and the text has an end
    const IpcMessage next = MakeRecord(4129, 2, 0, 0, u"C:\\next");
    Write(hSecond, &next, sizeof(next));
    EXPECT_TRUE(RootBecomes(u"C:\\next"));
    CloseHandle(hFirst);
    CloseHandle(hSecond);

    const HANDLE hThird = OpenPipe();
    Write(hThird, &aBatch[0], sizeof(IpcMessage));
    CloseHandle(hThird); // what a client wrote before it left is still read
    EXPECT_TRUE(RootBecomes(u"C:\\one"));
}

TEST_F(CommandPipeServer, MutexAndPipeAreOpenToEveryone)
{
    char16_t szName[MAX_PATH];
    uint32_t dwAccess = 0, nEntries = 0;
    FormatTextW(szName, MAX_PATH, u"Global\\VornMigrationNet_NamedPipeMux_0x%x", GetOwnSessionId());
    const HANDLE hMutex = OpenMutexW(SYNCHRONIZE | READ_CONTROL, FALSE, szName);
    ASSERT_NE(nullptr, hMutex) << GetLastError();
    EXPECT_TRUE(ReadEveryoneAccess(hMutex, SecuredObject::Kernel, &dwAccess, &nEntries)) << GetLastError();
    EXPECT_EQ(0x120001u, dwAccess & 0x1F0001); // of the rights that a mutex has
    EXPECT_EQ(1u, nEntries);
    CloseHandle(hMutex);

    FormatTextW(szName, MAX_PATH, u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x%x", GetOwnSessionId());
    const HANDLE hPipe = CreateFileW(szName, GENERIC_WRITE | READ_CONTROL, 0, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hPipe) << GetLastError();
    EXPECT_TRUE(ReadEveryoneAccess(hPipe, SecuredObject::Kernel, &dwAccess, &nEntries)) << GetLastError();
    EXPECT_EQ(0x1201BFu, dwAccess);
    EXPECT_EQ(1u, nEntries);
    CloseHandle(hPipe);
}
