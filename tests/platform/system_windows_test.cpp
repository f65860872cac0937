// system_windows_test.cpp: what only a real Windows system can confirm: that the folder ids and the registry root which
// the seam states are the system's own.
#include "platform/registry.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <cstdlib>

using namespace platform;

class WindowsSystem : public MachineTest {};

TEST_F(WindowsSystem, FolderIdsNameTheFoldersOfTheEnvironment)
{
    const struct {
        const GUID *pId;
        const char *pszVariable;
    } aCases[] = {{&FOLDERID_Windows, "SystemRoot"},
                  {&FOLDERID_ProgramFilesX86, "ProgramFiles(x86)"},
                  {&FOLDERID_ProgramFilesX64, "ProgramW6432"},
                  {&FOLDERID_ProgramData, "ProgramData"},
                  {&FOLDERID_Public, "PUBLIC"},
                  {&FOLDERID_Profile, "USERPROFILE"}};
    for (const auto &c : aCases) {
        char16_t   *pszPath     = nullptr;
        char        szPath[260] = "";
        const char *pszExpected = std::getenv(c.pszVariable);
        ASSERT_NE(nullptr, pszExpected) << c.pszVariable;
        ASSERT_EQ(S_OK, SHGetKnownFolderPath(*c.pId, 0, nullptr, &pszPath)) << c.pszVariable;
        WideCharToMultiByte(CP_ACP, 0, pszPath, -1, szPath, sizeof(szPath), nullptr, nullptr);
        EXPECT_EQ(0, CompareTextNoCaseA(pszExpected, szPath)) << c.pszVariable << ": " << szPath;
        CoTaskMemFree(pszPath);
    }
}

TEST_F(WindowsSystem, RegistryRootIsTheMachines)
{
    HKEY     hKey = nullptr;
    uint8_t  aData[512];
    uint32_t cbData = sizeof(aData), dwType = 0;
    ASSERT_EQ(0, RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", 0,
                               KEY_QUERY_VALUE | KEY_WOW64_64KEY, &hKey));
    EXPECT_EQ(0, RegQueryValueExW(hKey, u"SystemRoot", nullptr, &dwType, aData, &cbData));
    EXPECT_EQ(1u, dwType) << "a text";
    EXPECT_EQ(0, CompareTextNoCaseW(u"C:\\windows", reinterpret_cast<const char16_t *>(aData)));
    EXPECT_EQ(0, RegCloseKey(hKey));
}
