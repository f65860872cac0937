// system_windows_test.cpp: what only a real Windows system can confirm: that the folder ids and the registry root which
// the seam states are the system's own, and that two processes may write one settings file.
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <cstdlib>
#include <process.h>

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

// The agent and the discovery program do so whenever a link comes up.
TEST(ProfileOfTwoProcesses, NeitherUndoesWhatTheOtherWrote)
{
    constexpr char FILE_PATH[] = "C:\\vorn-two-writers.ini", CHILD[] = "VORN_TEST_WRITER=1";
    const bool     bChild   = std::getenv("VORN_TEST_WRITER") != nullptr;
    const char    *pszOwn   = bChild ? "Child" : "Parent";
    intptr_t       nProcess = -1;
    if (!bChild) {
        std::remove(FILE_PATH);
        ASSERT_EQ(0, _putenv(CHILD));
        nProcess = _spawnl(_P_NOWAIT, _pgmptr, "writer", "--gtest_filter=ProfileOfTwoProcesses.*", nullptr);
        ASSERT_EQ(0, _putenv("VORN_TEST_WRITER="));
        ASSERT_NE(-1, nProcess);
        while (GetPrivateProfileIntA("Child", "Number", -1, FILE_PATH) < 1) Sleep(1); // both at once
    }
    for (int i = 0; i < 300; i++) {
        const std::string sNumber = std::to_string(i);
        EXPECT_TRUE(WritePrivateProfileStringA(pszOwn, "Number", sNumber.c_str(), FILE_PATH));
        EXPECT_EQ(static_cast<uint32_t>(i), GetPrivateProfileIntA(pszOwn, "Number", -1, FILE_PATH));
    }
    int nCode = 0;
    if (bChild) return;
    EXPECT_EQ(nProcess, _cwait(&nCode, nProcess, 0));
    EXPECT_EQ(0, nCode) << "the other writer's values";
}
