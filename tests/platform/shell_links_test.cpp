// shell_links_test.cpp: shell links through the interface, on both backends.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/shell.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

class ShellLinks : public MachineTest {
protected:
    void SetUp() override
    {
        FreshMachine();
        ASSERT_TRUE(InitializeShellLinks());
    }
    void TearDown() override { UninitializeShellLinks(); }
};

std::u16string PathOf(ShellLink *pLink)
{
    char16_t sz[260] = u"";
    return GetShellLinkPath(pLink, sz, 260) ? sz : u"<none>";
}

std::u16string WorkingFolderOf(ShellLink *pLink)
{
    char16_t sz[260] = u"";
    return GetShellLinkWorkingDirectory(pLink, sz, 260) ? sz : u"<none>";
}

} // namespace

TEST_F(ShellLinks, ALinkIsRewrittenWhereItIs)
{
    const std::u16string sFile = TestFolder() + u"\\target.txt", sLink = TestFolder() + u"\\a.lnk";
    WriteTestFile(sFile, "x");
    ShellLink *pLink = NewShellLink();
    ASSERT_NE(nullptr, pLink);
    EXPECT_TRUE(SetShellLinkPath(pLink, sFile.c_str()));
    EXPECT_TRUE(SetShellLinkWorkingDirectory(pLink, u"C:\\Users\\anna\\Übung 日本"));
    EXPECT_TRUE(SaveShellLink(pLink, sLink.c_str()));
    ReleaseShellLink(pLink);

    pLink = LoadShellLink(sLink.c_str());
    ASSERT_NE(nullptr, pLink);
    EXPECT_EQ(sFile, PathOf(pLink));
    EXPECT_EQ(u"C:\\Users\\anna\\Übung 日本", WorkingFolderOf(pLink));
    EXPECT_TRUE(SetShellLinkPath(pLink, u"C:\\OLDPC_D\\Data\\gone.txt")) << "a target that does not exist here";
    EXPECT_TRUE(SetShellLinkWorkingDirectory(pLink, u"C:\\OLDPC_D\\Data"));
    EXPECT_TRUE(SaveShellLink(pLink, nullptr));
    ReleaseShellLink(pLink);

    pLink = LoadShellLink(sLink.c_str());
    ASSERT_NE(nullptr, pLink);
    EXPECT_EQ(u"C:\\OLDPC_D\\Data\\gone.txt", PathOf(pLink));
    EXPECT_EQ(u"C:\\OLDPC_D\\Data", WorkingFolderOf(pLink));
    ReleaseShellLink(pLink);
}

TEST_F(ShellLinks, WhatIsNoLinkDoesNotLoad)
{
    WriteTestFile(TestFolder() + u"\\text.lnk",
                  "this is no shell link, but it is long enough to hold the header of one, all of it");
    EXPECT_EQ(nullptr, LoadShellLink((TestFolder() + u"\\text.lnk").c_str()));
    EXPECT_EQ(nullptr, LoadShellLink((TestFolder() + u"\\none.lnk").c_str()));
    ShellLink *pLink = NewShellLink();
    EXPECT_EQ(u"<none>", PathOf(pLink)) << "a link without a path";
    ReleaseShellLink(pLink);
    ReleaseShellLink(nullptr);
}
