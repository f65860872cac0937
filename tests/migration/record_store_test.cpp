// What the walk records, read with the system's own profile functions, as a service or a support script would.
#include "migration/record_store.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

using RecordStore = MigrationTest;

TEST_F(RecordStore, ProfileFunctionsReadWhatWasRecordedInAnyOrderOfFolders)
{
    constexpr char16_t   BASE[] = u"C:\\Users\\old\\";
    const std::u16string sFile  = File(RECORD_INFO_FILE);
    const struct {
        const char16_t *pszItem, *pszSection, *pszKey;
        int32_t         bFolder;
    } aCases[] = {{u"top.txt", u"\\", u"\"top.txt\"", 0},
                  {u"sub", u"\\", u"\"sub\"", 1},
                  {u"sub\\a=b [1].txt", u"sub\\", u"\"a:b [1].txt\"", 0},
                  {u"sub\\Größe ж 漢.txt", u"sub\\", u"\"Größe ж 漢.txt\"", 0},
                  {u"a]b\\c.txt", u"a>b\\", u"\"c.txt\"", 0},
                  {u"back.txt", u"\\", u"\"back.txt\"", 0}}; // the walk comes back to the base
    ASSERT_EQ(1, BeginWorkingFolder(u"C:\\Users\\old"));
    for (const auto &c : aCases)
        EXPECT_EQ(1, WriteRecordState(BASE, (std::u16string(BASE) + c.pszItem).c_str(), c.bFolder));
    CloseRecordStore();
    for (const auto &c : aCases)
        EXPECT_EQ(c.bFolder ? 2u : 1u, GetPrivateProfileIntW(c.pszSection, c.pszKey, 0, sFile.c_str()))
            << Utf8(c.pszItem);
    char16_t szFolder[1024];
    GetPrivateProfileStringW(u"WorkingFolder", u"\"Path\"", u"", szFolder, 1024, sFile.c_str());
    EXPECT_EQ(u"C:\\Users\\old", std::u16string(szFolder));

    // And what they wrote is read: a section without a name is the folder itself.
    WriteTestFile(sFile, "\xFF\xFE" + Utf16(u"[]\r\n\"a\"=1\r\n[WorkingFolder]\r\n\"Path\"=\"C:\\Users\\old\"\r\n"));
    EXPECT_EQ(1, ReadRecordState(BASE, u"C:\\Users\\old\\a"));
    CloseRecordStore();
}

} // namespace
