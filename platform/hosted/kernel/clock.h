// clock.h: the process's clock and real time.
#pragma once
#include <chrono>
#include <cstdint>

namespace hosted {

// Real time for so many of the process's milliseconds, rounded up; not for INFINITE.
std::chrono::microseconds RealTime(uint32_t dwMilliseconds);

} // namespace hosted
