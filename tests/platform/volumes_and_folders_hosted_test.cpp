// volumes_and_folders_hosted_test.cpp: what machine.ini and registry.ini make of a machine, and the tool that writes
// them.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/registry.h"
#include "platform/security.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "platform/volumes.h"
#include "tests/support/test_machine.h"
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

using namespace platform;

namespace {

class HostedMachine : public MachineTest {
protected:
  void Ini(const std::string &sText) { std::ofstream(std::string(hosted::MachineFolder()) + "/machine.ini") << sText; }
};

const std::string g_sTool = std::string(VORN_TEST_FOLDER) + "/../tools/hosted-machine";

int Tool(const std::string &sArguments)
{
    const int nStatus = std::system((g_sTool + ' ' + sArguments + " >/dev/null 2>&1").c_str());
    return WEXITSTATUS(nStatus);
}

std::u16string Folder(const GUID &rfid)
{
    char16_t            *pszPath = nullptr;
    const HRESULT        nResult = SHGetKnownFolderPath(rfid, 0, nullptr, &pszPath);
    const std::u16string sPath   = nResult == S_OK ? pszPath : u"<none>";
    CoTaskMemFree(pszPath);
    return sPath;
}

} // namespace

TEST_F(HostedMachine, DrivesOfEveryKind)
{
    const std::string sFolder = hosted::MachineFolder();
    Ini("[machine]\ncomputer=PC\n[drives]\nC=fixed\nD=removable\nE=hotplug\nF=cdrom\nG=remote\n");
    for (const char ch : std::string("defg")) std::filesystem::create_directory(sFolder + "/drive_" + ch);
    EXPECT_EQ(0x7Cu, GetLogicalDrives());
    const struct {
        const char16_t *pszRoot;
        uint32_t        dwType;
        bool            bAnswers;
        BOOL            bMedia, bDevice;
    } aCases[] = {{u"C:\\", DRIVE_FIXED, true, 0, 0},     {u"d:\\", DRIVE_REMOVABLE, true, 1, 1},
                  {u"E:\\", DRIVE_FIXED, true, 0, 1},     {u"F:\\", DRIVE_CDROM, true, 1, 0},
                  {u"G:\\", DRIVE_REMOTE, false, 0, 0},   {u"H:\\", DRIVE_NO_ROOT_DIR, false, 0, 0},
                  {u"C:", DRIVE_NO_ROOT_DIR, false, 0, 0}};
    for (const auto &c : aCases) {
        HotPlugInfo info;
        EXPECT_EQ(c.dwType, GetDriveTypeW(c.pszRoot));
        EXPECT_EQ(c.bAnswers, GetHotPlugInfo(c.pszRoot, &info));
        EXPECT_EQ(c.bMedia, info.bMediaRemovable);
        EXPECT_EQ(c.bDevice, info.bDeviceHotplug);
    }
    WriteTestFile(u"E:\\f", "x");
    EXPECT_FALSE(MoveFileExW(u"E:\\f", u"C:\\f", 0));
    EXPECT_EQ(17u, GetLastError());
    hosted::FailCall("GetHotPlugInfo", 1, 5);
    HotPlugInfo info;
    EXPECT_FALSE(GetHotPlugInfo(u"C:\\", &info));
}

