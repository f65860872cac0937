// eventually.h: waiting for what other threads bring about.
#pragma once
#include <chrono>
#include <functional>
#include <thread>

// True as soon as the condition holds; false when it has not within half a minute of real time.
inline bool Eventually(const std::function<bool()> &holds)
{
    for (int i = 0; i < 30000; i++) {
        if (holds()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}
