// kernel_test.cpp: what programs rely on of events, mutexes, threads, waits and critical sections.
#include "platform/errors.h"
#include "platform/kernel.h"
#include "tests/support/test_machine.h"
#include <atomic>
#include <thread>
#include <vector>

using namespace platform;

namespace {

constexpr uint32_t LONG_WAIT_MS = 20000; // never reached when all is well

class Kernel : public MachineTest {};

} // namespace

TEST_F(Kernel, EventKeepsItsSignalUntilConsumedOrReset)
{
    static const struct {
        const char     *pszWhat;
        BOOL            bManualReset;
        BOOL            bInitialState;
        const char16_t *pszName;
    } aCases[] = {
        {"auto", FALSE, FALSE, nullptr},
        {"manual, signalled", TRUE, TRUE, nullptr},
        {"named auto, signalled", FALSE, TRUE, u"Global\\VORN kernel test event"},
        {"named manual", TRUE, FALSE, u"VORN kernel test event with a Umlaut \u00E4 and / and %"},
    };
    for (const auto &c : aCases) {
        SetLastError(1);
        const HANDLE hEvent = CreateEventW(nullptr, c.bManualReset, c.bInitialState, c.pszName);
        ASSERT_NE(nullptr, hEvent) << c.pszWhat;
        EXPECT_EQ(0u, GetLastError()) << c.pszWhat;
        const uint32_t dwAfterTaking = c.bManualReset ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
        EXPECT_EQ(c.bInitialState ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(hEvent, 0)) << c.pszWhat;
        EXPECT_EQ(c.bInitialState ? dwAfterTaking : WAIT_TIMEOUT, WaitForSingleObject(hEvent, 0)) << c.pszWhat;
        EXPECT_TRUE(SetEvent(hEvent));
        EXPECT_TRUE(SetEvent(hEvent)); // twice is once
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hEvent, LONG_WAIT_MS)) << c.pszWhat;
        EXPECT_EQ(dwAfterTaking, WaitForSingleObject(hEvent, 0)) << c.pszWhat;
        EXPECT_TRUE(SetEvent(hEvent));
        EXPECT_TRUE(ResetEvent(hEvent));
        EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hEvent, 1)) << c.pszWhat;
        EXPECT_TRUE(CloseHandle(hEvent));
    }
}

TEST_F(Kernel, NameLivesAsLongAsAHandle)
{
    EXPECT_EQ(nullptr, OpenEventW(SYNCHRONIZE, FALSE, u"VORN kernel test name"));
    EXPECT_EQ(2u, GetLastError());
    const HANDLE hFirst = CreateEventW(nullptr, TRUE, FALSE, u"Local\\VORN kernel test name");
    ASSERT_NE(nullptr, hFirst);
    EXPECT_EQ(nullptr, OpenEventW(SYNCHRONIZE, FALSE, u"Global\\VORN kernel test name"))
        << "the machine's, not the session's";
    EXPECT_EQ(2u, GetLastError());
    const HANDLE hSecond = CreateEventW(nullptr, FALSE, TRUE, u"VORN kernel test name"); // settings of the first count
    ASSERT_NE(nullptr, hSecond);
    EXPECT_EQ(183u, GetLastError());
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hSecond, 0));
    const HANDLE hWaitOnly = OpenEventW(SYNCHRONIZE, FALSE, u"Local\\VORN kernel test name");
    ASSERT_NE(nullptr, hWaitOnly);
    EXPECT_FALSE(SetEvent(hWaitOnly));
    EXPECT_EQ(5u, GetLastError());
    EXPECT_EQ(nullptr, OpenMutexW(SYNCHRONIZE, FALSE, u"VORN kernel test name")) << "another kind of object";
    EXPECT_EQ(6u, GetLastError());
    EXPECT_EQ(nullptr, CreateMutexW(nullptr, FALSE, u"VORN kernel test name"));
    EXPECT_EQ(6u, GetLastError());
    EXPECT_TRUE(CloseHandle(hFirst));
    EXPECT_TRUE(SetEvent(hSecond));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hWaitOnly, LONG_WAIT_MS));
    EXPECT_TRUE(CloseHandle(hSecond));
    EXPECT_TRUE(CloseHandle(hWaitOnly));
    EXPECT_EQ(nullptr, OpenEventW(SYNCHRONIZE, FALSE, u"VORN kernel test name"));

    const HANDLE hMutex = CreateMutexW(nullptr, FALSE, u"Global\\VORN kernel test mutex_0x1");
    EXPECT_TRUE(CloseHandle(OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\VORN kernel test mutex_0x1")));
    EXPECT_TRUE(CloseHandle(hMutex));
    EXPECT_EQ(nullptr, OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\VORN kernel test mutex_0x1"));
    EXPECT_EQ(2u, GetLastError());
}

TEST_F(Kernel, WaitForSeveralTakesTheFirstInOrderAndOnlyThat)
{
    HANDLE ahEvents[3] = {CreateEventW(nullptr, FALSE, FALSE, nullptr),
                          CreateEventW(nullptr, FALSE, FALSE, u"VORN kernel test second"),
                          CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForMultipleObjects(3, ahEvents, FALSE, 1));
    SetEvent(ahEvents[2]);
    SetEvent(ahEvents[1]);
    EXPECT_EQ(1u, WaitForMultipleObjects(3, ahEvents, FALSE, LONG_WAIT_MS));
    EXPECT_EQ(2u, WaitForMultipleObjects(3, ahEvents, FALSE, LONG_WAIT_MS));
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForMultipleObjects(3, ahEvents, FALSE, 0));
    for (const HANDLE hEvent : ahEvents) EXPECT_TRUE(CloseHandle(hEvent));
    EXPECT_FALSE(CloseHandle(ahEvents[1]));
    EXPECT_EQ(6u, GetLastError());
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(3, ahEvents, FALSE, 0));
    EXPECT_EQ(6u, GetLastError());
}

