// The client's side: one attempt's status codes, the search for servers with its fallback, and its cancellation.
#include "platform/hosted/control.h"
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/net_fixture.h"
#include <fstream>

using namespace platform;

namespace {

// A server that reads a password from each connection and sends back what it is told to.
class FakeServer
{
public:
    explicit FakeServer(std::vector<std::string> aAnswers) : m_hListen(ListenOnLoopback(&m_nPort))
    {
        m_thread = std::thread([this, aAnswers] {
            for (const std::string &sAnswer : aAnswers) {
                Peer peer(accept(m_hListen, nullptr, nullptr));
                if (peer.Socket() == INVALID_SOCKET) return;
                m_sPassword = peer.Receive(10);
                if (!sAnswer.empty()) peer.Send(sAnswer);
                m_aPeers.push_back(std::move(peer));
            }
        });
    }
    ~FakeServer()
    {
        closesocket(m_hListen);
        m_thread.join();
    }
    std::string Port() const { return std::to_string(ntohs(m_nPort)); }
    std::string m_sPassword; // read after the attempt has ended

private:
    uint16_t          m_nPort = 0;
    SOCKET            m_hListen;
    std::vector<Peer> m_aPeers;
    std::thread       m_thread;
};

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

std::string LastClient(const char *pszKey)
{
    char szValue[ADDRESS_BYTES];
    ReadSetting("LastClient", pszKey, szValue, sizeof szValue);
    return szValue;
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
        {"PWACK=1", "connect", WSAECONNREFUSED, -3},
        {"PWACK=1", "CreateThread", ERROR_NOT_ENOUGH_MEMORY, -300},
        {"PWACK=1", "send", WSAECONNRESET, -4},
        {"PWACK=0", nullptr, 0, -6},
        {"PWACK=1xx", nullptr, 0, -6},
        {"", nullptr, 0, -5},
        {"PWACK=1", nullptr, 0, 0},
        {"pwack=1", nullptr, 0, 0},
    };
    hosted::SetSocketTimeout(300);
    for (const auto &c : aCases) {
        const int nHandles = hosted::OpenHandles(), nSockets = hosted::OpenSockets(), nStarts = hosted::WinsockStarts();
        {
            FakeServer server({*c.pszAnswer != '\0' ? Field(c.pszAnswer) : ""});
            hosted::ClearFaults();
            if (c.pszCall != nullptr) hosted::FailCall(c.pszCall, 1, c.dwError);
            EXPECT_EQ(c.nExpected, ClientInit("127.0.0.1", "secret", server.Port().c_str())) << c.pszAnswer;
            if (c.nExpected == 0) {
                EXPECT_EQ(Field("secret"), server.m_sPassword);
                EXPECT_EQ("127.0.0.1 " + server.Port() + " secret",
                          LastClient("ServerIP") + ' ' + LastClient("Port") + ' ' + LastClient("PW"));
            }
            EndLink();
        }
        EXPECT_TRUE(Eventually([&] { return nHandles == hosted::OpenHandles(); })) << c.pszAnswer;
        EXPECT_EQ(nSockets, hosted::OpenSockets()) << c.pszAnswer;
        EXPECT_EQ(nStarts, hosted::WinsockStarts()) << c.pszAnswer;
    }
    g_bServer = 1;
    EXPECT_EQ(-201, ClientInit("", "", ""));
    EXPECT_EQ(-201, ClientInitEnum(""));
    EXPECT_EQ(0, g_bClientEnuming);
    g_bServer = 0;
}

TEST_F(ClientRole, TriesEveryServerFoundUntilOneAdmits)
{
    FakeServer       refuses({Field("PWACK=0")}), admits({Field("PWACK=1")});
    DiscoveryProgram program(FoundLines({"1", refuses.Port(), admits.Port(), "2"}));
    WriteSetting("ServerEnum", "Count", "1"); // stale: cleared before the search
    WriteSetting("ServerEnum", "1", "127.0.0.1");
    EXPECT_EQ(0, ClientInitEnum("123456"));
    EXPECT_EQ(admits.Port(), LastClient("Port"));
    EXPECT_EQ(1, g_bClient);
    EXPECT_EQ(0, g_bClientEnuming);
    EXPECT_TRUE(Eventually([&] { return program.RunsOf("client") == 1 && program.RunsOf("stop") == 1; }))
        << program.Runs();
}

TEST_F(ClientRole, FindsNothingAndEndsAfterTheSearch)
{
    DiscoveryProgram program("");
    hosted::SetClockRate(100);
    const uint64_t ullStart = GetTickCount64();
    EXPECT_EQ(1111, ClientInitEnum("123456"));
    EXPECT_GE(GetTickCount64() - ullStart, 16000u);
    EXPECT_EQ(0, hosted::CallCount("connect"));
    EXPECT_EQ(0, g_bClient);
    EXPECT_EQ(nullptr, g_hClientExitEvent.load());
}

