// profile_hosted_test.cpp: what a hosted machine adds to the profile functions: lines kept byte for byte, several
// processes, full drives. (Malformed files: profile_fuzz.cpp.)
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/profile.h"
#include "platform/tool_seam.h"
#include "tests/support/test_machine.h"
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace platform;

namespace {

class HostedProfile : public MachineTest {
  protected:
    void SetUp() override
    {
        FreshMachine();
        sFile = TestFolder() + u"\\t.ini";
    }
    std::u16string Get(const std::u16string &sSection, const std::u16string &sKey)
    {
        char16_t       sz[300];
        const uint32_t n = GetPrivateProfileStringW(sSection.c_str(), sKey.c_str(), u"DEF", sz, 300, sFile.c_str());
        return std::u16string(sz, n);
    }
    BOOL Put(const std::u16string &sSection, const std::u16string &sKey, const std::u16string &sValue)
    {
        return WritePrivateProfileStringW(sSection.c_str(), sKey.c_str(), sValue.c_str(), sFile.c_str());
    }
    std::u16string sFile;
};

std::u16string Number(int n)
{
    std::u16string s;
    for (const char ch : std::to_string(n)) s += static_cast<char16_t>(ch);
    return s;
}

} // namespace

TEST_F(HostedProfile, OtherLinesStayAsTheyAre)
{
    const struct {
        const char *pszBefore, *pszAfter;
    } aCases[] = {
        {"\r\n  [ S ]  \n a = 1 \n\r\n\r\n; note\r\n\r\n[T]\r\nb = 2",
         "\r\n  [ S ]  \n a = 1 \n\r\n\r\n; note\r\nk=v\r\n\r\n[T]\r\nb = 2"},
        {"[S]\r\n\r\n[T]\r\n", "[S]\r\nk=v\r\n\r\n[T]\r\n"},
        {"[S]\n k\t= old  \nz", "[S]\n k\t=v\nz"},
        {"[S]\rk=\"1\"\rb=2", "[S]\rk=v\rb=2"},
        {"\xEF\xBB\xBF[S]\r\n\xE4=1\r\n", "\xEF\xBB\xBF[S]\r\n\xE4=1\r\nk=v\r\n"},
        {"[S\r\n", "[S\r\n[S]\r\nk=v\r\n"},
    };
    for (const auto &c : aCases) {
        WriteTestFile(sFile, c.pszBefore);
        EXPECT_TRUE(Put(u"S", u"k", u"v"));
        EXPECT_EQ(c.pszAfter, ReadTestFile(sFile)) << c.pszBefore;
        EXPECT_EQ(u"v", Get(u"S", u"k")) << c.pszBefore;
    }
}

TEST_F(HostedProfile, ProcessesSeeAndKeepEachOthersWrites)
{
    constexpr int PROCESSES = 4, KEYS = 100;
    pid_t         aChildren[PROCESSES];
    WriteTestFile(sFile, "[S]\r\na=1\r\n");
    EXPECT_EQ(u"1", Get(u"S", u"a"));
    WriteTestFile(sFile, "[S]\r\na=2\r\n"); // same size, perhaps the same tick of the clock
    EXPECT_EQ(u"2", Get(u"S", u"a"));
    for (int p = 0; p < PROCESSES; p++) {
        aChildren[p] = fork();
        if (aChildren[p] != 0) continue;
        for (int i = 0; i < KEYS; i++)
            if (!Put(u"S" + Number(i % 3), u"p" + Number(p) + u"-" + Number(i), Number(i))) _exit(1);
        _exit(0);
    }
    for (const pid_t nChild : aChildren) {
        int nStatus = -1;
        waitpid(nChild, &nStatus, 0);
        EXPECT_EQ(0, nStatus);
    }
    for (int p = 0; p < PROCESSES; p++)
        for (int i = 0; i < KEYS; i++)
            ASSERT_EQ(Number(i), Get(u"S" + Number(i % 3), u"p" + Number(p) + u"-" + Number(i)));
}

TEST_F(HostedProfile, MarksStayWithARewrittenFile)
{
    SECURITY_ATTRIBUTES *pSecurity = CreateEveryoneSecurity(FILE_EVERYONE_ACCESS);
    HANDLE               hFile =
        CreateFileW(sFile.c_str(), GENERIC_WRITE, 0, pSecurity, CREATE_ALWAYS, FILE_ATTRIBUTE_HIDDEN, nullptr);
    FreeSecurity(pSecurity);
    CloseHandle(hFile);
    ASSERT_TRUE(Put(u"A", u"a", u"1") && Put(u"B", u"b", u"1") && Put(u"A", u"c", u"1")); // the last is not at the end
    EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE, GetFileAttributesW(sFile.c_str()));
    hFile           = CreateFileW(sFile.c_str(), READ_CONTROL, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    uint32_t dwMask = 0, nEntries = 0;
    EXPECT_TRUE(ReadEveryoneAccess(hFile, SecuredObject::File, &dwMask, &nEntries));
    EXPECT_EQ(0x1F01FFu, dwMask);
    CloseHandle(hFile);
    SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_FALSE(Put(u"A", u"a", u"2"));
    EXPECT_EQ(ERROR_ACCESS_DENIED, GetLastError());
}

TEST_F(HostedProfile, AFullDriveLeavesTheOldText)
{
    ASSERT_TRUE(Put(u"A", u"a", u"1"));
    hosted::SetDriveLimit('C', 0);
    EXPECT_FALSE(Put(u"A", u"long", u"12345"));
    EXPECT_EQ(ERROR_DISK_FULL, GetLastError());
    EXPECT_TRUE(Put(u"A", u"a", u"2")) << "no longer than before";
    EXPECT_EQ("[A]\r\na=2\r\n", ReadTestFile(sFile));
    hosted::SetDriveLimit('C', -1);
    EXPECT_TRUE(Put(u"A", u"long", u"12345"));
}
