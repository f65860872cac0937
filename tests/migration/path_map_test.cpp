// Paths of the source in terms of the target: pairs of folders, their priority, and drives that the target lacks.
#include "migration/known_folders.h"
#include "migration/machine_info.h"
#include "migration/path_map.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

// The peer's machine info: another user, Desktop outside the profile, one folder where this machine has it too.
class PathMapTest : public MigrationTest {
  protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        StringList System = {}, User = {};
        GetSystemFolderList(&System);
        GetUserFolderList(&User);
        const Paths aSystem = Texts(&System);
        m_sIni              = File(TARGET_INFO_FILE);
        m_sWindows          = aSystem.at(0);
        m_sPublic           = aSystem.at(4);
        m_sProfile          = aSystem.at(5);
        m_sDesktop          = Texts(&User).at(0);
        ASSERT_EQ(1, CreateStateFile(m_sIni.c_str()));
        Write(u"KnownFolder", u"\"Windows\"", u"\"Q:\\WINNT\\\"");
        Write(u"KnownFolder", u"\"Public\"", u"\"" + m_sPublic + u"\"");
        Write(u"KnownFolder", u"\"Profile\"", u"\"Q:\\Users\\Änne\\\"");
        Write(u"KnownFolder", u"\"Desktop\"", u"\"Q:\\Users\\Änne\\Schreibtisch\\\"");
        Write(u"SourceMachine", u"\"ComputerName\"", u"\"OLDPC\"");
        Write(u"SourceMachine", u"\"CurrentUser\"", u"\"S-1-5-21-9-9-9-9\"");
        Write(u"Volume", u"Number", u"4");
        Write(u"Volume0", u"Path", u"\"Q:\\\"");
        Write(u"Volume1", u"Path", u"\"D:\""); // too short for a root
        Write(u"Volume2", u"Path", u"\"1:\\\"");
        Write(u"Volume3", u"Path", u"\"c:\\\"");
    }
    void        TearDown() override { ReleasePathMap(&m_Map); }
    static void Write(const char16_t *pszSection, const char16_t *pszKey, const std::u16string &sValue)
    {
        Ini(TARGET_INFO_FILE, pszSection, pszKey, sValue);
    }
    // "=" in front of the path when it stayed as it was.
    std::u16string Translate(const std::u16string &sPath, int32_t bRequire = 0, uint32_t cch = 1024)
    {
        char16_t szPath[1024];
        CopyTextW(szPath, 1024, sPath.c_str());
        const int32_t nRet = TranslatePath(&m_Map, szPath, cch, bRequire);
        return (nRet ? u"" : u"=") + std::u16string(szPath);
    }

    PathMap        m_Map = {};
    std::u16string m_sIni, m_sWindows, m_sPublic, m_sProfile, m_sDesktop;
};

TEST_F(PathMapTest, TargetRewritesFoldersDrivesAndEveryFormOfAPath)
{
    InitPathMap(&m_Map, m_sIni.c_str(), 1);
    const std::u16string sMoved = m_sWindows.substr(0, 3) + u"OLDPC_";
    const struct {
        std::u16string sPath, sExpected;
        int32_t        bRequire;
    } aCases[] = {
        {u"q:\\users\\äNNE\\Music\\a.mp3", m_sProfile + u"Music\\a.mp3", 0},
        {u"Q:\\Users\\Änne\\Schreibtisch\\a.txt", m_sDesktop + u"a.txt", 0}, // the user's folder before the profile
        {u"Q:\\Users\\Änne", sMoved + u"Q\\Users\\Änne", 0},                 // a pair's prefix ends with a backslash
        {u"\"Q:\\Users\\Änne\\a b.exe\" /x", u"\"" + m_sProfile + u"a b.exe\" /x", 0},
        {u"@Q:\\WINNT\\shell32.dll,-21769", u"@" + m_sWindows + u"shell32.dll,-21769", 0},
        {u"FILE:///Q:\\Users\\Änne\\x.htm", u"file:///" + m_sProfile + u"x.htm", 0},
        {m_sPublic + u"Documents\\a", u"=" + m_sPublic + u"Documents\\a", 0}, // the same on both machines
        {u"Q:\\Data\\a.txt", sMoved + u"Q\\Data\\a.txt", 0},
        {u"q:\\", sMoved + u"q\\", 1},
        {u"Q:", u"=Q:", 0},
        {u"\"Q:\\Data\\a\"", u"\"" + sMoved + u"Q\\Data\\a\"", 0},
        {u"@Q:\\a", u"@" + sMoved + u"Q\\a", 0},
        {u"file:///Q:/x", u"file:///" + sMoved + u"Q\\e:///Q:/x", 0}, // three units skipped, as readers expect
        {u"file:///", u"=file:///", 0},
        {u"R:\\Data\\a", u"=R:\\Data\\a", 1}, // the source has no such drive
        {u"R:\\Data\\a", sMoved + u"R\\Data\\a", 0},
        {u"\\\\server\\share\\a", u"=\\\\server\\share\\a", 0},
        {u"", u"=", 0},
    };
    for (const auto &c : aCases) EXPECT_EQ(c.sExpected, Translate(c.sPath, c.bRequire)) << "case " << &c - aCases;
    EXPECT_EQ(u"=Q:\\Data\\a", Translate(u"Q:\\Data\\a", 0, 17)); // one unit short: not cut, left
    EXPECT_EQ(sMoved + u"Q\\Data\\a", Translate(u"Q:\\Data\\a", 0, 18));
    char16_t szShort[17] = u"Q:\\Data\\a";
    EXPECT_EQ(-1, TranslateForTarget(&m_Map, szShort, 17)) << "nothing may be sent there";
    EXPECT_EQ(u"Q:\\Data\\a", std::u16string(szShort));

    char16_t szFolder[260] = u"Q:\\Users\\Änne\\Schreibtisch";
    EXPECT_EQ(1, TranslateFolderPath(&m_Map, szFolder, 260, 0));
    EXPECT_EQ(m_sDesktop.substr(0, m_sDesktop.size() - 1), szFolder);
    EXPECT_EQ(2u, m_Map.PeerVolumes.nCount); // Q:\ and c:\, the others are no roots
}

