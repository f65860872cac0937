// trace_control_test.cpp: the control callback's requests that need no session of the system.
#include "trace/trace_control.h"
#include <gtest/gtest.h>

using namespace platform;

static void Fill(TraceControlBlock *pBlock)
{
    pBlock->hLogger       = 7;
    pBlock->bEnableLevel  = 5;
    pBlock->dwEnableFlags = 3;
}

static bool IsFilled(const TraceControlBlock &block)
{
    return block.hLogger == 7 && block.bEnableLevel == 5 && block.dwEnableFlags == 3;
}

static bool IsClear(const TraceControlBlock &block)
{
    return block.hLogger == 0 && block.bEnableLevel == 0 && block.dwEnableFlags == 0;
}

TEST(TraceControl, DisableClearsTheBlockThatTheOptionsName)
{
    static const struct {
        uint8_t bOptions;
        bool    bHasAlternate, bClearsAlternate;
    } aCases[] = {{0, true, false}, {1, true, false}, {2, false, false}, {2, true, true}, {3, true, true}};
    for (const auto &c : aCases) {
        TraceControlBlock block{}, alternate{};
        Fill(&block);
        Fill(&alternate);
        block.bOptions    = c.bOptions;
        block.pAlternate  = c.bHasAlternate ? &alternate : nullptr;
        uint32_t cbBuffer = 99;
        EXPECT_EQ(0u, ControlCallback(5, &block, &cbBuffer, nullptr));
        EXPECT_EQ(0u, cbBuffer);
        EXPECT_EQ(c.bClearsAlternate, IsClear(alternate)) << int(c.bOptions);
        EXPECT_EQ(!c.bClearsAlternate, IsClear(block)) << int(c.bOptions);
    }
}

TEST(TraceControl, OtherRequestsAreRefusedAndChangeNothing)
{
    for (const uint32_t nRequest : {0u, 3u, 6u, 8u, 0xFFFFFFFFu}) {
        TraceControlBlock block{};
        Fill(&block);
        uint32_t cbBuffer = 99;
        EXPECT_EQ(87u, ControlCallback(nRequest, &block, &cbBuffer, nullptr)) << nRequest;
        EXPECT_EQ(0u, cbBuffer);
        EXPECT_TRUE(IsFilled(block)) << nRequest;
    }
}