TEST_F(HostedMachine, FoldersAndNamesComeFromItsFile)
{
    Ini("[machine]\ncomputer=ALT\nuser=änne\nsid=S-1-5-21-1-2-4294967295-1009\n[folders]\nDesktop=C:"
        "\\Schreibtisch\nPictures=\nDocuments=C:\\gone\n");
    ASSERT_TRUE(CreateDirectoryW(u"C:\\schreibtisch", nullptr));
    EXPECT_EQ(u"C:\\Schreibtisch", Folder(FOLDERID_Desktop));
    EXPECT_EQ(u"<none>", Folder(FOLDERID_Pictures)) << "an empty entry cannot be resolved";
    EXPECT_EQ(u"<none>", Folder(FOLDERID_Documents)) << "nor one that does not exist";
    EXPECT_EQ(u"C:\\ProgramData", Folder(FOLDERID_ProgramData));
    char16_t sz[260];
    uint32_t cch = 260;
    EXPECT_TRUE(GetComputerNameW(sz, &cch));
    EXPECT_EQ(std::u16string(u"ALT"), sz);
    cch = 260;
    EXPECT_TRUE(GetUserNameW(sz, &cch));
    EXPECT_EQ(std::u16string(u"änne"), sz);
    hosted::FailCall("SHGetKnownFolderPath", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(u"<none>", Folder(FOLDERID_Windows));
}

TEST_F(HostedMachine, AUserNamedLikeTheComputerNeedsTheDomain)
{
    const struct {
        const char     *pszMachine;
        const char16_t *pszAccount;
        bool            bFound;
        SID_NAME_USE    eUse;
        const char16_t *pszDomain, *pszSid;
    } aCases[] = {
        {"computer=PC\nuser=anna\n", u"ANNA", true, SidTypeUser, u"PC", u"S-1-5-21-7-8-9-1001"},
        {"computer=anna\nuser=anna\n", u"anna", true, SidTypeDomain, u"anna", u"S-1-5-21-7-8-9"},
        {"computer=anna\nuser=anna\n", u"anna\\anna", true, SidTypeUser, u"anna", u"S-1-5-21-7-8-9-1001"},
        {"computer=PC\nuser=anna\ndomain=CORP\n", u"anna", true, SidTypeUser, u"CORP", u"S-1-5-21-7-8-9-1001"},
        {"computer=PC\nuser=anna\ndomain=CORP\n", u"PC\\anna", false, SidTypeUnknown, u"", u""},
        {"computer=PC\nuser=anna\n", u"Everyone", true, static_cast<SID_NAME_USE>(5), u"", u"S-1-1-0"},
    };
    for (const auto &c : aCases) {
        Ini(std::string("[machine]\nsid=S-1-5-21-7-8-9-1001\n") + c.pszMachine);
        uint8_t      aSid[68];
        char16_t     szDomain[260], *pszSid = nullptr;
        uint32_t     cbSid = 68, cchDomain = 260;
        SID_NAME_USE eUse = SidTypeUnknown;
        ASSERT_EQ(c.bFound,
                  LookupAccountNameW(nullptr, c.pszAccount, aSid, &cbSid, szDomain, &cchDomain, &eUse) != FALSE)
            << c.pszMachine;
        if (!c.bFound) continue;
        EXPECT_EQ(c.eUse, eUse) << c.pszMachine;
        EXPECT_EQ(std::u16string(c.pszDomain), szDomain);
        ASSERT_TRUE(ConvertSidToStringSidW(aSid, &pszSid));
        EXPECT_EQ(std::u16string(c.pszSid), pszSid);
        LocalFree(pszSid);
    }
}

TEST_F(HostedMachine, RegistryValues)
{
    const int nBlocks = hosted::LiveBlocks();
    std::ofstream(std::string(hosted::MachineFolder()) + "/registry.ini")
        << "[HKEY_LOCAL_MACHINE\\SOFTWARE\\VORN\\Qelvane]\nSocketDebug=dword:0000001f\nName=text\n";
    HKEY     hKey = nullptr;
    uint32_t dwType = 0, dwValue = 0, cb = sizeof dwValue;
    EXPECT_EQ(0, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"software\\vorn", 0, KEY_QUERY_VALUE, &hKey));
    EXPECT_EQ(static_cast<int32_t>(ERROR_FILE_NOT_FOUND),
              RegQueryValueExW(hKey, u"SocketDebug", nullptr, &dwType, nullptr, &cb));
    EXPECT_EQ(0, RegCloseKey(hKey));
    ASSERT_EQ(
        0, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\VORN\\Qelvane", 0, KEY_QUERY_VALUE | KEY_WOW64_64KEY, &hKey));
    EXPECT_EQ(0, RegQueryValueExW(hKey, u"SOCKETDEBUG", nullptr, &dwType, reinterpret_cast<uint8_t *>(&dwValue), &cb));
    EXPECT_EQ(REG_DWORD, dwType);
    EXPECT_EQ(0x1Fu, dwValue);
    cb = 3;
    EXPECT_EQ(234,
              RegQueryValueExW(hKey, u"SocketDebug", nullptr, &dwType, reinterpret_cast<uint8_t *>(&dwValue), &cb));
    EXPECT_EQ(4u, cb);
    EXPECT_EQ(0, RegCloseKey(hKey));
    EXPECT_EQ(static_cast<int32_t>(ERROR_INVALID_HANDLE), RegCloseKey(hKey));
    EXPECT_EQ(nBlocks, hosted::LiveBlocks());
}

TEST_F(HostedMachine, TheToolMakesChecksAndRefuses)
{
    if (!std::filesystem::exists(g_sTool)) GTEST_SKIP() << "not built: " << g_sTool;
    const std::string sFolder = std::string(hosted::MachineFolder()) + "/made";
    EXPECT_EQ(0,
              Tool("create " + sFolder +
                   " --computer OLD --user anna --drive D:hotplug --folder 'Desktop=D:\\Tisch' --program " + g_sTool));
    EXPECT_TRUE(std::filesystem::exists(sFolder + "/drive_c/Program Files/VORN/VORN Qelvane/VornTramsaNet.exe"));
    EXPECT_EQ(0, Tool("check " + sFolder));
    EXPECT_EQ(0, Tool("describe " + sFolder));
    EXPECT_EQ(1, Tool("create " + sFolder)) << "a machine is not made twice";
    std::ofstream(sFolder + "/drive_c/Users/PUBLIC") << "x";
    EXPECT_EQ(1, Tool("check " + sFolder)) << "two names that differ in case only";
    std::filesystem::remove(sFolder + "/drive_c/Users/PUBLIC");
    std::filesystem::remove(sFolder + "/drive_d/Tisch");
    EXPECT_EQ(1, Tool("check " + sFolder)) << "a known folder is missing";
    EXPECT_EQ(1, Tool("check " + sFolder)) << "and looking does not make it";
    EXPECT_EQ(1, Tool("describe " + sFolder + "-none"));
    const char *const aWrong[] = {"",
                                  "create",
                                  "create X --drive 9",
                                  "create X --drive D:floppy",
                                  "create X --user a/b",
                                  "create X --what 1",
                                  "create X --session",
                                  "create X --session x",
                                  "create X --folder Desk=C:\\x",
                                  "create X --folder Desktop=Q:\\x",
                                  "check",
                                  "check X Y",
                                  "make X"};
    for (const char *psz : aWrong) EXPECT_EQ(2, Tool(psz)) << psz;
}
