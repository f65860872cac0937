// exit_codes.h: how migrate ends.
#pragma once

constexpr int EXIT_ALL_THERE   = 0;
constexpr int EXIT_SOME_FAILED = 1;
constexpr int EXIT_USAGE       = 2;
constexpr int EXIT_NOT_LINKED  = 3;
constexpr int EXIT_BROKEN_OFF  = 4; // and resumable