TEST_F(ClientRole, ACountWithoutAddressesMeansTheLastServerOnce)
{
    FakeServer       last({Field("PWACK=1")});
    DiscoveryProgram program("Count=2000000000\\r\\n");
    WriteSetting("LastClient", "ServerIP", "127.0.0.1");
    WriteSetting("LastClient", "Port", last.Port().c_str());
    EXPECT_EQ(0, ClientInitEnum("123456"));
    EXPECT_EQ(1, hosted::CallCount("connect"));
    ClientUninit();
    WriteSetting("LastClient", "Port", "1"); // where nobody listens
    const int nBefore = hosted::CallCount("connect");
    hosted::SetClockRate(100);
    EXPECT_NE(0, ClientInitEnum("123456"));
    EXPECT_LE(hosted::CallCount("connect") - nBefore, 20); // a round, an attempt
}

TEST_F(ClientRole, ResultsOfTheLastRoundStillCount)
{
    FakeServer late({Field("PWACK=1")});
    hosted::SetSocketTimeout(5000); // of real time, whatever the clock does
    hosted::SetClockRate(20);
    hosted::KeepDebugOutput(true);
    g_bSocketDebug              = 1;
    std::future<int32_t> status = std::async(std::launch::async, [] { return ClientInitEnum("1"); });
    std::string          sLog;
    EXPECT_TRUE(Eventually([&] {
        sLog += hosted::TakeDebugOutput();
        const std::string sNone   = "[ClientEnumCheck] discover count 0\n";
        int               nRounds = 0;
        for (size_t n = 0; (n = sLog.find(sNone, n)) != sLog.npos; n++) nRounds++;
        if (nRounds >= 10) hosted::SetClockRate(2); // the moment between the last two rounds is not to be missed
        return nRounds == 15;
    }));
    WriteSetting("ServerEnum", "1", "127.0.0.1");
    WriteSetting("ServerEnum", "1_port", late.Port().c_str());
    WriteSetting("ServerEnum", "Count", "1");
    EXPECT_EQ(0, status.get());
    g_bSocketDebug = 0;
    hosted::KeepDebugOutput(false);
}

TEST_F(ClientRole, AdaptersArePresentAbsentOrFailing)
{
    static const char WIRELESS[] = "count = 2\n1_kind = wired\n1_up = 0\n1_address = 192.168.1.9\n"
                                   "1_dhcp = 192.168.1.1\n2_kind = wireless\n2_address = 10.1.2.3\n";
    static const std::string WITH_DHCP = std::string(WIRELESS) + "2_dhcp = 10.1.2.1\n";
    static const struct {
        const char *pszWhat;
        std::string sAdapters;
        const char *pszCall;
        int         nth;
        int32_t     nExpected;
        const char *pszLocalIP, *pszLine; // the line that is logged, if any
        bool        bWired;
    } aCases[] = {
        {"wireless present", WITH_DHCP, nullptr, 0, 0, "10.1.2.3",
         "[GetDhcpServerIPAddr] Local IP:[10.1.2.3].\n[GetDhcpServerIPAddr] Host IP:[10.1.2.1].\n", false},
        {"static address", WIRELESS, nullptr, 0, 0, "", "", false},
        {"wired alone", "count = 1\n1_kind = wired\n1_dhcp = 10.1.2.1\n", nullptr, 0, 0, "", "", true},
        {"wireless up is not wired", "count = 1\n1_kind = wireless\n", nullptr, 0, 0, "", "", false},
        {"no adapter", "count = 0\n", nullptr, 0, 0, "", "", false},
        {"no wireless service", "wireless_service = off\n" + WITH_DHCP, nullptr, 0, 1, "", "", false},
        {"list fails", WITH_DHCP, "WlanEnumInterfaces", 1, 1, "", "", false},
        {"first query fails", WITH_DHCP, "GetAdaptersInfo", 1, 0, "",
         "[GetDhcpServerIPAddr] GetAdaptersInfo failed with error: [50].\n", false},
        {"second query fails", WITH_DHCP, "GetAdaptersInfo", 2, 0, "",
         "[GetDhcpServerIPAddr] GetAdaptersInfo failed with error: [50].\n", false},
        {"table fails", "count = 1\n1_kind = wired\n", "GetIfTable2", 1, 0, "", "", false},
    };
    hosted::KeepDebugOutput(true);
    for (const auto &c : aCases) {
        FreshMachine();
        SetAdapters(c.sAdapters);
        const int nBlocks = hosted::LiveBlocks();
        g_szLocalIP[0] = g_szLocalIPPrefix[0] = '\0';
        if (c.pszCall != nullptr) hosted::FailCall(c.pszCall, c.nth, ERROR_NOT_SUPPORTED);
        hosted::TakeDebugOutput();
        g_bSocketDebug = 1;
        EXPECT_EQ(c.nExpected, GetDhcpServerIPAddr()) << c.pszWhat;
        EXPECT_STREQ(c.pszLine, hosted::TakeDebugOutput()) << c.pszWhat;
        EXPECT_EQ(c.bWired, GetCurrentIPFromEthernetAdapter()) << c.pszWhat;
        g_bSocketDebug = 0;
        EXPECT_STREQ(c.pszLocalIP, g_szLocalIP) << c.pszWhat;
        EXPECT_STREQ(*c.pszLocalIP != '\0' ? "10" : "", g_szLocalIPPrefix) << c.pszWhat;
        EXPECT_EQ(nBlocks, hosted::LiveBlocks()) << c.pszWhat;
    }
    hosted::KeepDebugOutput(false);
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
        FreshMachine();
        GetConfigPath();
        hosted::SetClockRate(100);
        SetAdapters(std::string(pszWireless) + c.pszWiredUp + "\n");
        WriteSetting("LastClient", "ServerIP", c.pszAddress);
        hosted::FailCall("connect", 1, WSAECONNREFUSED, true);
        hosted::KeepDebugOutput(true);
        g_bSocketDebug = 1;
        EXPECT_EQ(1111, ClientInitEnum("")) << "the search's status, not the fallback's";
        g_bSocketDebug          = 0;
        const std::string sLog  = hosted::TakeDebugOutput();
        const std::string sNone = "[ClientEnumCheck] discover count 0\n";
        EXPECT_NE(std::string::npos, sLog.find(sNone)) << sLog;
        EXPECT_EQ(sLog.rfind(sNone), sLog.find(sNone, sLog.find(sNone) + 1)) << "without a password two rounds";
        EXPECT_NE(std::string::npos, sLog.find("[ClientInitEnum] lpszPW empty case, break to try default.\n"));
        const std::string sStatus = c.nAttempts != 0 ? "-3" : "1111"; // the fallback's is in the log alone
        EXPECT_NE(std::string::npos, sLog.find("[ClientInitEnum] create failed, call uninit, nErr[" + sStatus + "]\n"));
        hosted::KeepDebugOutput(false);
        EXPECT_EQ(c.nAttempts, hosted::CallCount("connect")) << c.pszAddress << c.pszWiredUp;
        EXPECT_STREQ("10.1.2.3", g_szLocalIP);
    }
    hosted::ClearFaults();
}

