// trace_control_test.cpp: the control callback's requests that need no session of the system.
#include "trace/trace_control.h"
#include <gtest/gtest.h>

using namespace platform;

// The block's state in one number: 753 as the test sets it, 0 when it was cleared.
static uint64_t StateOf(const TraceControlBlock &block)
{
    return block.hLogger * 100 + block.bEnableLevel * 10u + block.dwEnableFlags;
}

TEST(TraceControl, DisableClearsTheBlockThatTheOptionsNameAndOtherRequestsAreRefused)
{
    static const struct {
        uint32_t nRequest;
        uint8_t  bOptions;
        bool     bHasAlternate;
        uint32_t dwExpected;
        uint64_t ullBlock, ullAlternate;
    } aCases[] = {
        {5, 0, true, 0, 0, 753},    {5, 1, true, 0, 0, 753},     {5, 2, false, 0, 0, 753},
        {5, 2, true, 0, 753, 0},    {5, 3, true, 0, 753, 0},     {0, 0, false, 87, 753, 753},
        {3, 2, true, 87, 753, 753}, {6, 0, false, 87, 753, 753}, {0xFFFFFFFF, 0, true, 87, 753, 753},
    };
    for (const auto &c : aCases) {
        TraceControlBlock block{}, alternate{};
        for (TraceControlBlock *p : {&block, &alternate}) p->hLogger = 7, p->bEnableLevel = 5, p->dwEnableFlags = 3;
        block.bOptions    = c.bOptions;
        block.pAlternate  = c.bHasAlternate ? &alternate : nullptr;
        uint32_t cbBuffer = 99;
        EXPECT_EQ(c.dwExpected, ControlCallback(c.nRequest, &block, &cbBuffer, nullptr)) << "case " << &c - aCases;
        EXPECT_EQ(0u, cbBuffer) << "case " << &c - aCases;
        EXPECT_EQ(c.ullBlock, StateOf(block)) << "case " << &c - aCases;
        EXPECT_EQ(c.ullAlternate, StateOf(alternate)) << "case " << &c - aCases;
    }
}
