// The files of the progress folder.
#include "migration/local_info.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/tool_seam.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

class StateFiles : public MigrationTest {
  protected:
    void ExpectLines(const std::string &sContent, const Paths &aFolders, const Paths &aFiles, const char *pszCase)
    {
        const std::u16string sFile   = TestFolder() + u"\\lines.txt";
        StringList           Folders = {}, Files = {};
        WriteTestFile(sFile, sContent);
        EXPECT_EQ(1, ReadPathLines(sFile.c_str(), &Folders, &Files)) << pszCase;
        EXPECT_EQ(aFolders, Texts(&Folders)) << pszCase;
        EXPECT_EQ(aFiles, Texts(&Files)) << pszCase;
    }
};

TEST_F(StateFiles, LinesBecomeFoldersAndFiles)
{
    const std::u16string sLongest(1023, u'p'), sTooLong(1024, u'p'), sFiller(40000, u'f');
    const std::string    sMark = "\xFF\xFE";
    ExpectLines(sMark + Utf16(u"C:\\A\\\r\nC:\\A\\b.txt\r\n"), {u"C:\\A"}, {u"C:\\A\\b.txt"}, "both kinds");
    ExpectLines(Utf16(u"C:\\ü\\\r\n"), {u"C:\\ü"}, {}, "no byte-order mark");
    ExpectLines(sMark + Utf16(u"a\r\n\r\nb\nC:\\c\r\nC:\\tail"), {}, {u"a", u"C:\\c"}, "only CR LF ends a line");
    ExpectLines(sMark + Utf16(u"\\\r\nx\r\n"), {}, {u"x"}, "a folder without a name");
    ExpectLines(sMark + Utf16(u"C:\\a\r\n") + "C", {}, {u"C:\\a"}, "odd byte at the end");
    ExpectLines(sMark + Utf16(sLongest + u"\r\n" + sTooLong + u"\r\nx\r\n"), {}, {sLongest, u"x"}, "never half a path");
    ExpectLines(sMark + Utf16(sFiller + u"\r\n" + sFiller + u"\r\nC:\\end\r\n"), {}, {u"C:\\end"}, "across pieces");
    ExpectLines(sMark + Utf16(std::u16string(u"C:\\a\0b\r\nC:\\c\r\n", 14)), {}, {u"C:\\c"}, "zeros");
    ExpectLines("", {}, {}, "empty");
    StringList List = {};
    EXPECT_EQ(0, ReadPathLines((TestFolder() + u"\\none").c_str(), &List, &List));
    EXPECT_EQ(0, ReadPathLines(TestFolder().c_str(), &List, &List)); // a folder
}

TEST_F(StateFiles, TornLineNeverBecomesAPathAndTheNextOneIsWhole)
{
    const std::u16string sFile = File(COMPLETE_INFO_FILE);
    const struct {
        const char *pszName;
        std::string sBefore;
        Paths       aBefore;
    } aCases[] = {
        {"missing", "<missing>", {}},
        {"empty", "", {}},
        {"half a mark", "\xFF", {}},
        {"no line yet", "\xFF\xFE" + Utf16(u"C:\\torn\\path\\that\\is\\longer\\than\\the\\next"), {}},
        {"torn in a unit", "\xFF\xFE" + Utf16(u"C:\\a\r\nC:\\to") + "r", {u"C:\\a"}},
        {"torn before the line feed", "\xFF\xFE" + Utf16(u"C:\\a\r\nC:\\torn\r"), {u"C:\\a"}},
        {"long tail", "\xFF\xFE" + Utf16(u"C:\\a\r\n" + std::u16string(5000, u't')), {u"C:\\a"}},
        {"the ANSI code page", "C:\\a\r\nC:\\folder\\that\\is\\longer\\than\\both\\of\\the\\lines\\\r\n", {}},
        {"line end across two reads", "\xFF\xFE" + Utf16(u"C:\\a\r\n" + std::u16string(2047, u't')), {u"C:\\a"}},
    };
    for (const auto &c : aCases) {
        DeleteFileW(sFile.c_str());
        if (c.sBefore != "<missing>") WriteTestFile(sFile, c.sBefore);
        EXPECT_EQ(1, AppendCompleteInfo(u"C:\\b.txt", 0)) << c.pszName;
        EXPECT_EQ(1, AppendCompleteInfo(u"C:\\F", 1)) << c.pszName;
        StringList Folders = {}, Files = {};
        EXPECT_EQ(1, ReadPathLines(sFile.c_str(), &Folders, &Files)) << c.pszName;
        Paths aExpected = c.aBefore;
        aExpected.push_back(u"C:\\b.txt");
        EXPECT_EQ(aExpected, Texts(&Files)) << c.pszName;
        EXPECT_EQ(Paths{u"C:\\F"}, Texts(&Folders)) << c.pszName;
    }
    const std::string sKept = ReadTestFile(sFile);
    EXPECT_EQ(0, AppendCompleteInfo(std::u16string(1022, u'l').c_str(), 0)); // no room for the line's end
    EXPECT_EQ(sKept, ReadTestFile(sFile));
    EXPECT_EQ(1, AppendCompleteInfo(std::u16string(1021, u'l').c_str(), 0));
}