TEST_F(ClientRole, TheLastServerAdmitsWithItsStoredPassword)
{
    FakeServer server({Field("PWACK=1")});
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
        const int        nHandles = hosted::OpenHandles();
        FakeServer       mute({""});
        DiscoveryProgram program(nWait == ATTEMPT ? FoundLines({mute.Port()}) : "");
        hosted::SetSocketTimeout(300);
        hosted::SetClockRate(nWait == FALLBACK ? 20 : 1);
        WriteSetting("LastClient", "ServerIP", nWait == FALLBACK ? "127.0.0.1" : "");
        WriteSetting("LastClient", "Port", mute.Port().c_str());
        std::future<int32_t> status =
            std::async(std::launch::async, [nWait] { return ClientInitEnum(nWait == FALLBACK ? "" : "9"); });
        if (nWait == BEGINNING)
            while (!g_bClientEnuming) std::this_thread::yield();
        EXPECT_TRUE(Eventually([&] {
            if (nWait == BEGINNING) return true;
            return nWait == SEARCH ? g_bClient != 0 : g_hClientExitEvent != nullptr;
        }));
        ClientUninit();
        EXPECT_EQ(9999, status.get()) << nWait;
        EXPECT_EQ(0, g_bClient) << nWait << ": the role does not come back";
        EXPECT_EQ(nHandles, hosted::OpenHandles()) << nWait;
    }
}

TEST_F(ClientRole, ASecondSearchWaitsForTheFirstToEnd)
{
    DiscoveryProgram program;
    hosted::KeepDebugOutput(true);
    g_bSocketDebug             = 1;
    std::future<int32_t> first = std::async(std::launch::async, [] { return ClientInitEnum("1"); });
    EXPECT_TRUE(Eventually([&] { return program.Runs() != ""; }));
    std::future<int32_t> second = std::async(std::launch::async, [] { return ClientInitEnum("2"); });
    std::string          sLog;
    const auto           logged = [&](const char *psz) {
        return (sLog += hosted::TakeDebugOutput()).find(psz) != sLog.npos;
    };
    EXPECT_TRUE(Eventually([&] { return logged("[ClientInitEnum] Wait last enum begin\n"); }));
    ClientUninit();
    EXPECT_EQ(9999, first.get());
    EXPECT_TRUE(Eventually([&] { return logged("[ClientInitEnum] PW[2]\n"); }));
    EXPECT_LT(sLog.find("[ClientInitEnum] Wait last enum end["), sLog.find("[ClientInitEnum] PW[2]\n"));
    EXPECT_LT(sLog.find("[ClientInitEnum] g_bStopClientEnum.\n"), sLog.find("[ClientInitEnum] PW[2]\n"));
    ClientUninit();
    EXPECT_EQ(9999, second.get());
    g_bSocketDebug = 0;
    hosted::KeepDebugOutput(false);
}
