// The client's side: one attempt's status codes, the search for servers with its fallback, and its cancellation.
#include "net/adapter_queries.h"
#include "net/client_discovery.h"
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

namespace {

std::string FoundLines(const std::vector<std::string> &aPorts)
{
    std::string sLines = "Count=" + std::to_string(aPorts.size()) + "\\r\\n";
    for (size_t i = 0; i < aPorts.size(); i++)
        sLines += std::to_string(i + 1) + "=127.0.0.1\\r\\n" + std::to_string(i + 1) + "_port=" + aPorts[i] + "\\r\\n";
    return sLines;
}

void SetAdapters(const std::string &sText)
{
    const std::string sFile = std::string(hosted::MachineFolder()) + "/machine.ini";
    std::ofstream(sFile, std::ios::app) << "\n[adapters]\n" << sText;
}

} // namespace

using ClientRole = NetTest;

TEST_F(ClientRole, OneAttemptHasAStatusForEachStep)
{
    static const struct {
        const char *pszAnswer, *pszCall;
        uint32_t    dwError;
        int32_t     nExpected;
    } aCases[] = {
        {"PWACK=1", "CreateEventW", ERROR_ACCESS_DENIED, -300},
        {"PWACK=1", "getaddrinfo", WSAHOST_NOT_FOUND, -1},
        {"PWACK=1", "socket", WSAEMFILE, -2},
        {"PWACK=1", "connect", WSAECONNREFUSED, -3},
        {"PWACK=1", "CreateThread", ERROR_NOT_ENOUGH_MEMORY, -300},
        {"PWACK=1", "send", WSAECONNRESET, -4},
        {"", nullptr, 0, -5},
        {"pwack=1", nullptr, 0, 0},
    };
    hosted::SetSocketTimeout(300);
    for (const auto &c : aCases) {
        const Open before = OpenNow();
        {
            FakeServer server(c.pszAnswer);
            hosted::ClearFaults();
            if (c.pszCall != nullptr) hosted::FailCall(c.pszCall, 1, c.dwError);
            EXPECT_EQ(c.nExpected, ClientInit("127.0.0.1", "secret", server.Port().c_str())) << c.nExpected;
            EndLink();
        }
        EXPECT_TRUE(IsOpenAsBefore(before)) << c.nExpected;
    }
    g_bServer = 1;
    EXPECT_EQ(-201, ClientInit("", "", ""));
    EXPECT_EQ(-201, ClientInitEnum(""));
    EXPECT_EQ(0, g_bClientEnuming);
    g_bServer = 0;
}

TEST_F(ClientRole, TriesEveryServerFoundUntilOneAdmits)
{
    FakeServer       refuses("PWACK=0"), admits("PWACK=1");
    DiscoveryProgram program(FoundLines({"1", refuses.Port(), admits.Port(), "2"}));
    DebugLog         log;
    WriteSetting("ServerEnum", "Count", "1"); // stale: cleared before the search
    WriteSetting("ServerEnum", "1", "127.0.0.1");
    hosted::SetSocketTimeout(5000); // of real time, whatever the clock does
    hosted::SetClockRate(20);       // the first round comes before the results
    EXPECT_EQ(0, ClientInitEnum("123456"));
    EXPECT_TRUE(log.Has("[ClientEnumCheck] discover count 0\n"));
    EXPECT_EQ(admits.Port(), Setting("LastClient", "Port"));
    EXPECT_EQ(1, g_bClient);
    EXPECT_EQ(0, g_bClientEnuming);
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("client") == 1 && program.RunsOf("stop") == 1; }))
        << program.Runs();
}

TEST_F(ClientRole, ASearchWithoutSuccessEndsAfterSixteenRounds)
{
    static const struct {
        const char *pszFound, *pszLastServer;
        int32_t     nExpected;
    } aCases[] = {{"", "", 1111}, {"Count=2000000000\\r\\n", "127.0.0.1", -3}};
    hosted::SetClockRate(20);
    for (const auto &c : aCases) {
        DiscoveryProgram program(c.pszFound);
        DebugLog         log;
        WriteSetting("LastClient", "ServerIP", c.pszLastServer);
        WriteSetting("LastClient", "Port", "1"); // where nobody listens
        hosted::ClearFaults();
        EXPECT_EQ(c.nExpected, ClientInitEnum("123456"));
        EXPECT_EQ(16, log.Count("[ClientEnumCheck] ServerEnum count [")) << log.Text();
        // A count without addresses means the last server, once a round.
        EXPECT_EQ(log.Count("] ServerEnum count [2000000000][2000000000]"), hosted::CallCount("connect"));
        EXPECT_EQ(*c.pszFound != '\0', hosted::CallCount("connect") > 0);
        EXPECT_EQ(0, g_bClient);
        EXPECT_EQ(nullptr, g_hClientExitEvent.load());
    }
}

