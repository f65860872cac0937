// Socket.dat, the debug setting, and how the discovery program is run.
#include "platform/hosted/control.h"
#include "platform/profile.h"
#include "platform/security.h"
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/net_fixture.h"
#include <fstream>

using namespace platform;

namespace {

void SetRegistry(const std::string &sText)
{
    std::ofstream(std::string(hosted::MachineFolder()) + "/registry.ini") << sText;
}

} // namespace

using Settings = MachineTest;

TEST_F(Settings, TheFirstStartMakesTheFolderAndAFileThatHoldsOnlyInit)
{
    GetConfigPath();
    EXPECT_STREQ("C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", g_szConfigPath);
    const std::string sContent = ReadTestFile(u"C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat");
    EXPECT_EQ("[Init]\r\nInit=\r\n", sContent);
    WriteSetting("LastServer", "Port", "12345678901");
    GetConfigPath(); // a file that is there stays
    char szPort[PORT_BYTES];
    ReadSetting("LastServer", "Port", szPort, sizeof szPort);
    EXPECT_STREQ("123456789", szPort) << "cut to the field";
}

TEST_F(Settings, TheCommonFolderIsWhereThisMachineHasItAndIsMadeWhenMissing)
{
    std::ofstream(std::string(hosted::MachineFolder()) + "/machine.ini") << "[folders]\nProgramData=C:\\Common\\Data\n";
    EXPECT_FALSE(PathExists(u"C:\\Common"));
    GetConfigPath();
    EXPECT_STREQ("C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", g_szConfigPath);
    EXPECT_TRUE(PathExists(u"C:\\Common\\Data\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat"));
}

TEST_F(Settings, WithoutTheCommonFolderTheFixedPathCounts)
{
    hosted::FailCall("SHGetSpecialFolderPathA", 1, ERROR_PATH_NOT_FOUND);
    hosted::KeepDebugOutput(true);
    g_bSocketDebug = 1;
    GetConfigPath();
    g_bSocketDebug = 0;
    EXPECT_STREQ("C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat", g_szConfigPath);
    EXPECT_EQ("[VnNetSocket][Notify]SHGetSpecialFolderPathA failed! -> GetConfigPath\r\n"
              "[GetConfigPath] g_szConfigPath path is [" + std::string(g_szConfigPath) + "]\n"
              "[GetConfigPath] g_szmDNSPath path is [" + g_szmDNSPath + "]\n",
              hosted::TakeDebugOutput());
    hosted::KeepDebugOutput(false);
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
    const int nBlocks = hosted::LiveBlocks(), nHandles = hosted::OpenHandles();
    EXPECT_EQ(0, CreateSharedFile(u"C:\\no such folder\\shared.ini"));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());
    EXPECT_EQ(nBlocks, hosted::LiveBlocks());
    EXPECT_EQ(nHandles, hosted::OpenHandles());
}

TEST_F(Settings, TheIniSettingCountsOnlyBesideTheRegistryValue)
{
    static const struct {
        const char *pszRegistry, *pszIni;
        bool        bFound;
        int         nFlag;
    } aCases[] = {
        {"", "1", false, 0},
        {"[HKEY_LOCAL_MACHINE\\Software\\VORN\\VORN Tramsa]\nSocketDebug=dword:00000000\n", "1", true, 1},
        {"[HKEY_LOCAL_MACHINE\\Software\\VORN\\VORN Tramsa]\nSocketDebug=dword:00000000\n", "0", true, 0},
        {"[HKEY_LOCAL_MACHINE\\Software\\VORN\\VORN Tramsa]\nSocketDebug=dword:00000001\n", "0", true, 1},
        {"[HKEY_LOCAL_MACHINE\\Software\\VORN\\VORN Tramsa]\nOther=dword:00000001\n", "1", false, 0},
    };
    GetConfigPath();
    for (const auto &c : aCases) {
        g_bSocketDebug = 0;
        SetRegistry(c.pszRegistry);
        WriteSetting("Debug", "SocketDebug", c.pszIni);
        EXPECT_EQ(c.bFound, SocketDebugInit()) << c.pszRegistry;
        EXPECT_EQ(c.nFlag, g_bSocketDebug) << c.pszRegistry << c.pszIni;
    }
    g_bSocketDebug = 1; // once on, it stays
    SetRegistry("");
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
