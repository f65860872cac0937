// kernel_hosted_test.cpp: named objects between processes.
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
