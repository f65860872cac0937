// service_pipe_client_test.cpp: what reaches the service, in which order, and what is given up.
#include "ipc/service_pipe_client.h"
#include "ipc/stop_signal.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include <atomic>
#include <thread>

using namespace platform;

class ServicePipeClient : public ServiceTest {
  protected:
    static void Queue(uint32_t dwCommand) { CallServiceNamedPipe(dwCommand, 0, 0, 0, nullptr, nullptr, nullptr); }
    static std::vector<uint32_t> Codes(const std::vector<IpcMessage> &aRecords)
    {
        std::vector<uint32_t> aCodes;
        for (const IpcMessage &record : aRecords) aCodes.push_back(record.dwCommand);
        return aCodes;
    }
};

TEST_F(ServicePipeClient, ANinthRecordPushesOutTheOldest)
{
    FakeService service;
    for (uint32_t n = 1; n <= 10; n++) Queue(n);
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_EQ((std::vector<uint32_t>{3, 4, 5, 6, 7, 8, 9, 10}), Codes(service.Take()));
    EXPECT_EQ(0, PassObjectInQueue());
}

TEST_F(ServicePipeClient, WithoutTheServiceEverythingQueuedIsGivenUp)
{
    Queue(1);
    Queue(2);
    EXPECT_EQ(0, PassObjectInQueue());
    FakeService service;
    EXPECT_EQ(0, PassObjectInQueue());
    Queue(3);
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_EQ(std::vector<uint32_t>{3}, Codes(service.Take()));
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
    PassObjectInQueue(); // gives up what they have left
    FakeService service;
    for (uint32_t n = 2; n <= 9; n++) Queue(n);
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_EQ((std::vector<uint32_t>{2, 3, 4, 5, 6, 7, 8, 9}), Codes(service.Take())) << "the queue is whole";
}