TEST_F(PathMapTest, SourceRewritesTheOtherWayRoundAndKnowsThePeersDrives)
{
    InitPathMap(&m_Map, m_sIni.c_str(), 0);
    char16_t szName[260];
    ASSERT_EQ(1, GetOwnComputerName(szName));
    EXPECT_EQ(u"Q:\\Users\\Änne\\Schreibtisch\\a", Translate(m_sDesktop + u"a"));
    EXPECT_EQ(u"Q:\\WINNT\\a", Translate(m_sWindows + u"a"));
    EXPECT_EQ(u"=C:\\Other\\a", Translate(u"C:\\Other\\a"));
    EXPECT_EQ(u"Q:\\" + std::u16string(szName) + u"_D\\a", Translate(u"D:\\a")); // "D:" in the INI is no root
    EXPECT_EQ(0u, m_Map.PeerVolumes.nCount);
    EXPECT_EQ(1u, m_Map.bUserDiffers);
    EXPECT_EQ(u"S-1-5-21-9-9-9-9", std::u16string(m_Map.szTargetSid));
    EXPECT_EQ(u"S-1-5-", std::u16string(m_Map.szSourceSid, 6));

    ReleasePathMap(&m_Map);
    EXPECT_EQ(u"=D:\\a", Translate(u"D:\\a"));
    EXPECT_EQ(0u, m_Map.bUserDiffers);
}

TEST_F(PathMapTest, MissingOrPartialFilesGiveFewerPairsNeverWrongOnes)
{
    Write(u"KnownFolder", u"\"Desktop\"", u""); // its files fall to the profile
    Write(u"KnownFolder", u"\"Documents\"", u"\"\\\\server\\anna\\\"");
    Write(u"SourceMachine", u"\"CurrentUser\"", u"");
    InitPathMap(&m_Map, m_sIni.c_str(), 1);
    EXPECT_EQ(m_sProfile + u"Schreibtisch\\a", Translate(u"Q:\\Users\\Änne\\Schreibtisch\\a"));
    EXPECT_EQ(0u, m_Map.bUserDiffers);
    ReleasePathMap(&m_Map);
    InitPathMap(&m_Map, m_sIni.c_str(), 0); // and those of a folder that was moved to a share: no file can be put there
    EXPECT_EQ(u"Q:\\Users\\Änne\\Documents\\a", Translate(m_sProfile + u"Documents\\a"));
    ReleasePathMap(&m_Map);

    InitPathMap(&m_Map, (TestFolder() + u"\\none.ini").c_str(), 1);
    EXPECT_EQ(m_sWindows.substr(0, 3) + u"OldDrive_Q\\Users\\a", Translate(u"Q:\\Users\\a", 1));
    ReleasePathMap(&m_Map);

    InitPathMap(&m_Map, u"", 0); // no Windows folder known of the target
    EXPECT_EQ(u"C:\\", std::u16string(m_Map.szUnmappedPrefix, 3));
}

} // namespace
