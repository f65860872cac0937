// observed_hosted.h: what is open in this process, and what it logs.
#pragma once
#include "platform/hosted/control.h"
#include "tests/net/net_fixture.h"
#include <array>
#include <sstream>

using Open = std::array<int, 4>; // handles, sockets, blocks, Winsock starts
inline Open OpenNow()
{
    return {hosted::OpenHandles(), hosted::OpenSockets(), hosted::LiveBlocks(), hosted::WinsockStarts()};
}
// Waits until as much is open as before; says what stays.
inline testing::AssertionResult IsOpenAsBefore(const Open &before)
{
    Open now{};
    if (Eventually([&] { return (now = OpenNow()) == before; })) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "handles, sockets, blocks, Winsock starts: " << testing::PrintToString(now)
                                       << ", before: " << testing::PrintToString(before);
}

// The debugger output from here on, switched on for the life of the object.
class DebugLog {
  public:
    DebugLog()
    {
        hosted::KeepDebugOutput(true);
        hosted::TakeDebugOutput();
        g_bSocketDebug = 1;
    }
    ~DebugLog()
    {
        g_bSocketDebug = 0;
        hosted::KeepDebugOutput(false);
    }
    DebugLog(const DebugLog &)            = delete;
    DebugLog &operator=(const DebugLog &) = delete;

    const std::string &Text() { return m_sText += hosted::TakeDebugOutput(); }
    int                Count(const std::string &s)
    {
        int n = 0;
        Text();
        for (size_t i = 0; (i = m_sText.find(s, i)) != m_sText.npos; i++) n++;
        return n;
    }
    bool Has(const std::string &s) { return Text().find(s) != m_sText.npos; }

  private:
    std::string m_sText;
};
