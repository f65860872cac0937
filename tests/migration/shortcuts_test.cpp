// Real shell links, made here and rewritten for this machine.
#include "migration/known_folders.h"
#include "migration/machine_info.h"
#include "migration/shortcuts.h"
#include "platform/files.h"
#include "platform/tool_seam.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

void MakeLink(const std::u16string &sFile, const std::u16string &sTarget, const std::u16string &sWorking)
{
    ASSERT_TRUE(InitializeShellLinks());
    ShellLink *pLink = NewShellLink();
    ASSERT_NE(nullptr, pLink);
    EXPECT_TRUE(SetShellLinkPath(pLink, sTarget.c_str()));
    EXPECT_TRUE(SetShellLinkWorkingDirectory(pLink, sWorking.c_str()));
    EXPECT_TRUE(SaveShellLink(pLink, sFile.c_str()));
    ReleaseShellLink(pLink);
    UninitializeShellLinks();
}

// "target|working folder" of a link on disk.
std::u16string ReadLink(const std::u16string &sFile)
{
    char16_t szTarget[260] = {}, szWorking[260] = {};
    if (!InitializeShellLinks()) return u"<no links>";
    ShellLink *pLink = LoadShellLink(sFile.c_str());
    if (pLink != nullptr) {
        GetShellLinkPath(pLink, szTarget, 260);
        GetShellLinkWorkingDirectory(pLink, szWorking, 260);
        ReleaseShellLink(pLink);
    }
    UninitializeShellLinks();
    return std::u16string(szTarget) + u"|" + szWorking;
}

class Shortcuts : public MigrationTest {
  protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        Ini(TARGET_INFO_FILE, u"KnownFolder", u"\"Profile\"", u"\"Q:\\Users\\Old\\\"");
        Ini(TARGET_INFO_FILE, u"SourceMachine", u"\"ComputerName\"", u"\"OLDPC\"");
        Ini(TARGET_INFO_FILE, u"Volume", u"Number", u"1");
        Ini(TARGET_INFO_FILE, u"Volume0", u"Path", u"\"Q:\\\"");
        StringList List = {};
        GetSystemFolderList(&List);
        m_sProfile = StringText(List.pLast);
        m_sMoved   = std::u16string(StringText(List.pFirst), 3) + u"OLDPC_Q\\";
        FreeStringList(&List);
    }
    std::u16string m_sProfile, m_sMoved;
};

TEST_F(Shortcuts, OneLinkIsRewrittenOnlyForDrivesOfTheSource)
{
    const std::u16string sFile = TestFolder() + u"\\a.lnk";
    const struct {
        const char    *pszName;
        std::u16string sTarget, sWorking, sExpected;
        int32_t        nExpected;
    } aCases[] = {
        {"profile", u"Q:\\Users\\Old\\a.exe", u"Q:\\Users\\Old",
         m_sProfile + u"a.exe|" + m_sProfile.substr(0, m_sProfile.size() - 1), 1},
        {"other folder of the drive", u"Q:\\Übung\\t.exe", u"Q:\\Übung 日本",
         m_sMoved + u"Übung\\t.exe|" + m_sMoved + u"Übung 日本", 1}, // Wine keeps targets in the ANSI code page
        {"no working folder", u"Q:\\Tools\\t.exe", u"", m_sMoved + u"Tools\\t.exe|", 1},
        {"working folder alone", u"C:\\here.exe", u"Q:\\Tools", u"C:\\here.exe|" + m_sMoved + u"Tools", 1},
        {"drive that the source lacks", u"R:\\a.exe", u"R:\\", u"R:\\a.exe|R:\\", 0},
        {"own drive", u"C:\\here.exe", u"C:\\", u"C:\\here.exe|C:\\", 0},
    };
    for (const auto &c : aCases) {
        MakeLink(sFile, c.sTarget, c.sWorking);
        const ShortcutRequest Request = {nullptr, sFile.c_str()};
        EXPECT_EQ(c.nExpected, FixShortcuts(&Request)) << c.pszName;
        EXPECT_EQ(c.sExpected, ReadLink(sFile)) << c.pszName;
    }
}

TEST_F(Shortcuts, AReadOnlyLinkIsRewrittenAndStaysReadOnly)
{
    const std::u16string  sFile   = TestFolder() + u"\\fixed.lnk";
    const ShortcutRequest Request = {nullptr, sFile.c_str()};
    MakeLink(sFile, u"C:\\here.exe", u"Q:\\Tools");
    ASSERT_TRUE(SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(1, FixShortcuts(&Request));
    EXPECT_EQ(FILE_ATTRIBUTE_READONLY, GetFileAttributesW(sFile.c_str()) & FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(u"C:\\here.exe|" + m_sMoved + u"Tools", ReadLink(sFile));
}

TEST_F(Shortcuts, ListIsRewrittenWhateverDriveItPointsTo)
{
    const std::u16string sFolder = TestFolder();
    StringList           Links   = {};
    MakeLink(sFolder + u"\\unknown.lnk", u"R:\\a.exe", u"");
    MakeLink(sFolder + u"\\stays.lnk", u"C:\\here.exe", u"Q:\\Tools"); // an unchanged target ends it
    WriteTestFile(sFolder + u"\\broken.lnk", "no link");
    for (const char16_t *pszName : {u"\\unknown.lnk", u"\\stays.lnk", u"\\broken.lnk", u"\\missing.lnk"})
        AppendString(&Links, (sFolder + pszName).c_str(), 260);
    const ShortcutRequest Request = {&Links, nullptr};
    EXPECT_EQ(1, FixShortcuts(&Request));
    EXPECT_EQ(m_sMoved.substr(0, m_sMoved.size() - 2) + u"R\\a.exe|", ReadLink(sFolder + u"\\unknown.lnk"));
    EXPECT_EQ(u"C:\\here.exe|Q:\\Tools", ReadLink(sFolder + u"\\stays.lnk"));
    EXPECT_EQ("no link", ReadTestFile(sFolder + u"\\broken.lnk"));
    FreeStringList(&Links);
}

} // namespace
