// service_requests_hosted_test.cpp: which records of the service are accepted, at the edges of every condition.
// No thread can be started here: an accepted record shows as the attempt (one, on the calling thread), and must free
// its copy.
#include "ipc/command_pipe_server.h"
#include "ipc/service_requests.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "net/session_control.h"
#include "net/session_state.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "tests/ipc/fake_service.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

class ServiceRequests : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ClearSpecialFolders();
        hosted::FailCall("CreateThread", 1, 8, true);
    }
    void TearDown() override { ClearSpecialFolders(); }
};

static constexpr uint32_t FAILED = 0xFFFFFFFE;

TEST_F(ServiceRequests, AreAcceptedExactlyByCodeAndParameters)
{
    static const struct {
        uint32_t dwCommand, p1, p2, p3;
        bool     bAccepted;
    } aCases[] = {
        {836, 0, 0, 0, true},         {836, 100, 0, 0, true},  {836, 101, 0, 0, false},     {836, 127, 0, 0, false},
        {836, 128, 0, 0, true},       {836, 129, 0, 0, false}, {836, FAILED, 0, 0, false},  {2080, 0, 0, 0, false},
        {2080, 1, 0, 0, true},        {2080, 3, 1, 0, true},   {2080, 4, 0, 0, false},      {2336, 1, 0, 0, true},
        {2336, 2, 0, 0, false},       {2337, 1, 5, 0, true},   {2337, 0, 5, 0, false},      {4384, 1, 9, 9, true},
        {4384, 2, 0, 0, false},       {4385, 1, 9, 9, true},   {4385, 0, 0, 0, false},      {4896, 1, 9, 9, true},
        {4896, 2, 0, 0, false},       {5152, 1, 9, 9, true},   {5152, FAILED, 0, 0, false}, {8224, 1, 9, 9, true},
        {8224, 2, 0, 0, false},       {4400, 1, 0, 0, false},  {4400, 2, 0, 0, true},       {4400, 27, 0, 0, true},
        {4400, 28, 0, 0, false},      {4401, 1, 0, 0, false},  {4401, 2, 0, 0, true},       {4912, 2, 0, 0, true},
        {4912, 3, 0, 0, false},       {5168, 2, 0, 0, true},   {5168, FAILED, 0, 0, false}, {8480, 1, 0, 7, true},
        {8480, 1, 1, 0, false},       {8480, 2, 0, 0, false},  {9248, 1, 7, 0, true},       {9248, 1, 7, 1, false},
        {9248, 2, 7, 0, false},       {8992, 1, 0, 0, false},  {8992, 1, 1, 0, true},       {8992, 1, 11, 0, true},
        {8992, 1, 12, 0, false},      {8992, 1, 5, 1, false},  {8992, 2, 5, 0, false},      {9008, 2, 1, 1, true},
        {9008, FAILED, 11, 1, true},  {9008, 2, 0, 1, false},  {9008, 2, 12, 1, false},     {9008, 2, 5, 0, false},
        {9008, 1, 5, 1, false},       {9264, 2, 99, 1, true},  {9264, FAILED, 0, 1, true},  {9264, 2, 0, 0, false},
        {9264, 1, 0, 1, false},       {12321, 2, 0, 0, false}, {12321, 3, 0, 0, true},      {12321, 4, 0, 0, true},
        {12321, 5, 0, 0, false},      {545, 2, 0, 0, false},   {4129, 1, 0, 0, false},      {816, 1, 0, 0, false},
        {818, 102, 0, 0, false},      {8240, 1, 0, 0, false},  {12337, 3, 0, 0, false},     {0, 1, 0, 0, false},
        {0xFFFFFFFF, 1, 1, 1, false},
    };
    TraceSession session;
    for (const auto &c : aCases) {
        const int        nAttempts = hosted::CallCount("CreateThread");
        const IpcMessage record    = MakeRecord(c.dwCommand, c.p1, c.p2, c.p3, u"C:\\nowhere");
        SCOPED_TRACE(testing::Message() << c.dwCommand << " " << c.p1 << " " << c.p2 << " " << c.p3);
        session.Take();
        NetHandleIPC(&record);
        EXPECT_EQ(c.bAccepted ? 1 : 0, hosted::CallCount("CreateThread") - nAttempts);
        const std::vector<std::string> aLines = session.Take();
        EXPECT_EQ(!c.bAccepted, !aLines.empty() && aLines.back() == "10 VornTramsaNet: ## Unhandle IPC");
    }
}

TEST_F(ServiceRequests, TheirOwnEffectsAreSeenAtOnce)
{
    TraceSession session;
    InitThreadExecutionList();
    const uint64_t ullId  = AddThreadExecution();
    IpcMessage     record = MakeRecord(12321, 2);
    NetHandleIPC(&record);
    EXPECT_EQ(0, IsThreadExecutionCancel(ullId));
    record = MakeRecord(12321, 4);
    NetHandleIPC(&record);
    EXPECT_EQ(1, IsThreadExecutionCancel(ullId));
    DeleteThreadExecutionList();

    record = MakeRecord(836, 100);
    NetHandleIPC(&record);
    EXPECT_EQ(0u, g_bSpecialTransfer);
    record = MakeRecord(836, 128);
    NetHandleIPC(&record);
    EXPECT_EQ(1u, g_bSpecialTransfer);

    record = MakeRecord(4129, 2, 0, 0, std::u16string(260, u'r'), u"not this");
    NetHandleIPC(&record);
    EXPECT_EQ(std::u16string(259, u'r'), GetSpecialFolders().szAppDataRoot);

    g_ullLastConnectRequest = 0;
    record                  = MakeRecord(2080, 3);
    NetHandleIPC(&record);
    EXPECT_NE(0u, g_ullLastConnectRequest);

    record = MakeRecord(819, 7, 8, 9, std::u16string(260, u'a'), std::u16string(260, u'b'), u"c");
    NetHandleIPC(&record);
    EXPECT_TRUE(session.Saw("25 VornTramsaNet: NetHandleIPC, NTOS_FAILITEMS, 7, 8, 9, " + std::string(260, 'a') +
                            std::string(260, 'b') + "c"));
}
