// stop_request.h: how "stop" reaches the discovery programs that run on this machine.
// The agent starts "stop" and then "server" or "client" without waiting in between, so a "stop" that was slow to start
// may arrive at the program that it was sent before. A stop in the first moments of a life therefore ends nothing at
// once: a search goes on for a while, and an announcement until its peer is admitted or the agent's port is free. An
// announcement that stays a little longer harms nobody, one that vanishes while its server waits leaves two people
// waiting.
#pragma once
#include "platform/types.h"

constexpr uint32_t EARLY_STOP_MS = 6000;  // a stop within this time may have been meant for the one before,
constexpr uint32_t LINGER_MS     = 30000; // and ends this one only so much later: longer than a search's rounds

enum StopKind { STOP_NONE, STOP_EARLY, STOP_NOW };

// Asks every discovery program of this machine to end.
void SendStopRequest();
// Null when it cannot be made. A signal that a predecessor still holds is waited out, for at most 10 s.
platform::HANDLE OpenStopRequest();
// Waits up to dwMilliseconds for one. An early one is taken back, once the program that was meant has seen it.
StopKind AwaitStopRequest(platform::HANDLE hStop, uint64_t ullBegin, uint32_t dwMilliseconds);
