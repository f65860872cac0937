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
    EXPECT_EQ("[Init]\r\nInit=\r\n",
              ReadTestFile(u"C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat"));
    WriteSetting("LastServer", "Port", "12345678901");
    GetConfigPath(); // a file that is there stays
    char szPort[PORT_BYTES];
    ReadSetting("LastServer", "Port", szPort, sizeof szPort);
    EXPECT_STREQ("123456789", szPort) << "cut to the field";
}

TEST_F(Settings, WithoutTheCommonFolderTheFixedPathCounts)
{
    hosted::FailCall("SHGetSpecialFolderPathA", 1, ERROR_PATH_NOT_FOUND);
    DebugLog log;
    GetConfigPath();
    EXPECT_STREQ("C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", g_szConfigPath);
    EXPECT_EQ("[VnNetSocket][Notify]SHGetSpecialFolderPathA failed! -> GetConfigPath\r\n"
              "[GetConfigPath] g_szConfigPath path is [" + std::string(g_szConfigPath) + "]\n"
              "[GetConfigPath] g_szmDNSPath path is [" + g_szmDNSPath + "]\n",
              log.Text());
}

TEST_F(Settings, SharedFilesBelongToEveryoneAndFailuresLeaveNothing)
{
    const std::u16string sPath = TestFolder() + u"\\shared.ini";
    ASSERT_EQ(1, CreateSharedFile(sPath.c_str()));
    const HANDLE hFile = CreateFileW(sPath.c_str(), GENERIC_READ | READ_CONTROL, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    uint32_t     dwAccess = 0, nEntries = 0;
    EXPECT_TRUE(ReadEveryoneAccess(hFile, SecuredObject::File, &dwAccess, &nEntries));
    EXPECT_EQ(0x1F01FFu, dwAccess);
    EXPECT_EQ(1u, nEntries);
    CloseHandle(hFile);
    WriteTestFile(sPath, "old content");
    EXPECT_EQ(1, CreateSharedFile(sPath.c_str()));
    EXPECT_EQ("", ReadTestFile(sPath));
    const Open before = OpenNow();
    EXPECT_EQ(0, CreateSharedFile(u"C:\\no such folder\\shared.ini"));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());
    EXPECT_TRUE(IsOpenAsBefore(before));
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
