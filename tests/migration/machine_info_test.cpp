// The machine-info INI: written by one machine, read by the other, and damaged on the way.
#include "migration/known_folders.h"
#include "migration/machine_info.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

using MachineInfo = MigrationTest;

TEST_F(MachineInfo, WhatOneMachineWritesTheOtherReads)
{
    const std::u16string sIni = TestFolder() + u"\\info.ini";
    ASSERT_EQ(1, CreateStateFile(sIni.c_str()));
    ASSERT_EQ(1, WriteMachineInfo(sIni.c_str(), u"S-1-5-21-1-2-3-1001"));

    StringList OwnSystem = {}, OwnUser = {}, OwnVolumes = {}, System = {}, User = {}, Volumes = {};
    GetSystemFolderList(&OwnSystem);
    GetUserFolderList(&OwnUser);
    GetFixedVolumes(&OwnVolumes);
    EXPECT_EQ(6u, OwnSystem.nCount);
    EXPECT_EQ(3u, OwnUser.nCount);
    const std::u16string sWindows = StringText(OwnSystem.pFirst);
    EXPECT_EQ(u'\\', sWindows.back());
    EXPECT_EQ(1, ReadMachineInfo(sIni.c_str(), &System, &User, &Volumes));
    EXPECT_EQ(Texts(&OwnSystem), Texts(&System));
    EXPECT_EQ(Texts(&OwnUser), Texts(&User));
    EXPECT_EQ(Texts(&OwnVolumes), Texts(&Volumes));

    const std::string sFile = ReadTestFile(sIni);
    EXPECT_EQ("\xFF\xFE", sFile.substr(0, 2));
    EXPECT_NE(std::string::npos, sFile.find(Utf16(u"\"Windows\"=\"" + sWindows + u"\"\r\n")));
    EXPECT_NE(std::string::npos, sFile.find(Utf16(u"\"CurrentUser\"=\"S-1-5-21-1-2-3-1001\"\r\n")));
    EXPECT_NE(std::string::npos, sFile.find(Utf16(u"[Volume0]\r\nPath=\"")));
}

TEST_F(MachineInfo, DamagedFilesAreReadWithinBounds)
{
    const std::string sLong(5000, 'x');
    const struct {
        const char *pszName;
        std::string sContent;
        size_t      nVolumes;
    } aCases[] = {
        {"missing", "", 0},
        {"huge number", "[Volume]\r\nNumber=4294967290\r\n[Volume0]\r\nPath=C:\\\r\n",
         0}, // negative as a signed number
        {"number above the entries", "[Volume]\r\nNumber=2000000000\r\n[Volume1]\r\nPath=\"e:\\\"\r\n", 1},
        {"negative", "[Volume]\r\nNumber=-1\r\n[Volume0]\r\nPath=C:\\\r\n", 0},
        {"no number", "[Volume]\r\nNumber=many\r\n[Volume0]\r\nPath=C:\\\r\n", 0},
        {"long and odd paths",
         "[Volume]\r\nNumber=5\r\n[Volume0]\r\nPath=" + sLong +
             "\r\n[Volume1]\r\nPath=C:\\x\r\n"
             "[Volume2]\r\nPath=:C\\\r\n[Volume3]\r\nPath=[:\\\r\n[Volume4]\r\nPath=Z:\\\r\n",
         1},
        {"cut in a section name", "[Volume]\r\nNumber=1\r\n[Volu", 0},
        {"odd UTF-16", "\xFF\xFE[\0V\0o", 0},
    };
    for (const auto &c : aCases) {
        const std::u16string sIni = TestFolder() + u"\\bad" + static_cast<char16_t>(u'a' + (&c - aCases)) + u".ini";
        if (!c.sContent.empty()) WriteTestFile(sIni, c.sContent);
        StringList System = {}, Volumes = {};
        EXPECT_EQ(1, ReadMachineInfo(sIni.c_str(), &System, nullptr, &Volumes)) << c.pszName;
        EXPECT_EQ(Paths(6), Texts(&System)) << c.pszName; // the position is kept
        EXPECT_EQ(c.nVolumes, Texts(&Volumes).size()) << c.pszName;
    }
}

} // namespace
