// event_tracing_hosted_test.cpp: sessions that others switch, the lines that messages become, and the debugger output.
#include "platform/errors.h"
#include "platform/event_tracing.h"
#include "platform/hosted/control.h"
#include "platform/hosted/trace/trace_sessions.h"
#include "tests/support/test_machine.h"
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

using namespace platform;

namespace {

constexpr GUID     CONTROL_GUID  = {0x12345678, 0x1234, 0xABCD, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID     MESSAGE_GUID  = {0xEAB78BA6, 0xC61F, 0x3835, {8, 0xB6, 0xAB, 0x28, 0xBC, 0x8B, 0x57, 0x5D}};
constexpr uint32_t MESSAGE_FLAGS = 0x2B;

const TraceMessageFormat g_aFormats[] = {{10, "%1: %2", "ss"}, {16, "%1 %2 %3 (%3 of 100%%)", "sxu"}};

// A provider as the product keeps one.
struct Provider {
    std::atomic<TRACEHANDLE> hLogger{0};
    std::atomic<uint32_t>    dwFlags{0}, dwLevel{0}, nCalls{0};
    TRACEHANDLE              hRegistration = 0;
    TRACE_GUID_REGISTRATION  registration  = {&MESSAGE_GUID, nullptr};

    static uint32_t Control(uint32_t nRequest, void *pContext, uint32_t *pcb, void *pBuffer)
    {
        auto      *pThis   = static_cast<Provider *>(pContext);
        const bool bEnable = nRequest == WMI_ENABLE_EVENTS;
        *pcb               = 0;
        EXPECT_TRUE(bEnable || nRequest == WMI_DISABLE_EVENTS);
        pThis->hLogger = bEnable ? GetTraceLoggerHandle(pBuffer) : 0;
        pThis->dwLevel = bEnable ? GetTraceEnableLevel(pThis->hLogger) : 0;
        pThis->dwFlags = bEnable ? GetTraceEnableFlags(pThis->hLogger) : 0;
        ++pThis->nCalls;
        return 0;
    }
    Provider()
    {
        EXPECT_EQ(
            0u, RegisterTraceGuidsW(Control, this, &CONTROL_GUID, 1, &registration, nullptr, nullptr, &hRegistration));
    }
    ~Provider() { EXPECT_EQ(0u, UnregisterTraceGuids(hRegistration)); }
    Provider(const Provider &)            = delete;
    Provider &operator=(const Provider &) = delete;
};

template <class Condition> bool Within(Condition condition)
{
    for (int i = 0; i < 2000 && !condition(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return condition();
}

std::vector<std::string> Lines(const std::string &sFile)
{
    std::vector<std::string> aLines;
    std::ifstream            file(sFile);
    for (std::string sLine; std::getline(file, sLine);) aLines.push_back(sLine);
    return aLines;
}

class EventTracing : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        m_sMachine = hosted::MachineFolder();
        SetTraceMessageFormats(g_aFormats, std::size(g_aFormats));
    }
    std::vector<std::string> Log() const { return Lines(hosted::TraceLogFile(m_sMachine.c_str(), "test")); }
    bool                     Start(uint8_t nLevel, uint32_t dwFlags) const
    {
        return hosted::StartTraceSession(m_sMachine.c_str(), "test", nLevel, dwFlags);
    }
    bool        Stop() const { return hosted::StopTraceSession(m_sMachine.c_str(), "test"); }
    std::string m_sMachine;
};

} // namespace

TEST_F(EventTracing, ASessionIsNoticedWhenItComesChangesAndGoes)
{
    ASSERT_TRUE(Start(4, 2));
    Provider provider; // a session that is on already has a program's first message
    EXPECT_EQ(2u, provider.dwFlags);
    EXPECT_EQ(4u, provider.dwLevel);
    ASSERT_TRUE(Start(5, 0x80000003));
    EXPECT_TRUE(Within([&] { return provider.dwFlags == 0x80000003 && provider.dwLevel == 5; }));
    const TRACEHANDLE hLogger = provider.hLogger;
    ASSERT_TRUE(Stop());
    EXPECT_TRUE(Within([&] { return provider.hLogger == 0 && provider.dwFlags == 0; }));
    EXPECT_EQ(ERROR_INVALID_HANDLE, TraceMessage(hLogger, MESSAGE_FLAGS, &MESSAGE_GUID, 10, nullptr, size_t{0}));
    EXPECT_FALSE(Stop()) << "it is off";
    EXPECT_EQ(3u, provider.nCalls);
    EXPECT_FALSE(hosted::StartTraceSession(m_sMachine.c_str(), "../outside", 5, 1));
}

TEST_F(EventTracing, ASessionMayNameItsProviders)
{
    ASSERT_TRUE(Start(5, 1)); // makes the folder
    ASSERT_TRUE(Stop());
    std::ofstream(hosted::TraceSessionFile(m_sMachine.c_str(), "a-other"))
        << "{99999999-0000-0000-0000-000000000000} 5 1\n";
    std::ofstream(hosted::TraceSessionFile(m_sMachine.c_str(), "test"))
        << "garbage\n{12345678-1234-ABCD-0102-030405060708} 3 0x10\n";
    Provider provider;
    EXPECT_EQ(0x10u, provider.dwFlags);
    EXPECT_EQ(3u, provider.dwLevel);
}

TEST_F(EventTracing, AMessageIsOneReadableLine)
{
    ASSERT_TRUE(Start(5, 2));
    Provider       provider;
    const uint32_t nRead = 1584, nMore = 255;
    TraceMessage(provider.hLogger, MESSAGE_FLAGS, &MESSAGE_GUID, 10, "Name", size_t{5}, "two\r\nlines\x01", size_t{12},
                 nullptr, size_t{0});
    TraceMessage(provider.hLogger, MESSAGE_FLAGS, &MESSAGE_GUID, 16, "Name", size_t{5}, &nMore, size_t{4}, &nRead,
                 size_t{4}, nullptr, size_t{0});
    TraceMessage(provider.hLogger, MESSAGE_FLAGS, &MESSAGE_GUID, 99, "AB", size_t{3}, &nMore, size_t{4}, nullptr,
                 size_t{0});
    const std::vector<std::string> aLines = Log();
    ASSERT_EQ(3u, aLines.size());
    EXPECT_TRUE(aLines[0].ends_with(" 1 eab78ba6/10: Name: two\\r\\nlines\\x01")) << aLines[0];
    EXPECT_TRUE(aLines[1].ends_with(" 2 eab78ba6/16: Name 0xFF 1584 (1584 of 100%)")) << aLines[1];
    EXPECT_TRUE(aLines[2].ends_with(" 3 eab78ba6/99: <414200> <FF000000> ")) << aLines[2];
}

TEST_F(EventTracing, LinesOfManyThreadsStayWholeWhileTheSessionIsSwitched)
{
    ASSERT_TRUE(Start(5, 2));
    Provider                 provider;
    std::atomic<int>         nAccepted{0};
    std::vector<std::thread> aThreads;
    for (int nThread = 0; nThread < 4; nThread++)
        aThreads.emplace_back([&, nThread] {
            const std::string sText(500, static_cast<char>('a' + nThread));
            for (int i = 0; i < 500; i++)
                if (TraceMessage(provider.hLogger, MESSAGE_FLAGS, &MESSAGE_GUID, 10, "Name", size_t{5}, sText.c_str(),
                                 sText.size() + 1, nullptr, size_t{0}) == 0)
                    ++nAccepted;
        });
    Stop();
    Start(5, 2);
    for (std::thread &thread : aThreads) thread.join();
    const std::vector<std::string> aLines = Log();
    EXPECT_EQ(static_cast<size_t>(nAccepted), aLines.size());
    for (const std::string &sLine : aLines) {
        const size_t nText = sLine.find("/10: Name: ");
        ASSERT_NE(std::string::npos, nText) << sLine;
        EXPECT_EQ(std::string(500, sLine.back()), sLine.substr(nText + 11));
    }
}

TEST_F(EventTracing, DebugOutputIsLoggedWhenSwitchedOn)
{
    OutputDebugStringA("nobody listens");
    EXPECT_TRUE(Lines(hosted::DebugLogFile(m_sMachine.c_str())).empty());
    ASSERT_TRUE(hosted::SwitchDebugOutput(m_sMachine.c_str(), true));
    EXPECT_TRUE(Within([&] { // noticed within a second
        OutputDebugStringA("line\r\n");
        return !Lines(hosted::DebugLogFile(m_sMachine.c_str())).empty();
    }));
    const std::string sLine = Lines(hosted::DebugLogFile(m_sMachine.c_str())).front();
    EXPECT_TRUE(sLine.ends_with(" line")) << sLine;
}
