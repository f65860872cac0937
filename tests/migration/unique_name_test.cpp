// Free names beside taken ones.
#include "migration/folders.h"
#include "migration/unique_name.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

std::u16string Unique(const std::u16string &sPath)
{
    char16_t szPath[1024];
    CopyTextW(szPath, 1024, sPath.c_str());
    const int32_t nRet = MakeUniqueFileName(szPath);
    return (nRet ? u"" : u"=") + std::u16string(szPath);
}

using UniqueName = MachineTest;

TEST_F(UniqueName, CountsUpFromTwoBeforeTheLastExtension)
{
    const std::u16string sFolder = TestFolder() + u"\\";
    const struct {
        std::u16string sTaken, sName, sExpected;
    } aCases[] = {
        {u"", u"free.txt", u"=free.txt"},
        {u"report.txt", u"report.txt", u"report (2).txt"},
        {u"report (2).txt", u"report.txt", u"report (3).txt"},
        {u"README", u"readme", u"readme (2)"},
        {u"a.b.c", u"a.b.c", u"a.b (2).c"},
        {u".profile", u".profile", u" (2).profile"},
        {u"dot.dir", u"dot.dir\\inner", u"=dot.dir\\inner"},
    };
    for (const auto &c : aCases) {
        if (!c.sTaken.empty()) WriteTestFile(sFolder + c.sTaken, "x");
        const std::u16string sExpected =
            c.sExpected[0] == u'=' ? u"=" + sFolder + c.sExpected.substr(1) : sFolder + c.sExpected;
        EXPECT_EQ(sExpected, Unique(sFolder + c.sName)) << "case " << &c - aCases;
    }
    ASSERT_TRUE(CreateDirectoryW((sFolder + u"notes").c_str(), nullptr));
    EXPECT_EQ(sFolder + u"notes (2)", Unique(sFolder + u"notes")); // a folder has the name
    ASSERT_TRUE(SetFileAttributesW((sFolder + u"report.txt").c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    EXPECT_EQ(sFolder + u"report (3).txt", Unique(sFolder + u"report.txt"));
}

TEST_F(UniqueName, LongPathsAndNamesStayUsable)
{
    std::u16string sFolder = TestFolder();
    for (int i = 0; i < 5; ++i) sFolder += u"\\" + std::u16string(60, static_cast<char16_t>(u'a' + i));
    ASSERT_EQ(1, CreateFolderTree(sFolder.c_str())) << GetLastError();
    WriteTestFile(u"\\\\?\\" + sFolder + u"\\x.txt", "x");
    EXPECT_EQ(sFolder + u"\\x (2).txt", Unique(sFolder + u"\\x.txt"));

    // A component has 255 units at most: the base gives way, and the name stays one.
    const std::u16string sFull(251, u'n');
    WriteTestFile(u"\\\\?\\" + sFolder + u"\\" + sFull + u".txt", "x");
    EXPECT_EQ(sFolder + u"\\" + std::u16string(247, u'n') + u" (2).txt", Unique(sFolder + u"\\" + sFull + u".txt"));
}

TEST(FolderTree, MakesEveryLevelOrSaysWhyNot)
{
    FreshMachine();
    const std::u16string sRoot = TestFolder();
    std::u16string       sDeep = sRoot;
    for (int i = 0; i < 12; ++i) sDeep += u"\\level-" + std::u16string(20, u'x');
    EXPECT_EQ(1, CreateFolderTree((sRoot + u"\\a\\b\\c\\").c_str()));
    EXPECT_TRUE(PathExists(sRoot + u"\\a\\b\\c"));
    EXPECT_EQ(1, CreateFolderTree((sRoot + u"\\a\\b\\c").c_str())); // there already
    EXPECT_EQ(1, CreateFolderTree(sDeep.c_str())) << GetLastError();
    EXPECT_TRUE(PathExists(u"\\\\?\\" + sDeep));
    EXPECT_EQ(1, CreateFolderTree((u"\\\\?\\" + sDeep + u"\\e").c_str())) << GetLastError();

    WriteTestFile(sRoot + u"\\file", "x");
    EXPECT_EQ(0, CreateFolderTree((sRoot + u"\\file").c_str()));
    EXPECT_NE(0u, GetLastError());
    EXPECT_EQ(0, CreateFolderTree((sRoot + u"\\file\\below").c_str()));
    EXPECT_EQ(0, CreateFolderTree(u"Q:\\nowhere\\at\\all"));
    EXPECT_NE(0u, GetLastError());
    EXPECT_EQ(0, CreateFolderTree(u""));
}

} // namespace