TEST_F(Kernel, DuplicateIsASecondHandleToTheSameObject)
{
    const HANDLE hFirst = CreateEventW(nullptr, TRUE, FALSE, nullptr), hThis = GetCurrentProcess();
    HANDLE       hSecond = nullptr;
    ASSERT_TRUE(DuplicateHandle(hThis, hFirst, hThis, &hSecond, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_TRUE(SetEvent(hFirst));
    EXPECT_TRUE(CloseHandle(hFirst));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hSecond, 0)) << "it outlives the first";
    EXPECT_TRUE(CloseHandle(hSecond));
    EXPECT_FALSE(DuplicateHandle(hThis, hFirst, hThis, &hSecond, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_EQ(6u, GetLastError());
}

TEST_F(Kernel, AutoResetEventWakesExactlyOneOfSeveralThreads)
{
    for (const char16_t *pszName : {static_cast<const char16_t *>(nullptr), u"VORN kernel test item"}) {
        const HANDLE             hItem = CreateEventW(nullptr, FALSE, FALSE, pszName);
        const HANDLE             hStop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        int                      nSet  = 0; // the event orders the setter's memory before the taker's
        std::atomic<int>         nTaken{0};
        std::vector<std::thread> aTakers;
        for (int i = 0; i < 4; i++)
            aTakers.emplace_back([&] {
                const HANDLE ahWaits[2] = {hStop, hItem};
                while (WaitForMultipleObjects(2, ahWaits, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
                    EXPECT_EQ(nSet, nTaken.load() + 1);
                    nTaken++; // lets the setter go on
                }
            });
        for (int i = 1; i <= 200; i++) {
            nSet = i;
            SetEvent(hItem);
            while (nTaken < i) Sleep(0);
        }
        SetEvent(hStop);
        for (std::thread &taker : aTakers) taker.join();
        EXPECT_EQ(200, nTaken);
        EXPECT_TRUE(CloseHandle(hItem) && CloseHandle(hStop));
    }
}

namespace {

struct Shared {
    CRITICAL_SECTION section;
    int              nCount;
};

uint32_t CountThread(void *pParameter)
{
    auto *pShared = static_cast<Shared *>(pParameter);
    for (int i = 0; i < 10000; i++) {
        EnterCriticalSection(&pShared->section);
        EnterCriticalSection(&pShared->section);
        pShared->nCount++;
        LeaveCriticalSection(&pShared->section);
        if (i % 1000 == 0) Sleep(0); // still inside
        pShared->nCount++;
        LeaveCriticalSection(&pShared->section);
    }
    return HoldsCriticalSection(&pShared->section);
}

} // namespace

TEST_F(Kernel, CriticalSectionIsRecursiveAndKnowsItsOwner)
{
    Shared shared{};
    InitializeCriticalSection(&shared.section);
    EXPECT_FALSE(HoldsCriticalSection(&shared.section));
    EnterCriticalSection(&shared.section);
    EXPECT_TRUE(HoldsCriticalSection(&shared.section));
    HANDLE ahThreads[2] = {};
    for (HANDLE &hThread : ahThreads) hThread = CreateThread(nullptr, 0, CountThread, &shared, 0, nullptr);
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForMultipleObjects(2, ahThreads, FALSE, 20));
    EXPECT_EQ(0, shared.nCount);
    uint32_t dwHolds = 0;
    EXPECT_TRUE(GetExitCodeThread(ahThreads[0], &dwHolds));
    EXPECT_EQ(259u, dwHolds) << "still active";
    LeaveCriticalSection(&shared.section);
    for (const HANDLE hThread : ahThreads) {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, LONG_WAIT_MS));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, 0)) << "a thread stays signalled";
        EXPECT_TRUE(GetExitCodeThread(hThread, &dwHolds));
        EXPECT_EQ(0u, dwHolds);
        EXPECT_TRUE(CloseHandle(hThread));
    }
    EXPECT_EQ(40000, shared.nCount);
}

TEST_F(Kernel, ClockAdvancesWithSleepsAndTimeOuts)
{
    const HANDLE   hEvent  = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const uint64_t ullFrom = GetTickCount64();
    Sleep(30);
    EXPECT_EQ(static_cast<uint32_t>(WAIT_TIMEOUT), WaitForSingleObject(hEvent, 30));
    EXPECT_GE(GetTickCount64() - ullFrom, 40u); // Windows counts in steps of up to 16 ms
    EXPECT_LT(GetTickCount() - static_cast<uint32_t>(ullFrom), LONG_WAIT_MS);
    uint32_t dwSession = 77;
    EXPECT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &dwSession));
    EXPECT_NE(77u, dwSession);
    EXPECT_TRUE(CloseHandle(hEvent));
}
