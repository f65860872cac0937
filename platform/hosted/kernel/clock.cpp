// clock.cpp: the process's clock, which may run faster than real time and be moved forward.
// Tick counts start from the host's uptime, as GetTickCount64 does from the machine's, so processes agree on them while
// no rate is set.
#include "platform/hosted/kernel/clock.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/kernel.h"
#include <atomic>
#include <chrono>
#include <ctime>
#include <mutex>
#include <sched.h>
#include <thread>

namespace hosted {

namespace {

constexpr uint64_t US_PER_MS = 1000;

struct Clock {
    std::mutex            mutex;
    uint64_t              ullRealUs = 0; // when the rate last changed
    uint64_t              ullUs     = 0; // the process's time then
    std::atomic<uint32_t> nRate{1};
};

uint64_t RealUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

Clock &TheClock()
{
    static Clock &s_Clock = *[] {
        auto *pClock      = new Clock;
        pClock->ullRealUs = pClock->ullUs = RealUs();
        return pClock;
    }();
    return s_Clock;
}

// [held] The process's time.
uint64_t NowUs(const Clock &clock)
{
    return clock.ullUs + (RealUs() - clock.ullRealUs) * clock.nRate.load(std::memory_order_relaxed);
}

const OnUseMachine g_Reset([] { SetClockRate(1); });

} // namespace

void SetClockRate(uint32_t nRate)
{
    if (nRate == 0) Fatal("SetClockRate(0)");
    Clock                            &clock = TheClock();
    const std::lock_guard<std::mutex> guard(clock.mutex);
    clock.ullUs     = NowUs(clock);
    clock.ullRealUs = RealUs();
    clock.nRate.store(nRate, std::memory_order_relaxed);
}

void AdvanceClock(uint64_t ullMilliseconds)
{
    Clock                            &clock = TheClock();
    const std::lock_guard<std::mutex> guard(clock.mutex);
    clock.ullUs += ullMilliseconds * US_PER_MS;
}

std::chrono::microseconds RealTime(uint32_t dwMilliseconds)
{
    Start();
    const uint64_t nRate = TheClock().nRate.load(std::memory_order_relaxed);
    return std::chrono::microseconds((dwMilliseconds * US_PER_MS + nRate - 1) / nRate);
}

} // namespace hosted

uint64_t platform::GetTickCount64()
{
    hosted::Start();
    hosted::Clock                    &clock = hosted::TheClock();
    const std::lock_guard<std::mutex> guard(clock.mutex);
    return hosted::NowUs(clock) / hosted::US_PER_MS;
}

uint32_t platform::GetTickCount()
{
    return static_cast<uint32_t>(GetTickCount64());
}

void platform::Sleep(uint32_t dwMilliseconds)
{
    if (dwMilliseconds == 0) {
        sched_yield();
    } else if (dwMilliseconds == INFINITE) {
        for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
    } else {
        std::this_thread::sleep_for(hosted::RealTime(dwMilliseconds));
    }
}
