// delay_proxy.h: a longer way between two programs of this machine: what comes in is handed on a fixed time later.
// It delays and does not throttle: bytes are read as fast as they come and wait in memory, up to DELAY_QUEUE_BYTES for
// each direction of a connection, so a sender is slowed only as the far end's own windows slow it.
#pragma once
#include <chrono>
#include <cstddef>
#include <cstdint>

constexpr size_t DELAY_QUEUE_BYTES = 64u << 20;

// Listens at a free port of the loopback interface and hands every connection on to nTarget of the same, each direction
// delay later. The port, or 0 with errno. It serves until the process ends.
uint16_t StartDelayProxy(uint16_t nTarget, std::chrono::microseconds delay);
