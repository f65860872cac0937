// kernel_test.cpp: what programs rely on of events, mutexes, threads, waits and critical sections.
#include "platform/kernel.h"
#include "platform/errors.h"
#include "tests/support/test_machine.h"
#include <atomic>
#include <vector>

using namespace platform;

namespace {

constexpr uint32_t LONG_WAIT_MS = 20000; // never reached when all is well

class Kernel : public MachineTest {
};

struct EventCase {
    const char     *pszWhat;
    BOOL            bManualReset;
    BOOL            bInitialState;
    const char16_t *pszName;
};
const EventCase g_aEventCases[] = {
    {"auto", FALSE, FALSE, nullptr},
    {"auto, signalled", FALSE, TRUE, nullptr},
    {"manual", TRUE, FALSE, nullptr},
    {"manual, signalled", TRUE, TRUE, nullptr},
    {"named auto", FALSE, FALSE, u"VORN kernel test event"},
    {"named auto, signalled", FALSE, TRUE, u"Global\\VORN kernel test event"},
    {"named manual", TRUE, FALSE, u"Local\\VORN kernel test event"},
    {"named manual, signalled", TRUE, TRUE, u"VORN kernel test event with a Umlaut \u00E4 and / and %"},
};

} // namespace

TEST_F(Kernel, EventKeepsItsSignalUntilConsumedOrReset)
{
    for (const EventCase &c : g_aEventCases) {
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
    ASSERT_NE(nullptr, hMutex);
    const HANDLE hOpened = OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\VORN kernel test mutex_0x1");
    ASSERT_NE(nullptr, hOpened);
    EXPECT_TRUE(CloseHandle(hMutex));
    EXPECT_TRUE(CloseHandle(hOpened));
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
    const HANDLE hClosed = ahEvents[1];
    for (const HANDLE hEvent : ahEvents) EXPECT_TRUE(CloseHandle(hEvent));
    EXPECT_FALSE(CloseHandle(hClosed));
    EXPECT_EQ(6u, GetLastError());
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(3, ahEvents, FALSE, 0));
    EXPECT_EQ(6u, GetLastError());
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjects(0, ahEvents, FALSE, 0));
    EXPECT_EQ(87u, GetLastError());
}

TEST_F(Kernel, DuplicateIsASecondHandleToTheSameObject)
{
    const HANDLE hFirst  = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE       hSecond = nullptr;
    ASSERT_TRUE(
        DuplicateHandle(GetCurrentProcess(), hFirst, GetCurrentProcess(), &hSecond, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_NE(hFirst, hSecond);
    EXPECT_TRUE(SetEvent(hFirst));
    EXPECT_TRUE(CloseHandle(hFirst));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hSecond, 0));
    EXPECT_TRUE(CloseHandle(hSecond));
    EXPECT_FALSE(
        DuplicateHandle(GetCurrentProcess(), hFirst, GetCurrentProcess(), &hSecond, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_EQ(6u, GetLastError());
}

namespace {

struct Takers {
    HANDLE           hItem; // auto-reset
    HANDLE           hStop; // manual-reset
    std::atomic<int> nTaken{0};
    int              nPlain = 0; // written by the setter before each SetEvent, read by the taker after
};

uint32_t TakerThread(void *pParameter)
{
    auto        *pTakers    = static_cast<Takers *>(pParameter);
    const HANDLE ahWaits[2] = {pTakers->hStop, pTakers->hItem};
    uint32_t     nOwn       = 0;
    while (WaitForMultipleObjects(2, ahWaits, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) {
        nOwn++;
        const int nSeen = pTakers->nPlain; // the event orders the setter's memory before the taker's
        EXPECT_EQ(nSeen, pTakers->nTaken.load() + 1);
        pTakers->nTaken++; // lets the setter go on
    }
    return nOwn;
}

} // namespace

TEST_F(Kernel, AutoResetEventWakesExactlyOneOfSeveralThreads)
{
    for (const char16_t *pszName : {static_cast<const char16_t *>(nullptr), u"VORN kernel test item"}) {
        Takers takers;
        takers.hItem = CreateEventW(nullptr, FALSE, FALSE, pszName);
        takers.hStop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        std::vector<HANDLE> ahThreads;
        for (int i = 0; i < 4; i++) {
            uint32_t dwId = 0;
            ahThreads.push_back(CreateThread(nullptr, 0, TakerThread, &takers, 0, &dwId));
            ASSERT_NE(nullptr, ahThreads.back());
            EXPECT_NE(0u, dwId);
            EXPECT_NE(GetCurrentThreadId(), dwId);
        }
        for (int i = 1; i <= 200; i++) {
            takers.nPlain = i;
            SetEvent(takers.hItem);
            while (takers.nTaken.load() < i) Sleep(0);
        }
        uint32_t dwExit = 0;
        EXPECT_TRUE(GetExitCodeThread(ahThreads[0], &dwExit));
        EXPECT_EQ(259u, dwExit) << "still active";
        SetEvent(takers.hStop);
        uint32_t nAll = 0;
        for (const HANDLE hThread : ahThreads) {
            EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, LONG_WAIT_MS));
            EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, 0)) << "a thread stays signalled";
            EXPECT_TRUE(GetExitCodeThread(hThread, &dwExit));
            nAll += dwExit;
            EXPECT_TRUE(CloseHandle(hThread));
        }
        EXPECT_EQ(200u, nAll);
        EXPECT_TRUE(CloseHandle(takers.hItem));
        EXPECT_TRUE(CloseHandle(takers.hStop));
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
    LeaveCriticalSection(&shared.section);
    for (const HANDLE hThread : ahThreads) {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, LONG_WAIT_MS));
        uint32_t dwHolds = 1;
        EXPECT_TRUE(GetExitCodeThread(hThread, &dwHolds));
        EXPECT_EQ(0u, dwHolds);
        EXPECT_TRUE(CloseHandle(hThread));
    }
    EXPECT_EQ(40000, shared.nCount);
    DeleteCriticalSection(&shared.section);
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
