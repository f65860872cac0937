// service_pipe_client_hosted_test.cpp: a busy or failing service pipe, and the pace of the records.
#include "ipc/service_pipe_client.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

using ServicePipeFaults = ServiceTest;

TEST_F(ServicePipeFaults, OnlyABusyPipeIsWaitedFor)
{
    static const struct {
        const char *pszWhat, *pszCall; // the call that fails
        uint32_t    dwError;
        uint32_t    dwWaitError; // 0: the wait succeeds
        int         nWaits, nResult;
    } aCases[] = {
        {"a pipe but no mutex", "OpenMutexW", 2, 0, 0, 0}, {"access denied", "CreateFileW", 5, 0, 0, 0},
        {"not found", "CreateFileW", 2, 0, 0, 0},          {"busy, then free", "CreateFileW", 231, 0, 1, 1},
        {"busy for good", "CreateFileW", 231, 121, 1, 0},
    };
    for (const auto &c : aCases) {
        FakeService service;
        CallServiceNamedPipe(816, 1, 0, 0, nullptr, nullptr, nullptr);
        const int nHandles = hosted::OpenHandles();
        hosted::ClearFaults();
        hosted::FailCall(c.pszCall, 1, c.dwError);
        if (c.dwWaitError != 0) hosted::FailCall("WaitNamedPipeW", 1, c.dwWaitError);
        EXPECT_EQ(c.nResult, PassObjectInQueue()) << c.pszWhat;
        EXPECT_EQ(c.nWaits, hosted::CallCount("WaitNamedPipeW")) << c.pszWhat;
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << c.pszWhat;
        EXPECT_EQ(0, PassObjectInQueue()) << c.pszWhat; // sent or discarded, but gone
        if (c.nResult) {
            EXPECT_EQ(1u, service.Take().size()) << c.pszWhat;
        }
    }
}

TEST_F(ServicePipeFaults, OneConnectionCarriesAllRecords15MillisecondsApart)
{
    FakeService  service;
    TraceSession session;
    for (int n = 0; n < 4; n++) CallServiceNamedPipe(836, n, 0, 0, u"t", nullptr, nullptr);
    EXPECT_TRUE(session.Saw("34 VornTramsaNet: Net, CallServiceNamedPipe 0x344, 3, 0, 0, t, , "));
    const uint64_t ullStart = GetTickCount64();
    hosted::ClearFaults();
    EXPECT_EQ(1, PassObjectInQueue());
    EXPECT_GE(GetTickCount64() - ullStart, 4u * 15 - 4);
    EXPECT_EQ(1, hosted::CallCount("CreateFileW"));
    EXPECT_EQ(4, hosted::CallCount("WriteFile"));
    EXPECT_EQ(4u, service.Take().size());
    int nLines = 0;
    for (const std::string &sLine : session.Take()) nLines += sLine == "10 VornTramsaNet: PassObjectInQueue WriteFile";
    EXPECT_EQ(4, nLines);
    CallServiceNamedPipeLongText(819, 2, 0, -1, u"long");
    EXPECT_TRUE(session.Saw("34 VornTramsaNet: Net, CallServiceNamedPipe 0x333, 2, 0, -1, long"));
}
