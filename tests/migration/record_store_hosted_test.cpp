// Resume records: every name is found again, by profile functions too; a kill or a full disk costs one record at most;
// a record costs one write however many there are.
#include "migration/record_store.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

constexpr char16_t BASE[] = u"C:\\Users\\old\\";

std::u16string Item(const std::u16string &sRelative)
{
    return BASE + sRelative;
}

std::string AsFile(const std::u16string &sText)
{
    return "\xFF\xFE" + Utf16(sText);
}

} // namespace

class RecordStoreTest : public MigrationTest {
  protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        CloseRecordStore();
        m_sFile = File(RECORD_INFO_FILE);
    }
    void     TearDown() override { CloseRecordStore(); }
    uint32_t Profile(const char16_t *pszSection, const char16_t *pszKey)
    {
        return GetPrivateProfileIntW(pszSection, pszKey, 0, m_sFile.c_str());
    }
    std::u16string m_sFile;
};

TEST_F(RecordStoreTest, EveryNameIsFoundAgain)
{
    static const struct {
        const char16_t *pszItem;
        const char16_t *pszSection; // as profile functions ask for it
        const char16_t *pszKey;
    } aCases[] = {
        {u"root.txt", u"\\", u"\"root.txt\""},
        {u"Sub\\a.txt", u"sub\\", u"\"A.TXT\""},
        {u"Sub\\a=b;c [1].txt", u"Sub\\", u"\"a:b;c [1].txt\""},
        {u"[x]=y;\\ z ", u"[x>=y;\\", u"\" z \""},
        {u" blank\\;semi", u"?blank\\", u"\";semi\""},
        {u"WorkingFolder\\\u00C4\u4E2D\xD83D\xDE00", u"workingfolder\\", u"\"\u00E4\u4E2D\xD83D\xDE00\""},
        {u"Sub\\deeper\\b", u"Sub\\deeper\\", u"\"b\""},
        {u"Sub\\back again", u"Sub\\", u"\"back again\""},
        {u"back at the root", u"\\", u"\"back at the root\""},
    };
    ASSERT_EQ(1, BeginWorkingFolder(u"C:\\Users\\old"));
    for (const auto &c : aCases) {
        EXPECT_EQ(0, ReadRecordState(BASE, Item(c.pszItem).c_str()));
        EXPECT_EQ(1, WriteRecordState(BASE, Item(c.pszItem).c_str(), 0));
        EXPECT_EQ(1, ReadRecordState(BASE, Item(c.pszItem).c_str()));
    }
    EXPECT_EQ(1, WriteRecordState(u"c:\\users\\OLD\\", Item(u"Sub").c_str(), 1));
    EXPECT_EQ(0, WriteRecordState(BASE, u"C:\\Users\\other\\x", 0));
    EXPECT_EQ(0, WriteRecordState(BASE, BASE, 1));

    for (int nRun = 0; nRun < 2; nRun++) { // closed, and after a kill: a copy of what was on disk then
        if (nRun == 0) CloseRecordStore();
        for (const auto &c : aCases) {
            EXPECT_EQ(1u, Profile(c.pszSection, c.pszKey)) << nRun << ':' << (&c - aCases);
            EXPECT_EQ(1, ReadRecordState(BASE, Item(c.pszItem).c_str())) << nRun << ':' << (&c - aCases);
        }
        EXPECT_EQ(2u, Profile(u"\\", u"\"Sub\""));
        char16_t szFolder[260];
        EXPECT_EQ(1, ReadWorkingFolder(szFolder, 260));
        EXPECT_STREQ("C:\\Users\\old", std::string(szFolder, szFolder + std::u16string(szFolder).size()).c_str());
        EXPECT_EQ(0, ReadRecordState(BASE, Item(u"a=b;c [1].txt").c_str()));
        EXPECT_EQ(1, WriteRecordState(BASE, Item(u"Sub\\later").c_str(), 0));
        EXPECT_EQ(1, WriteRecordState(BASE, Item(u"Other\\x").c_str(), 0));
        EXPECT_EQ(1, WriteRecordState(BASE, Item(u"Sub\\last").c_str(), 0));
        const std::string sKilled = ReadTestFile(m_sFile);
        CloseRecordStore();
        EXPECT_EQ(1u, Profile(u"Sub\\", u"\"last\""));
        WriteTestFile(m_sFile, sKilled);
        EXPECT_EQ(1, ReadRecordState(BASE, Item(u"Sub\\last").c_str()));
        EXPECT_EQ(1u, Profile(u"Sub\\", u"\"last\"")) << "joined by the load";
    }
    EXPECT_EQ(1, DeleteRecordStore());
    EXPECT_EQ(0, ReadRecordState(BASE, Item(u"root.txt").c_str()));
    EXPECT_FALSE(PathExists(m_sFile));
}

