// path_test.cpp: path text functions.
#include "platform/path.h"
#include "platform/text.h"
#include <gtest/gtest.h>
#include <string>

using namespace platform;

namespace {

constexpr HRESULT INVALID_ARGUMENT    = static_cast<HRESULT>(0x80070057);
constexpr HRESULT INSUFFICIENT_BUFFER = static_cast<HRESULT>(0x8007007A);

} // namespace

TEST(PathText, RemoveFileSpecKeepsTheRootOfEveryForm)
{
    const struct {
        const char16_t *pszPath, *pszExpected;
        HRESULT         nExpected;
    } aCases[] = {
        {u"C:\\a\\b", u"C:\\a", 0},
        {u"C:\\a", u"C:\\", 0},
        {u"C:\\", u"C:\\", 1},
        {u"C:\\a\\", u"C:\\a", 0},
        {u"C:a", u"C:", 0},
        {u"a\\b", u"a", 0},
        {u"a", u"", 0},
        {u"", u"", 1},
        {u"\\a", u"\\", 0},
        {u"\\\\s\\h\\a", u"\\\\s\\h", 0},
        {u"\\\\s\\h", u"\\\\s\\h", 1},
        {u"\\\\?\\C:\\a", u"\\\\?\\C:\\", 0},
        {u"\\\\?\\C:\\", u"\\\\?\\C:\\", 1},
        {u"\\\\?\\UNC\\s\\h\\a\\b", u"\\\\?\\UNC\\s\\h\\a", 0},
        {u"\\\\?\\Volume{12345678-1234-1234-1234-123456789abc}\\a",
         u"\\\\?\\Volume{12345678-1234-1234-1234-123456789abc}\\", 0},
    };
    for (const auto &c : aCases) {
        char16_t sz[100];
        CopyTextW(sz, 100, c.pszPath);
        EXPECT_EQ(c.nExpected, PathCchRemoveFileSpec(sz, 100))
            << std::string(c.pszPath, c.pszPath + TextLengthW(c.pszPath));
        EXPECT_EQ(std::u16string(c.pszExpected), sz);
    }
    char16_t sz[4] = {u'a', u'b', u'c', u'd'};
    EXPECT_EQ(INVALID_ARGUMENT, PathCchRemoveFileSpec(sz, 4)) << "no terminator within the capacity";
    EXPECT_EQ(INVALID_ARGUMENT, PathCchRemoveFileSpec(sz, 0));
}

TEST(PathText, NarrowRemoveFileSpecKeepsTheRoot)
{
    const struct {
        const char *pszPath, *pszExpected;
        BOOL        bExpected;
    } aCases[] = {
        {"C:\\Program Files\\x.exe", "C:\\Program Files", TRUE},
        {"C:\\x.exe", "C:\\", TRUE},
        {"C:\\", "C:\\", FALSE},
        {"x.exe", "", TRUE},
        {"", "", FALSE},
        {"\\\\s\\h", "\\\\s", TRUE},
        {"\\\\", "\\\\", FALSE},
        {"C:x", "C:", TRUE},
        {"a/b", "", TRUE},
    };
    for (const auto &c : aCases) {
        char sz[100];
        CopyTextA(sz, 100, c.pszPath);
        EXPECT_EQ(c.bExpected, PathRemoveFileSpecA(sz)) << c.pszPath;
        EXPECT_STREQ(c.pszExpected, sz);
    }
}

TEST(PathText, AddBackslashNeedsRoomAndAddsOne)
{
    char16_t sz[5] = u"C:";
    EXPECT_EQ(0, PathCchAddBackslash(sz, 5));
    EXPECT_EQ(1, PathCchAddBackslash(sz, 5));
    EXPECT_EQ(std::u16string(u"C:\\"), sz);
    char16_t szFull[3] = u"ab";
    EXPECT_EQ(INSUFFICIENT_BUFFER, PathCchAddBackslash(szFull, 3));
    EXPECT_EQ(std::u16string(u"ab"), szFull);
    szFull[0] = 0;
    EXPECT_EQ(1, PathCchAddBackslash(szFull, 3)) << "an empty path stays empty";
}

TEST(PathText, FindsNamesAndExtensions)
{
    const struct {
        const char16_t *pszPath, *pszName, *pszExtension;
    } aCases[] = {
        {u"C:\\a\\b.txt", u"b.txt", u".txt"},
        {u"C:\\a\\", u"a\\", u""},
        {u"a/b.c", u"b.c", u".c"},
        {u"C:b.lnk", u"b.lnk", u".lnk"},
        {u"b", u"b", u""},
        {u"C:\\a.b\\c", u"c", u""},
        {u"C:\\a.tar.gz", u"a.tar.gz", u".gz"},
        {u"C:\\a.b c", u"a.b c", u""},
        {u".x", u".x", u".x"},
        {u"C:\\", u"C:\\", u""},
        {u"", u"", u""},
        {u"a.", u"a.", u"."},
    };
    for (const auto &c : aCases) {
        EXPECT_EQ(std::u16string(c.pszName), PathFindFileNameW(c.pszPath));
        EXPECT_EQ(std::u16string(c.pszExtension), PathFindExtensionW(c.pszPath));
    }
}
