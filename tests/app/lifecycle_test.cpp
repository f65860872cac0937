// lifecycle_test.cpp: one run of the agent as the service sees it, and the one option of the command line.
#include "app/lifecycle.h"
#include "ipc/service_pipe_client.h"
#include "net/settings.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/pipes.h"
#include "platform/security.h"
#include "platform/text.h"
#include "platform/tool_seam.h"
#include "tests/ipc/fake_service.h"
#include <cstring>
#include <thread>

using namespace platform;

using AgentRun = ServiceTest;

TEST_F(AgentRun, AnnouncesItselfServesItsPipeToEveryoneAndEndsOnRequest)
{
    FakeService service;
    int32_t     nExitCode = -1;
    std::thread agent([&] { nExitCode = RunAgent(nullptr); });

    const std::vector<IpcMessage> aRecords = service.Take();
    EXPECT_EQ(1u, aRecords.size());
    if (!aRecords.empty()) {
        IpcMessage expected  = MakeRecord(816, 1);
        expected.dwSessionId = GetOwnSessionId();
        EXPECT_EQ(0, std::memcmp(&expected, &aRecords[0], sizeof(expected)));
    }
    EXPECT_EQ(0, platform::_access(g_szConfigPath, 0)) << g_szConfigPath; // made at start-up
    const HANDLE hEvent = OpenEventW(SYNCHRONIZE, FALSE, u"VORN Migration Network Application Event");
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(hEvent, 0));

    char16_t szMutex[MAX_PATH], szPipe[MAX_PATH];
    FormatTextW(szMutex, MAX_PATH, u"Global\\VornMigrationNet_NamedPipeMux_0x%x", GetOwnSessionId());
    FormatTextW(szPipe, MAX_PATH, u"\\\\.\\pipe\\VornMigrationNet_NamedPipeCommand_0x%x", GetOwnSessionId());
    const HANDLE hMutex = OpenMutexW(SYNCHRONIZE | READ_CONTROL, FALSE, szMutex);
    const HANDLE hPipe =
        CreateFileW(szPipe, GENERIC_WRITE | READ_CONTROL, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, hPipe) << GetLastError(); // it was ready before the announcement
    uint32_t dwAccess = 0, nEntries = 0;
    EXPECT_TRUE(ReadEveryoneAccess(hMutex, SecuredObject::Kernel, &dwAccess, &nEntries)) << GetLastError();
    EXPECT_EQ(0x120001u, dwAccess & 0x1F0001); // of the rights that a mutex has
    EXPECT_EQ(1u, nEntries);
    EXPECT_TRUE(ReadEveryoneAccess(hPipe, SecuredObject::Kernel, &dwAccess, &nEntries)) << GetLastError();
    EXPECT_EQ(0x1201BFu, dwAccess);
    EXPECT_EQ(1u, nEntries);

    const IpcMessage exit      = MakeRecord(545, 1);
    uint32_t         cbWritten = 0;
    EXPECT_TRUE(WriteFile(hPipe, &exit, sizeof(exit), &cbWritten, nullptr)) << GetLastError();
    CloseHandle(hPipe);
    CloseHandle(hMutex);
    agent.join();
    EXPECT_EQ(0, nExitCode);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hEvent, 0)); // who still waits for the stop signal has got it
    CloseHandle(hEvent);
}

TEST_F(AgentRun, OnlyTheExactSecondArgumentUninstalls)
{
    static const struct {
        const char16_t *pszCommandLine;
        bool            bUninstall;
    } aCases[] = {
        {u"VornTramsaNet.exe", false},
        {u"VornTramsaNet.exe -uninstall", true},
        {u"\"C:\\Program Files\\a b.exe\" -uninstall", true},
        {u"VornTramsaNet.exe \"-uninstall\" more", true},
        {u"VornTramsaNet.exe -x -uninstall", false},
        {u"VornTramsaNet.exe -Uninstall", false},
        {u"VornTramsaNet.exe -uninstall2", false},
        {u"VornTramsaNet.exe \"-uninstall \"", false},
        {u"-uninstall", false}, // the program's own name
    };
    for (const auto &c : aCases) EXPECT_EQ(c.bUninstall, IsUninstallCommandLine(c.pszCommandLine));
}
