// Socket.dat, the debug setting, and how the discovery program is run.
#include "platform/security.h"
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

using Settings = MachineTest;

TEST_F(Settings, TheFirstStartMakesTheFolderAndAFileThatHoldsOnlyInit)
{
    std::ofstream(std::string(hosted::MachineFolder()) + "/machine.ini") << "[folders]\nProgramData=C:\\Common\\Data\n";
    EXPECT_FALSE(PathExists(u"C:\\Common"));
    GetConfigPath();
    EXPECT_STREQ("C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", g_szConfigPath);
    EXPECT_EQ("[Init]\r\nInit=\r\n", ReadTestFile(u"C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat"));
    WriteSetting("LastServer", "Port", "12345678901");
    GetConfigPath(); // a file that is there stays
    char szPort[PORT_BYTES];
    ReadSetting("LastServer", "Port", szPort, sizeof(szPort));
    EXPECT_STREQ("123456789", szPort) << "cut to the field";
    WriteTestFile(u"C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", std::string(300000, '\n'));
    GetConfigPath(); // one that would keep each start busy does not
    EXPECT_EQ("[Init]\r\nInit=\r\n", ReadTestFile(u"C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat"));
}

TEST_F(Settings, TheIniSettingCountsOnlyBesideTheRegistryValue)
{
    static const struct {
        const char *pszValue, *pszIni;
        bool        bFound;
        int         nFlag;
    } aCases[] = {
        {"Other=dword:00000001", "1", false, 0},
        {"SocketDebug=dword:00000000", "1", true, 1},
        {"SocketDebug=dword:00000000", "0", true, 0},
        {"SocketDebug=dword:00000001", "0", true, 1},
    };
    const std::string sRegistry = std::string(hosted::MachineFolder()) + "/registry.ini";
    GetConfigPath();
    EXPECT_FALSE(SocketDebugInit());
    for (const auto &c : aCases) {
        g_bSocketDebug = 0;
        std::ofstream(sRegistry) << "[HKEY_LOCAL_MACHINE\\Software\\VORN\\VORN Tramsa]\n" << c.pszValue << '\n';
        WriteSetting("Debug", "SocketDebug", c.pszIni);
        EXPECT_EQ(c.bFound, SocketDebugInit()) << c.pszValue;
        EXPECT_EQ(c.nFlag, g_bSocketDebug) << c.pszValue << c.pszIni;
    }
    std::ofstream(sRegistry) << ""; // once on, it stays
    EXPECT_FALSE(SocketDebugInit());
    EXPECT_EQ(1, g_bSocketDebug);
    g_bSocketDebug = 0;
}

TEST_F(Settings, TheDiscoveryProgramIsRunWithItsParametersOrReportedMissing)
{
    GetConfigPath();
    EXPECT_EQ(0, RunDiscoveryHelper("stop")) << "there is none yet";
    DiscoveryProgram program;
    EXPECT_EQ(1, RunDiscoveryServer());
    EXPECT_TRUE(Eventually([&] {
        return program.Runs() == "server C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat\n";
    })) << program.Runs();
    hosted::RemoveFunction("shell32.dll", "ShellExecuteA");
    EXPECT_EQ(0, RunDiscoveryHelper("stop"));
    hosted::RemoveLibrary("shell32.dll");
    EXPECT_EQ(0, RunDiscoveryHelper("stop"));
}
