// kernel_hosted_test.cpp: named objects between processes, and what the hosted machine pretends and counts.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/kernel.h"
#include "platform/pipes.h"
#include "tests/support/child_process_hosted.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

constexpr uint32_t LONG_WAIT_MS = 60000; // never reached when all is well

class KernelHosted : public MachineTest {};

// Holds a mutex, an event, a pipe and a signalled "ready" event until it is killed.
const ChildRole g_HoldRole("hold names", [](const std::string &) {
    CreateMutexW(nullptr, FALSE, u"Global\\VORN held mutex");
    CreateEventW(nullptr, TRUE, TRUE, u"VORN held event");
    CreateNamedPipeW(u"\\\\.\\pipe\\VORN held pipe", PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE,
                     PIPE_UNLIMITED_INSTANCES, 512, 512, 0, nullptr);
    SetEvent(OpenEventW(EVENT_MODIFY_STATE, FALSE, u"VORN ready"));
    Sleep(INFINITE);
    return 0;
});

// Takes items until it is told to stop; its result is their number.
const ChildRole g_TakeRole("take items", [](const std::string &) {
    const HANDLE ahWaits[2] = {OpenEventW(SYNCHRONIZE, FALSE, u"VORN stop"),
                               OpenEventW(SYNCHRONIZE, FALSE, u"VORN item")};
    const HANDLE hTaken     = OpenEventW(EVENT_MODIFY_STATE, FALSE, u"VORN taken");
    int          nTaken     = 0;
    for (; WaitForMultipleObjects(2, ahWaits, FALSE, LONG_WAIT_MS) == WAIT_OBJECT_0 + 1; nTaken++) SetEvent(hTaken);
    return nTaken;
});

// The clock and the fault that the environment asks for.
const ChildRole g_EnvironmentRole("environment", [](const std::string &) {
    const uint64_t ullFrom = GetTickCount64();
    Sleep(60000);
    if (GetTickCount64() - ullFrom < 60000) return 1;
    if (CreateEventW(nullptr, TRUE, TRUE, nullptr) == nullptr) return 2;
    if (CreateEventW(nullptr, TRUE, TRUE, nullptr) != nullptr || GetLastError() != 8) return 3;
    if (CreateEventW(nullptr, TRUE, TRUE, nullptr) == nullptr) return 4;
    for (int i = 0; i < 3; i++) {
        if (OpenMutexW(SYNCHRONIZE, FALSE, u"VORN none") != nullptr || GetLastError() != 5) return 5;
    }
    return 0;
});

} // namespace

TEST_F(KernelHosted, NamesEndWhenTheirProcessIsKilled)
{
    const HANDLE hReady = CreateEventW(nullptr, FALSE, FALSE, u"VORN ready");
    ChildProcess child("hold names");
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hReady, LONG_WAIT_MS));
    EXPECT_TRUE(CloseHandle(OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\VORN held mutex")));
    const HANDLE hEvent = OpenEventW(SYNCHRONIZE, FALSE, u"VORN held event");
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hEvent, 0));
    EXPECT_TRUE(CloseHandle(hEvent));
    EXPECT_TRUE(WaitNamedPipeW(u"\\\\.\\pipe\\VORN held pipe", 1000));
    child.Kill();
    EXPECT_EQ(nullptr, OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\VORN held mutex"));
    EXPECT_FALSE(WaitNamedPipeW(u"\\\\.\\pipe\\VORN held pipe", 1000));
    EXPECT_EQ(2u, GetLastError());
    const HANDLE hNew = CreateEventW(nullptr, TRUE, FALSE, u"VORN held event");
    EXPECT_EQ(0u, GetLastError()) << "made anew";
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hNew, 0)) << "with nothing of the old state";
    EXPECT_TRUE(CloseHandle(hNew));
    EXPECT_TRUE(CloseHandle(hReady));
}

TEST_F(KernelHosted, AutoResetEventIsConsumedOnceAcrossProcesses)
{
    const HANDLE hItem  = CreateEventW(nullptr, FALSE, FALSE, u"VORN item");
    const HANDLE hTaken = CreateEventW(nullptr, FALSE, FALSE, u"VORN taken");
    const HANDLE hStop  = CreateEventW(nullptr, TRUE, FALSE, u"VORN stop");
    ChildProcess first("take items"), second("take items");
    for (int i = 0; i < 100; i++) {
        EXPECT_TRUE(SetEvent(hItem));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hTaken, LONG_WAIT_MS)) << "item " << i;
    }
    EXPECT_TRUE(SetEvent(hStop));
    const int nFirst = first.Wait(), nSecond = second.Wait();
    EXPECT_EQ(100, nFirst + nSecond) << nFirst << " and " << nSecond;
    for (const HANDLE h : {hItem, hTaken, hStop}) EXPECT_TRUE(CloseHandle(h));
}

TEST_F(KernelHosted, EnvironmentDrivesAWholeProcess)
{
    ChildProcess child("environment", "", {"VORN_CLOCK_RATE=1000", "VORN_FAULTS=CreateEventW:2:8,OpenMutexW:1:5:on"});
    EXPECT_EQ(0, child.Wait());
    ChildProcess misspelt("environment", "", {"VORN_FAULTS=CreateEventW:two:8"});
    EXPECT_EQ(2, misspelt.Wait());
}

TEST_F(KernelHosted, StaleHandleNeverNamesANewObject)
{
    const HANDLE hStale = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    EXPECT_TRUE(CloseHandle(hStale));
    for (int i = 0; i < 1000; i++) {
        const HANDLE hNew = CreateEventW(nullptr, TRUE, TRUE, nullptr);
        EXPECT_NE(hStale, hNew);
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(hStale, 0));
        EXPECT_EQ(6u, GetLastError());
        EXPECT_TRUE(CloseHandle(hNew));
    }
}

TEST_F(KernelHosted, FastClockShortensSleepsWaitsAndTicksAlike)
{
    hosted::SetClockRate(1000);
    const HANDLE   hEvent  = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const uint64_t ullFrom = GetTickCount64();
    Sleep(10000);
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hEvent, 10000));
    EXPECT_GE(GetTickCount64() - ullFrom, 20000u);
    hosted::SetClockRate(1);
    const uint64_t ullNow = GetTickCount64();
    hosted::AdvanceClock(86400000);
    EXPECT_GE(GetTickCount64() - ullNow, 86400000u);
    EXPECT_LT(GetTickCount64() - ullNow, 86400000u + LONG_WAIT_MS);
    EXPECT_TRUE(CloseHandle(hEvent));
}