TEST_F(RecordStoreTest, ARecordCostsOneWriteHoweverManyThereAre)
{
    ASSERT_EQ(1, BeginWorkingFolder(u"C:\\Users\\old"));
    const int  nHandles = hosted::OpenHandles();
    const auto NameOf   = [](int i) {
        const std::string s = std::to_string(i / 10) + "\\N" + std::to_string(i);
        return Item(std::u16string(s.begin(), s.end()));
    };
    for (int i = 0; i < 5000; i++) {
        if (i == 100 || i == 4900) hosted::ClearFaults();
        EXPECT_EQ(0, ReadRecordState(BASE, NameOf(i).c_str()));
        EXPECT_EQ(1, WriteRecordState(BASE, NameOf(i).c_str(), i % 2));
        if (i == 199 || i == 4999) {
            EXPECT_EQ(100, hosted::CallCount("WriteFile"));
            EXPECT_EQ(0, hosted::CallCount("ReadFile") + hosted::CallCount("CreateFileW"));
        }
    }
    for (int i = 0; i < 5000; i++) EXPECT_EQ(1 + i % 2, ReadRecordState(BASE, NameOf(i).c_str())) << i;
    EXPECT_EQ(nHandles, hosted::OpenHandles());
    EXPECT_EQ(1, WriteRecordState(BASE, Item(u"7\\N70").c_str(), 0)) << "known already: nothing to write";
    EXPECT_EQ(100, hosted::CallCount("WriteFile"));
    // A folder may hold two names that differ in case alone: neither stands for the other.
    EXPECT_EQ(0, ReadRecordState(BASE, Item(u"7\\n70").c_str()));
    EXPECT_EQ(1, WriteRecordState(BASE, Item(u"7\\n70").c_str(), 0));
    RestRecordStore();
    EXPECT_EQ(nHandles - 1, hosted::OpenHandles()) << "while the walk is busy with something long";
    EXPECT_EQ(1, WriteRecordState(BASE, Item(u"499\\after").c_str(), 0));
    CloseRecordStore();
    EXPECT_EQ(nHandles - 1, hosted::OpenHandles());
    for (const char16_t *psz : {u"7\\n70", u"7\\N70", u"499\\after"})
        EXPECT_EQ(1, ReadRecordState(BASE, Item(psz).c_str()));
    CloseRecordStore();
    EXPECT_EQ(2u, Profile(u"499\\", u"\"n4999\""));
}

