// message_formats.cpp: the display formats. Argument 1 is the program's name. The text before the path of message 35
// mostly comes without a blank at its end; where it has one ("Remove cache "), two are shown.
#include "trace/message_formats.h"

using namespace platform;

const TraceMessageFormat g_aTraceMessageFormats[TRACE_MESSAGE_COUNT] = {
    {10, "%1: %2", "ss"},
    {13, "%1: %2, %3 bytes", "ssu"},
    {16, "%1: %2, wParam %3, lParam %4", "ssuu"},
    {21, "%1: %2, %3, %4", "ssus"},
    {22, "%1: %2, %3, %4", "ssus"},
    {25, "%1: %2, %3, %4, %5, %6", "ssuuus"},
    {27, "%1: %2, %3, %4, %5, %6, %7, %8", "ssuuusss"},
    {28, "%1: %2, changed %3, from %4 to %5", "ssuss"},
    {29, "%1: %2, %3", "ssu"},
    {30, "%1: %2, %3, %4", "ssuu"},
    {34, "%1: %2", "ss"},
    {35, "%1: %2 %3", "sss"},
    {36, "%1: %2 %3", "sss"},
    {37, "%1: start", "s"},
    {38, "%1: end", "s"},
};
