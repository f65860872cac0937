// shell_links_hosted_test.cpp: the bytes of .lnk files: links of other writers, and what is kept of them.
// (Cut and damaged ones: shell_link_fuzz.cpp; links through the interface, on both backends: shortcuts_test.cpp.)
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/hosted/control.h"
#include "platform/hosted/desktop/shell_link_format.h"
#include "platform/shell.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

using HostedShellLinks = MachineTest;

// Written by another implementation of the shell: an id list with the whole name, link information in ANSI only, whose
// '?' stands for a character that code page 1252 lacks, all five texts but the relative path, a hot key.
const char g_szForeign[] =
    "4c0000000114020000000000c000000000000046f70000000000000000000000000000000000000000000000000000000000000000000000"
    "0300000007000000410500000000000000000000230114001f00e04fd020ea3a6910a2d808002b30309d190023433a5c0000000000000000"
    "00000000000000000000003600310000000000775dec0210007573657273002200000000000000775dec02775df002000000007500730065"
    "0072007300000014003400310000000000775dec021000616e6e6100002000000000000000775dec02775df0020000000061006e006e0061"
    "00000014004200310000000000775dec021000446f6bfc6d656e7465002a00000000000000775dec02775df0020000000044006f006b00fc"
    "006d0065006e00740065000000180048003200000000000000000000004272696566203f2e747874002e0000000000000000000000000000"
    "0000000000420072006900650066002000e5652e0074007800740000001a000000520000001c000000010000001c0000002d000000000000"
    "00510000001100000003000000000000431000000000433a5c75736572735c616e6e615c446f6bfc6d656e74655c4272696566203f2e7478"
    "7400000d0042006500730063006800720065006900620075006e0067000000170043003a005c00550073006500720073005c0061006e006e"
    "0061005c004100720062006500690074002000e565000009002d00780020002200790020007a0022000000090043003a005c0069002e0069"
    "0063006f00000000000000";

std::string Bytes(const std::string &sHex)
{
    std::string s;
    for (size_t i = 0; i + 1 < sHex.size(); i += 2) s += static_cast<char>(std::stoi(sHex.substr(i, 2), nullptr, 16));
    return s;
}

std::string Number(uint64_t n, size_t cb)
{
    std::string s;
    for (size_t i = 0; i < cb; i++) s += static_cast<char>(n >> (8 * i));
    return s;
}

} // namespace

TEST_F(HostedShellLinks, ANewTargetKeepsWhatDoesNotNameTheOldOne)
{
    const std::string sConsole = Number(12, 4) + Number(0xA0000004, 4) + "codp",
                      sTracker = Number(12, 4) + Number(0xA0000003, 4) + "host";
    std::string sBytes         = Bytes(g_szForeign);
    sBytes.resize(sBytes.size() - 4);
    sBytes += sTracker + sConsole + Number(0, 4);
    const std::u16string sLink = TestFolder() + u"\\a.lnk";
    hosted::LinkParts    foreign, before, after;
    ASSERT_TRUE(hosted::ParseLink(sBytes, &foreign));
    EXPECT_EQ(u"C:\\users\\anna\\Dokümente\\Brief 日.txt", hosted::LinkTarget(foreign)) << "another writer's";
    WriteTestFile(sLink, sBytes);
    SetFileAttributesW(sLink.c_str(), FILE_ATTRIBUTE_HIDDEN);
    const int nBlocks = hosted::LiveBlocks();
    ASSERT_TRUE(InitializeShellLinks());
    ShellLink *pLink = LoadShellLink(sLink.c_str());
    ASSERT_NE(nullptr, pLink);
    EXPECT_TRUE(SaveShellLink(pLink, nullptr));
    EXPECT_TRUE(SetShellLinkPath(pLink, u"C:\\Users\\berta\\Brief 日.txt"));
    ASSERT_TRUE(hosted::ParseLink(ReadTestFile(sLink), &before));
    EXPECT_EQ(sTracker + sConsole, before.sExtra) << "saved unchanged, it keeps all";
    EXPECT_TRUE(SaveShellLink(pLink, nullptr));
    ReleaseShellLink(pLink);
    UninitializeShellLinks();
    ASSERT_TRUE(hosted::ParseLink(ReadTestFile(sLink), &after));
    EXPECT_EQ(u"C:\\Users\\berta\\Brief 日.txt", hosted::LinkTarget(after));
    EXPECT_EQ(sConsole, after.sExtra);
    EXPECT_EQ(u"-x \"y z\"", after.aTexts[hosted::LINK_ARGUMENTS]);
    EXPECT_EQ(u"Beschreibung", after.aTexts[hosted::LINK_NAME]);
    EXPECT_EQ(u"C:\\i.ico", after.aTexts[hosted::LINK_ICON]);
    EXPECT_EQ(u"..\\Users\\berta\\Brief 日.txt", after.aTexts[hosted::LINK_RELATIVE_PATH]);
    EXPECT_EQ(3u, after.nIcon);
    EXPECT_EQ(0x0541, after.nHotKey);
    after.sLinkInfo.clear();
    EXPECT_EQ(u"C:\\Users\\berta\\Brief 日.txt", hosted::LinkTarget(after)) << "the id list alone names it too";
    EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN, GetFileAttributesW(sLink.c_str()));
    EXPECT_EQ(nBlocks, hosted::LiveBlocks());
}