TEST_F(RecordStoreTest, DamagedAndForeignFilesKeepWhatTheySay)
{
    const std::u16string sHead = u"[WorkingFolder]\r\n\"Path\"=\"C:\\Users\\old\"\r\n[Sub\\]\r\n\"a\"=1\r\n";
    const struct {
        const char *pszWhat;
        std::string sFile;
        int32_t     nA, nB;
    } aCases[] = {
        {"a whole file", AsFile(sHead + u"\"b\"=2\r\n"), 1, 2},
        {"cut in a value's line end", AsFile(sHead + u"\"b\"=2"), 1, 2},
        {"cut in a key", AsFile(sHead + u"\"b"), 1, 0},
        {"cut in a unit", AsFile(sHead + u"\"b").substr(0, 2 + sHead.size() * 2 + 3), 1, 0},
        {"cut in a header", AsFile(sHead + u"[Sub\\dee"), 1, 0},
        {"values that mean nothing", AsFile(sHead + u"\"b\"=17\r\n\"c\r\n=\r\n[]\r\n"), 1, 0},
        {"a line without end", AsFile(sHead + std::u16string(9000, u'x') + u"\r\n\"b\"=2\r\n"), 1, 2},
        {"the ANSI code page", std::string(sHead.begin(), sHead.end()) + "\"b\"=2\r\n", 1, 2},
        {"empty", "", 0, 0},
    };
    for (const auto &c : aCases) {
        CloseRecordStore();
        WriteTestFile(m_sFile, c.sFile);
        EXPECT_EQ(c.nA, ReadRecordState(BASE, Item(u"Sub\\a").c_str())) << c.pszWhat;
        EXPECT_EQ(c.nB, ReadRecordState(BASE, Item(u"Sub\\b").c_str())) << c.pszWhat;
        EXPECT_EQ(1, WriteRecordState(BASE, Item(u"Sub\\new").c_str(), 0)) << c.pszWhat;
        CloseRecordStore();
        EXPECT_EQ(c.nA, ReadRecordState(BASE, Item(u"Sub\\a").c_str())) << c.pszWhat;
        EXPECT_EQ(1, ReadRecordState(BASE, Item(u"Sub\\new").c_str())) << c.pszWhat;
        EXPECT_EQ(1u, Profile(u"Sub\\", u"\"new\"")) << c.pszWhat;
    }
    CloseRecordStore();
    hosted::FailCall("CreateFileW", 1, ERROR_SHARING_VIOLATION,
                     true); // locked: nothing is known, and nothing destroyed
    EXPECT_EQ(0, ReadRecordState(BASE, Item(u"Sub\\new").c_str()));
    EXPECT_EQ(0, WriteRecordState(BASE, Item(u"Sub\\x").c_str(), 0));
    hosted::ClearFaults();
    EXPECT_EQ(1, ReadRecordState(BASE, Item(u"Sub\\new").c_str()));
    EXPECT_EQ(1, WriteRecordState(BASE, Item(u"Sub\\new").c_str(), 1)) << "a folder in a file's place";
    CloseRecordStore();
    EXPECT_EQ(2, ReadRecordState(BASE, Item(u"Sub\\new").c_str()));
}

TEST_F(RecordStoreTest, AFullDiskLosesNothingThatWasRecorded)
{
    ASSERT_EQ(1, BeginWorkingFolder(u"C:\\Users\\old"));
    for (const char16_t *psz : {u"a\\1", u"b\\1", u"a\\2"}) ASSERT_EQ(1, WriteRecordState(BASE, Item(psz).c_str(), 0));
    hosted::SetDriveLimit('C', 9); // half a line, torn inside a unit
    EXPECT_EQ(0, WriteRecordState(BASE, Item(u"a\\3").c_str(), 0));
    EXPECT_EQ(0, WriteRecordState(BASE, Item(u"a\\4").c_str(), 0));
    EXPECT_EQ(1, ReadRecordState(BASE, Item(u"a\\2").c_str()));
    CloseRecordStore(); // cannot be rewritten, so it stays as it is
    EXPECT_EQ(1, ReadRecordState(BASE, Item(u"a\\2").c_str()));
    EXPECT_EQ(0, ReadRecordState(BASE, Item(u"a\\4").c_str()));
    hosted::SetDriveLimit('C', -1);
    EXPECT_EQ(1, WriteRecordState(BASE, Item(u"a\\5").c_str(), 0));
    CloseRecordStore();
    for (const char16_t *psz : {u"a\\1", u"b\\1", u"a\\2", u"a\\5"})
        EXPECT_EQ(1, ReadRecordState(BASE, Item(psz).c_str()));
    EXPECT_EQ(1u, Profile(u"a\\", u"\"5\""));
    char16_t szFolder[260];
    EXPECT_EQ(1, ReadWorkingFolder(szFolder, 260));
}