TEST_F(StateFiles, NewFileHoldsTheMarkAndEveryoneMayChangeIt)
{
    const std::u16string sFile = File(RECORD_INFO_FILE);
    WriteTestFile(sFile, "[old]\r\na=1\r\n");
    ASSERT_EQ(1, CreateStateFile(sFile.c_str()));
    EXPECT_EQ("\xFF\xFE", ReadTestFile(sFile));
    const HANDLE hFile = CreateFileW(sFile.c_str(), GENERIC_READ | READ_CONTROL, FILE_SHARE_READ, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, hFile);
    uint32_t dwMask = 0, nEntries = 0;
    EXPECT_TRUE(ReadEveryoneAccess(hFile, SecuredObject::File, &dwMask, &nEntries));
    // Wine keeps the list as the host's permission bits: three entries, and no right to change the list itself.
    EXPECT_EQ(UnderWine() ? 3u : 1u, nEntries);
    EXPECT_EQ(UnderWine() ? 0x1301FFu : 0x1F01FFu, dwMask & 0x1F01FF);
    CloseHandle(hFile);
    EXPECT_EQ(0, CreateStateFile((TestFolder() + u"\\no\\such\\folder.ini").c_str()));
}

TEST_F(StateFiles, AFolderThatWasRemovedMeanwhileIsMadeAgain)
{
    const std::u16string sFile = File(COMPLETE_INFO_FILE);
    ASSERT_TRUE(RemoveDirectoryW(sFile.substr(0, sFile.rfind(u'\\')).c_str()));
    EXPECT_EQ(1, CreateStateFile(sFile.c_str()));
    EXPECT_EQ("\xFF\xFE", ReadTestFile(sFile));
}

TEST_F(StateFiles, LocalInfoComesBackAsTargetInfo)
{
    static SessionRecord Session;
    ASSERT_EQ(1, GetMappingFolder(Session.szMappingPath));
    EXPECT_NE(std::u16string::npos,
              std::u16string(Session.szMappingPath).find(u"\\VORN\\VORN Qelvane\\VornTramsa\\uapmap"));
    ASSERT_EQ(1, WriteLocalInfo(&Session));
    const std::string sInfo = ReadTestFile(File(LOCAL_INFO_FILE));
    EXPECT_NE(std::string::npos, sInfo.find(Utf16(u"\"Version\"=\"1.0.5.0\"")));
    WriteTestFile(File(TARGET_INFO_FILE), sInfo);

    static SessionRecord Peer;
    char16_t             szName[260];
    ReadTargetInfo(&Peer, szName, 260);
    EXPECT_NE(u"", std::u16string(szName));
    EXPECT_EQ(std::u16string(Session.szMappingPath), Peer.szPeerMappingPath);
    EXPECT_EQ(1u, Peer.bPeerAtLeast1040);
    EXPECT_EQ(1u, Peer.bPeerAtLeast1050);
    EXPECT_EQ(1u, Peer.bPeerAtLeast1050Second);

    ASSERT_TRUE(DeleteFileW(File(TARGET_INFO_FILE).c_str()));
    ReadTargetInfo(&Peer, szName, 260);
    EXPECT_EQ(u"", std::u16string(szName));
    EXPECT_EQ(u"", std::u16string(Peer.szPeerMappingPath));
    EXPECT_EQ(u"1.0.2.0", std::u16string(Peer.szPeerVersion));
    EXPECT_EQ(0u, Peer.bPeerAtLeast1040);
    EXPECT_EQ(0u, Peer.bPeerAtLeast1050);
}

TEST_F(StateFiles, VersionsCompareByTheirParts)
{
    const struct {
        const char16_t *pszA, *pszB;
        int32_t         nExpected;
    } aCases[] = {
        {u"1.0.4.0", u"1.0.4.0", 1},  {u"1.0.4", u"1.0.4.0", 1},         {u"1.0.3.65535", u"1.0.4.0", 0},
        {u"1.0.10.0", u"1.0.9.9", 1}, {u"2", u"1.65535.65535.65535", 1}, {u"", u"0.0.0.1", 0},
        {u"x.9.9.9", u"0.0.0.1", 0},  {u"1.0.4.0beta", u"1.0.4.0", 1},   {u"1.0.70000.0", u"1.0.5.0", 1},
    };
    for (const auto &c : aCases) EXPECT_EQ(c.nExpected, CompareVersion(c.pszA, c.pszB)) << "case " << &c - aCases;
}

TEST_F(StateFiles, ProgressIsWhatTheServiceWrote)
{
    EXPECT_EQ(0u, GetProgressSize(1));
    Ini(PROGRESS_INFO_FILE, u"Collection", u"\"Size\"", u"\"18446744073709551615\"");
    Ini(PROGRESS_INFO_FILE, u"Collection", u"\"ProgressSize\"", u"5000000000");
    EXPECT_EQ(18446744073709551615u, GetProgressSize(1));
    EXPECT_EQ(5000000000u, GetProgressSize(0));
}

} // namespace