TEST_F(ClientRole, TheFallbackFollowsTheAdapters)
{
    static const char *const pszWireless =
        "count = 2\n1_kind = wireless\n1_address = 10.1.2.3\n1_dhcp = 10.1.2.1\n2_kind = wired\n2_up = ";
    static const struct {
        const char *pszAddress, *pszWiredUp;
        int         nAttempts;
    } aCases[] = {{"10.0.0.5", "0", 1}, {"192.168.1.9", "0", 0}, {"192.168.1.9", "1", 1}};
    for (const auto &c : aCases) {
        const Open before = OpenNow();
        FreshMachine();
        GetConfigPath();
        hosted::SetClockRate(100);
        SetAdapters(std::string(pszWireless) + c.pszWiredUp + "\n");
        WriteSetting("LastClient", "ServerIP", c.pszAddress);
        hosted::FailCall("connect", 1, WSAECONNREFUSED, true);
        DebugLog log;
        EXPECT_EQ(1111, ClientInitEnum("")) << "the search's status, not the fallback's";
        EXPECT_EQ(2, log.Count("[ClientEnumCheck] discover count 0\n")) << "without a password two rounds";
        const std::string sStatus = c.nAttempts != 0 ? "-3" : "1111"; // the fallback's is in the log alone
        EXPECT_TRUE(log.Has("[ClientInitEnum] create failed, call uninit, nErr[" + sStatus + "]\n")) << log.Text();
        EXPECT_EQ(c.nAttempts, hosted::CallCount("connect")) << c.pszAddress << c.pszWiredUp;
        EXPECT_TRUE(IsOpenAsBefore(before)) << c.pszAddress << c.pszWiredUp;
    }
    hosted::FailCall("GetIfTable2", 1, ERROR_NOT_SUPPORTED);
    EXPECT_FALSE(GetCurrentIPFromEthernetAdapter());
}

TEST_F(ClientRole, TheLastServerAdmitsWithItsStoredPassword)
{
    FakeServer server("PWACK=1");
    SetAdapters("count = 1\n1_kind = wired\n1_up = 1\n");
    WriteSetting("LastClient", "ServerIP", "127.0.0.1");
    WriteSetting("LastClient", "Port", server.Port().c_str());
    WriteSetting("LastClient", "PW", "stored");
    hosted::SetClockRate(50);
    EXPECT_EQ(0, ClientInitEnum(""));
    EXPECT_EQ(Field("stored"), server.m_sPassword);
}

TEST_F(ClientRole, AStopCancelsWaitsAndAttempts)
{
    enum { BEGINNING, SEARCH, ATTEMPT, FALLBACK };
    SetAdapters("count = 1\n1_kind = wired\n1_up = 1\n");
    for (const int nWait : {BEGINNING, SEARCH, ATTEMPT, FALLBACK}) {
        const Open before = OpenNow();
        {
            FakeServer       mute("");
            DiscoveryProgram program(nWait == ATTEMPT ? FoundLines({mute.Port()}) : "");
            hosted::SetSocketTimeout(300);
            hosted::SetClockRate(nWait == FALLBACK ? 20 : 1);
            WriteSetting("LastClient", "ServerIP", nWait == FALLBACK ? "127.0.0.1" : "");
            WriteSetting("LastClient", "Port", mute.Port().c_str());
            std::future<int32_t> status =
                std::async(std::launch::async, [nWait] { return ClientInitEnum(nWait == FALLBACK ? "" : "9"); });
            EXPECT_TRUE(Eventually([&] {
                if (nWait == BEGINNING) return g_bClientEnuming != 0;
                return nWait == SEARCH ? g_bClient != 0 : g_hClientExitEvent != nullptr;
            }));
            ClientUninit();
            EXPECT_EQ(9999, status.get()) << nWait;
            EXPECT_EQ(0, g_bClient) << nWait << ": the role does not come back";
        }
        EXPECT_TRUE(IsOpenAsBefore(before)) << nWait;
    }
}
