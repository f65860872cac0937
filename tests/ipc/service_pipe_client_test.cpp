// service_pipe_client_test.cpp: what reaches the service, in which order, and what is given up.
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/test_machine.h"
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

using namespace platform;

class ServicePipeClient : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetServicePipeClient();
    }
    void TearDown() override { ResetServicePipeClient(); }

    static void Queue(uint32_t dwCommand) { CallServiceNamedPipe(dwCommand, 0, 0, 0, nullptr, nullptr, nullptr); }
    static std::vector<uint32_t> Codes(const std::vector<IpcMessage> &aRecords)
    {
        std::vector<uint32_t> aCodes;
        for (const IpcMessage &record : aRecords) aCodes.push_back(record.dwCommand);
        return aCodes;
    }
};

TEST_F(ServicePipeClient, ARecordCarriesItsFieldsAndNothingElse)
{
    FakeService          service;
    const std::u16string sLong(300, u'x');
    CallServiceNamedPipe(0x334, -2, 7, -1, u"one", nullptr, sLong.c_str());
    EXPECT_EQ(1, PassObjectInQueue());
    const std::vector<IpcMessage> aRecords = service.Take();
    ASSERT_EQ(1u, aRecords.size());
    IpcMessage expected  = MakeRecord(0x334, 0xFFFFFFFE, 7, 0xFFFFFFFF, u"one", u"", std::u16string(259, u'x'));
    expected.dwSessionId = GetOwnSessionId();
    EXPECT_NE(0xFFFFFFFFu, GetOwnSessionId());
    EXPECT_EQ(0, std::memcmp(&expected, &aRecords[0], sizeof(expected)));
}

TEST_F(ServicePipeClient, ALongTextFillsTheThreeTextsToTheLastUnit)
{
    for (const size_t cch : {size_t{0}, size_t{259}, size_t{260}, size_t{779}, size_t{780}}) {
        FakeService    service;
        std::u16string sText;
        for (size_t n = 0; n < cch; n++) sText += static_cast<char16_t>(u'a' + n % 26);
        std::u16string sSource = sText + (cch == 780 ? u"behind the field" : u"");
        CallServiceNamedPipeLongText(0x333, 1, 2, 3, sSource.c_str());
        EXPECT_EQ(1, PassObjectInQueue());
        const std::vector<IpcMessage> aRecords = service.Take();
        ASSERT_EQ(1u, aRecords.size()) << cch;
        std::u16string sField(780, 0);
        std::memcpy(sField.data(), reinterpret_cast<const char *>(&aRecords[0]) + 24, 1560);
        EXPECT_EQ(sText + std::u16string(780 - cch, 0), sField) << cch;
    }
}

TEST_F(ServicePipeClient, ANinthRecordPushesOutTheOldest)
{
    FakeService service;
    for (uint32_t n = 1; n <= 10; n++) Queue(n);
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_EQ((std::vector<uint32_t>{3, 4, 5, 6, 7, 8, 9, 10}), Codes(service.Take()));
    EXPECT_EQ(0, PassObjectInQueue());
}

TEST_F(ServicePipeClient, WithoutItsMutexOrItsPipeEverythingQueuedIsGivenUp)
{
    Queue(1);
    Queue(2);
    EXPECT_EQ(0, PassObjectInQueue()); // nobody at all
    const HANDLE hMutex = CreateMutexW(nullptr, FALSE, u"Global\\VornMigrationSrv_NamedPipeMux");
    Queue(3);
    EXPECT_EQ(0, PassObjectInQueue()); // a service that serves no pipe
    CloseHandle(hMutex);
    FakeService service;
    EXPECT_EQ(0, PassObjectInQueue());
    Queue(4);
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_EQ(std::vector<uint32_t>{4}, Codes(service.Take()));
}

TEST_F(ServicePipeClient, TheSenderThreadDeliversWhatWasQueuedBeforeItAndAfterItUntilTheStopSignal)
{
    FakeService service;
    EXPECT_EQ(0u, ServicePipeSenderThread(nullptr)); // no stop signal, no thread
    Queue(11);
    EXPECT_EQ(0, CallServiceNamedPipe(12, 0, 0, 0, nullptr, nullptr, nullptr)); // stored, though nobody is told

    g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread sender([] { ServicePipeSenderThread(nullptr); });
    EXPECT_EQ((std::vector<uint32_t>{11, 12}), Codes(service.Take()));
    EXPECT_NE(0, CallServiceNamedPipe(13, 0, 0, 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(std::vector<uint32_t>{13}, Codes(service.Take()));
    SetEvent(g_hAppEvent);
    sender.join();
    EXPECT_EQ(0, CallServiceNamedPipe(14, 0, 0, 0, nullptr, nullptr, nullptr));
    CloseHandle(g_hAppEvent.exchange(nullptr));
}

TEST_F(ServicePipeClient, CallersMayComeWhileTheSenderStartsAndEnds)
{
    std::atomic<bool>        bEnd{false};
    std::vector<std::thread> aCallers;
    for (int n = 0; n < 3; n++) {
        aCallers.emplace_back([&] {
            while (!bEnd) Queue(1);
        });
    }
    for (int n = 0; n < 20; n++) {
        g_hAppEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        std::thread sender([] { ServicePipeSenderThread(nullptr); });
        SetEvent(g_hAppEvent);
        sender.join();
        CloseHandle(g_hAppEvent.exchange(nullptr));
    }
    bEnd = true;
    for (std::thread &caller : aCallers) caller.join();
}
