// fake_service.h: the migration service's end of its pipe, for tests: its mutex, and the records of each connection.
#pragma once
#include "ipc/service_pipe_client.h"
#include "platform/errors.h"
#include "platform/pipes.h"
#include "tests/support/test_machine.h"
#include <gtest/gtest.h>
#include <vector>

class FakeService {
  public:
    FakeService()
    {
        m_hMutex = platform::CreateMutexW(nullptr, platform::FALSE, u"Global\\VornMigrationSrv_NamedPipeMux");
        EXPECT_NE(nullptr, m_hMutex) << platform::GetLastError();
        m_hPipe = NewInstance();
    }
    ~FakeService()
    {
        platform::CloseHandle(m_hPipe);
        platform::CloseHandle(m_hMutex);
    }
    FakeService(const FakeService &)            = delete;
    FakeService &operator=(const FakeService &) = delete;

    // The records of the next connection, until its client closes it; none when nobody connects in time.
    std::vector<IpcMessage> Take(uint32_t dwMilliseconds = 20000)
    {
        using namespace platform;
        std::vector<IpcMessage> aRecords;
        OVERLAPPED              overlapped = {};
        overlapped.hEvent                  = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        bool bConnected                    = true;
        if (!ConnectNamedPipe(m_hPipe, &overlapped)) {
            const uint32_t dwError = GetLastError();
            if (dwError == ERROR_IO_PENDING) {
                bConnected = WaitForSingleObject(overlapped.hEvent, dwMilliseconds) == WAIT_OBJECT_0;
                if (!bConnected) {
                    CancelIoEx(m_hPipe, &overlapped);
                    WaitForSingleObject(overlapped.hEvent, INFINITE);
                }
            } else {
                EXPECT_TRUE(dwError == ERROR_PIPE_CONNECTED || dwError == ERROR_NO_DATA) << dwError;
            }
        }
        CloseHandle(overlapped.hEvent);
        if (!bConnected) return aRecords;
        IpcMessage record;
        uint32_t   cbRead = 0;
        while (ReadFile(m_hPipe, &record, sizeof(record), &cbRead, nullptr)) {
            EXPECT_EQ(IPC_MESSAGE_SIZE, cbRead);
            aRecords.push_back(record);
        }
        const HANDLE hUsed = m_hPipe;
        m_hPipe            = NewInstance(); // before the old one goes: a client never finds the pipe missing
        CloseHandle(hUsed);
        return aRecords;
    }

  private:
    static platform::HANDLE NewInstance()
    {
        using namespace platform;
        const HANDLE hPipe = CreateNamedPipeW(u"\\\\.\\pipe\\VornMigrationSrv_NamedPipeCommand",
                                              PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                                              PIPE_UNLIMITED_INSTANCES, 65536, 65536, 200, nullptr);
        EXPECT_NE(INVALID_HANDLE_VALUE, hPipe) << GetLastError();
        return hPipe;
    }
    platform::HANDLE m_hMutex;
    platform::HANDLE m_hPipe;
};

// A fixture: a fresh machine, and nothing queued for its service.
class ServiceTest : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetServicePipeClient();
    }
};

// A record as the service sends them.
inline IpcMessage MakeRecord(uint32_t dwCommand, uint32_t dwParam1 = 0, uint32_t dwParam2 = 0, uint32_t dwParam3 = 0,
                             const std::u16string &sText1 = u"", const std::u16string &sText2 = u"",
                             const std::u16string &sText3 = u"")
{
    IpcMessage record = {};
    record.dwCommand  = dwCommand;
    record.dwParam1   = dwParam1;
    record.dwParam2   = dwParam2;
    record.dwParam3   = dwParam3;
    sText1.copy(record.szText1, IPC_TEXT_UNITS);
    sText2.copy(record.szText2, IPC_TEXT_UNITS);
    sText3.copy(record.szText3, IPC_TEXT_UNITS);
    return record;
}
