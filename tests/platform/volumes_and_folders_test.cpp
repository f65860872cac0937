// volumes_and_folders_test.cpp: drives, known folders, the registry, the command line, the computer's name.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "platform/volumes.h"
#include "tests/support/test_machine.h"
#include <vector>

using namespace platform;

namespace {

class VolumesAndFolders : public MachineTest {};

std::vector<std::u16string> Arguments(const char16_t *pszLine)
{
    int32_t                     nArgs   = 0;
    char16_t                  **ppszAll = CommandLineToArgvW(pszLine, &nArgs);
    std::vector<std::u16string> aAll;
    for (int32_t i = 0; i < nArgs; i++) aAll.push_back(ppszAll[i]);
    LocalFree(ppszAll);
    return aAll;
}

} // namespace

TEST_F(VolumesAndFolders, KnownFoldersExistWithoutTrailingBackslash)
{
    for (const GUID *pId : {&FOLDERID_Windows, &FOLDERID_ProgramFilesX86, &FOLDERID_ProgramFilesX64,
                            &FOLDERID_ProgramData, &FOLDERID_Public, &FOLDERID_Profile, &FOLDERID_UserProfiles,
                            &FOLDERID_Desktop, &FOLDERID_Documents, &FOLDERID_Pictures}) {
        char16_t *pszPath = nullptr;
        ASSERT_EQ(S_OK, SHGetKnownFolderPath(*pId, 0, nullptr, &pszPath)) << std::hex << pId->Data1;
        EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, GetFileAttributesW(pszPath) & FILE_ATTRIBUTE_DIRECTORY)
            << std::hex << pId->Data1;
        EXPECT_NE(u'\\', pszPath[TextLengthW(pszPath) - 1]);
        CoTaskMemFree(pszPath);
    }
    char16_t  *pszPath = nullptr;
    const GUID none    = {1, 2, 3, {4}};
    EXPECT_GT(0, SHGetKnownFolderPath(none, 0, nullptr, &pszPath));
    CoTaskMemFree(pszPath);
    char szData[MAX_PATH];
    char szSame[MAX_PATH];
    ASSERT_EQ(S_OK, SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &pszPath));
    WideCharToMultiByte(CP_ACP, 0, pszPath, -1, szSame, MAX_PATH, nullptr, nullptr);
    CoTaskMemFree(pszPath);
    for (const BOOL bCreate : {FALSE, TRUE}) {
        ASSERT_TRUE(SHGetSpecialFolderPathA(nullptr, szData, CSIDL_COMMON_APPDATA, bCreate)) << bCreate;
        EXPECT_STREQ(szSame, szData);
    }
}

TEST_F(VolumesAndFolders, CommandLinesComeApartAsWindowsTakesThem)
{
    using All = std::vector<std::u16string>;
    const struct {
        const char16_t *pszLine;
        All             aExpected;
    } aCases[] = {
        {u"\"C:\\a b\\x.exe\" -uninstall", {u"C:\\a b\\x.exe", u"-uninstall"}},
        {u"x.exe a\"b c\"d  e", {u"x.exe", u"ab cd", u"e"}},
        {u"x \"\" y", {u"x", u"", u"y"}},
        {u"x a\\\\b a\\\\\"b c\" \\\"d", {u"x", u"a\\\\b", u"a\\b c", u"\"d"}},
        {u"x \"a\\\\\\\" b\"", {u"x", u"a\\\" b"}},
        {u"x \"a\"\"b\" c", {u"x", u"a\"b c"}}, // two quotes within quotes are one, and end them
        {u"x \"\"\"a\"\"\" b", {u"x", u"\"a\"", u"b"}},
        {u"x\ty\t", {u"x", u"y"}},
        {u"\"C:\\a\\\"b c", {u"C:\\a\\", u"b", u"c"}},
        {u" x", {u"", u"x"}},
        {u"x \"open end", {u"x", u"open end"}},
    };
    for (const auto &c : aCases)
        EXPECT_EQ(c.aExpected, Arguments(c.pszLine)) << std::string(c.pszLine, c.pszLine + TextLengthW(c.pszLine));
    EXPECT_LT(0u, Arguments(GetCommandLineW()).at(0).size());
    EXPECT_EQ(1u, Arguments(u"").size()) << "the program itself";
}

TEST_F(VolumesAndFolders, DrivesNameSystemFoldersAndMissingKeys)
{
    HotPlugInfo info = {TRUE, TRUE};
    HKEY        hKey = nullptr;
    EXPECT_EQ(4u, GetLogicalDrives() & 4u);
    EXPECT_EQ(DRIVE_FIXED, GetDriveTypeW(u"C:\\"));
    EXPECT_EQ(DRIVE_NO_ROOT_DIR, GetDriveTypeW(u"Q:\\"));
    EXPECT_FALSE(GetHotPlugInfo(u"Q:\\", &info));
    EXPECT_EQ(static_cast<int32_t>(ERROR_FILE_NOT_FOUND),
              RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\VORN\\No Such Key", 0, KEY_QUERY_VALUE, &hKey));
    char16_t sz[260];
    uint32_t cch = 260;
    ASSERT_TRUE(GetComputerNameW(sz, &cch));
    EXPECT_EQ(TextLengthW(sz), cch);
    const uint32_t cchName = cch;
    cch                    = cchName; // one too few
    EXPECT_FALSE(GetComputerNameW(sz, &cch));
    EXPECT_EQ(ERROR_BUFFER_OVERFLOW, GetLastError());
    EXPECT_EQ(cchName + 1, cch);
    const std::u16string sFolder = TestFolder() + u"\\custom";
    ASSERT_TRUE(CreateDirectoryW(sFolder.c_str(), nullptr));
    EXPECT_TRUE(PathMakeSystemFolderW(sFolder.c_str()));
    EXPECT_NE(0u, GetFileAttributesW(sFolder.c_str()) & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_FALSE(PathMakeSystemFolderW((sFolder + u"\\none").c_str()));
}
