// thread_execution_test.cpp: ids, cancellation, and a list that is closed while workers still use it.
#include "ipc/thread_execution.h"
#include <atomic>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <utility>
#include <vector>

class ThreadExecution : public ::testing::Test {
  protected:
    void SetUp() override { InitThreadExecutionList(); }
    void TearDown() override { DeleteThreadExecutionList(); }
};

TEST_F(ThreadExecution, ManyAtOnceGetDifferentIdsAndLeaveInAnyOrder)
{
    std::vector<uint64_t> aIds;
    for (int n = 0; n < 50; n++) aIds.push_back(AddThreadExecution()); // most within one tick
    EXPECT_EQ(50u, std::set<uint64_t>(aIds.begin(), aIds.end()).size());
    std::swap(aIds[1], aIds[25]);
    std::swap(aIds[2], aIds[49]);
    EXPECT_EQ(1, CancelAllThreadExecutions());
    for (const uint64_t ullId : aIds) { // first, middle, last, and the others
        EXPECT_EQ(1, IsThreadExecutionCancel(ullId));
        EXPECT_EQ(1, RemoveThreadExecution(ullId));
        EXPECT_EQ(0, RemoveThreadExecution(ullId));
        EXPECT_EQ(0, IsThreadExecutionCancel(ullId));
    }
    EXPECT_EQ(1, IsThreadExecutionListEmpty());
    EXPECT_EQ(0, CancelAllThreadExecutions());
    AddThreadExecution(); // behind nobody
    EXPECT_EQ(0, IsThreadExecutionListEmpty());
}

TEST_F(ThreadExecution, CancellingReachesRunningOnesOnlyAndTheirFlags)
{
    std::atomic<uint32_t> bTied{0}, bUntied{0};
    const uint64_t        ullTied = AddThreadExecution(), ullUntied = AddThreadExecution();
    EXPECT_EQ(1, SetThreadExecutionFlag(ullTied, &bTied));
    EXPECT_EQ(1, SetThreadExecutionFlag(ullUntied, &bUntied));
    EXPECT_EQ(1, SetThreadExecutionFlag(ullUntied, nullptr));
    EXPECT_EQ(0, SetThreadExecutionFlag(0, &bUntied));
    EXPECT_EQ(0, IsThreadExecutionCancel(ullTied));
    CancelAllThreadExecutions();
    const uint64_t ullLater = AddThreadExecution();
    EXPECT_EQ(1u, bTied);
    EXPECT_EQ(0u, bUntied);
    EXPECT_EQ(1, IsThreadExecutionCancel(ullTied));
    EXPECT_EQ(1, IsThreadExecutionCancel(ullUntied));
    EXPECT_EQ(0, IsThreadExecutionCancel(ullLater));
    EXPECT_EQ(0, IsThreadExecutionCancel(0));
}

TEST_F(ThreadExecution, WorkersThatOutliveTheListFindItClosed)
{
    std::atomic<bool>        bEnd{false};
    std::atomic<int>         nRounds{0};
    std::vector<std::thread> aWorkers;
    for (int n = 0; n < 4; n++) {
        aWorkers.emplace_back([&] {
            while (!bEnd) {
                const uint64_t ullId = AddThreadExecution();
                IsThreadExecutionCancel(ullId);
                RemoveThreadExecution(ullId);
                nRounds++;
            }
        });
    }
    while (nRounds < 5000) {
        CancelAllThreadExecutions();
        DeleteThreadExecutionList();
        InitThreadExecutionList();
    }
    bEnd = true;
    for (std::thread &worker : aWorkers) worker.join();
    EXPECT_EQ(1, IsThreadExecutionListEmpty()) << "each node went with its worker or with the list";
    const uint64_t ullId = AddThreadExecution();
    EXPECT_TRUE(CancelAllThreadExecutions() == 1 && IsThreadExecutionCancel(ullId) == 1);
    EXPECT_EQ(1, RemoveThreadExecution(ullId));
}
