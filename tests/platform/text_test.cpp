// text_test.cpp: the formatter, bounded copies, comparisons and code pages.
#include "platform/errors.h"
#include "platform/text.h"
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

using namespace platform;

namespace {

template <class... Args> std::string A(const char *pszFormat, Args... args)
{
    char          sz[200];
    const int32_t n = FormatTextA(sz, sizeof(sz), pszFormat, args...);
    EXPECT_EQ(static_cast<int32_t>(std::strlen(sz)), n);
    return sz;
}

template <class... Args> std::u16string W(const char16_t *pszFormat, Args... args)
{
    char16_t sz[200];
    EXPECT_LE(0, FormatTextW(sz, 200, pszFormat, args...));
    return sz;
}

} // namespace

TEST(FormatText, PrintsEveryConversionAsTheWindowsRunTimeLibraryDoes)
{
    EXPECT_EQ("[RecvFile] filesize [-5000000000]", A("[RecvFile] filesize [%I64d]", int64_t(-5000000000)));
    EXPECT_EQ("18446744073709551615 9223372036854775807", A("%llu %lld", ULLONG_MAX, LLONG_MAX));
    EXPECT_EQ("-9223372036854775808", A("%I64i", LLONG_MIN));
    EXPECT_EQ("4294967295 -1 ffffffff", A("%lu %ld %lx", 0xFFFFFFFFu, -1, 0xFFFFFFFFu)); // long has 32 bits
    EXPECT_EQ("DEADBEEF 000000AB fe", A("%08lX %08lX %hhx", 0xDEADBEEFu, 0xABu, 0x1FE));
    EXPECT_EQ("-1 255 -128", A("%hd %hhu %hhd", 0xFFFF, 0xFFF, 0x80));
    EXPECT_EQ("+7  7 007 7  |", A("%+d % d %.3d %-3d|", 7, 7, 7, 7));
    EXPECT_EQ("0x1f 0X1F 017 0", A("%#x %#X %#o %#x", 31, 31, 15, 0));
    EXPECT_EQ("   42|0042|42  |-042", A("%5d|%04d|%-4d|%04d", 42, 42, 42, -42));
    EXPECT_EQ("  003|", A("%05.3d|", 3)); // a precision switches zero filling off
    EXPECT_EQ("||", A("|%.0d|", 0));      // a zero with precision 0 is nothing at all
    EXPECT_EQ("   ab|ab   |abc|  a", A("%5s|%-5s|%.3s|%3.1s", "ab", "ab", "abcdef", "abc"));
    EXPECT_EQ("ab  |  7|7  ", A("%-*s|%*d|%*d", 4, "ab", 3, 7, -3, 7));
    EXPECT_EQ("ab|abc", A("%.*s|%.*s", 2, "abc", -1, "abc")); // a negative precision is none
    EXPECT_EQ("(null) x%", A("%s %c%%", static_cast<const char *>(nullptr), 'x'));
    EXPECT_EQ("00000000000000FF 12", A("%p %zu", reinterpret_cast<void *>(0xFF), size_t(12)));
    EXPECT_EQ("%y 5", A("%y %d", 5)); // an unknown conversion stands as it is
    EXPECT_EQ("100%", A("100%"));
}

TEST(FormatText, TextIsOfTheFormatsOwnWidthUnlessTheConversionSaysOtherwise)
{
    EXPECT_EQ(u"grün 日本 x", W(u"%s %ls %hs", u"grün", u"日本", "x"));
    EXPECT_EQ(u"\"C:\\u\" x|", W(u"\"%hs\" %hc|", "C:\\u", 'x'));
    EXPECT_EQ("gr\xC3\xBCn \xF0\x9F\x98\x80 y", A("%ls %ls %hs", u"grün", u"\xD83D\xDE00", "y"));
    EXPECT_EQ("\xEF\xBF\xBD|\xC3\xA9", A("%ls|%lc", u"\xD83D", 0xE9)); // a surrogate without partner has no UTF-8
    EXPECT_EQ(u"(null)|  é", W(u"%s|%3lc", static_cast<const char16_t *>(nullptr), 0xE9));
    const char aUnterminated[3] = {'a', 'b', 'c'};
    EXPECT_EQ("ab", A("%.2s", aUnterminated)); // nothing beyond the precision is looked at
}

TEST(FormatText, CutsAndTerminatesAndSaysSo)
{
    char sz[8];
    std::memset(sz, '#', sizeof(sz));
    EXPECT_EQ(-1, FormatTextA(sz, 5, "%s", "abcdef"));
    EXPECT_STREQ("abcd", sz);
    EXPECT_EQ('#', sz[5]);
    EXPECT_EQ(4, FormatTextA(sz, 5, "%d", 1234));
    EXPECT_EQ(-1, FormatTextA(sz, 5, "%0*d", 1 << 30, 1)); // ends when the buffer does
    EXPECT_STREQ("0000", sz);
    EXPECT_EQ(-1, FormatTextA(sz, 1, "x"));
    EXPECT_STREQ("", sz);
    EXPECT_EQ(-1, FormatTextA(nullptr, 0, "x"));
    SetLastError(1234);
    EXPECT_EQ(1, FormatTextA(sz, 5, "%ls", u"x"));
    EXPECT_EQ(1234u, GetLastError());
}

TEST(BoundedText, CopiesAndAppendsAndSaysWhetherAllFitted)
{
    char16_t sz[4];
    EXPECT_TRUE(CopyTextW(sz, 4, u"abc"));
    EXPECT_FALSE(CopyTextW(sz, 4, u"abcd"));
    EXPECT_EQ(0, CompareTextW(u"abc", sz));
    EXPECT_TRUE(CopyTextW(sz, 4, nullptr));
    EXPECT_EQ(0, sz[0]);
    EXPECT_FALSE(CopyTextW(sz, 0, u"x"));
    CopyTextW(sz, 4, u"ab");
    EXPECT_TRUE(AppendTextW(sz, 4, u"c"));
    EXPECT_FALSE(AppendTextW(sz, 4, u"d"));
    char16_t aFull[2] = {u'a', u'b'};
    EXPECT_FALSE(AppendTextW(aFull, 2, u"c")) << "a buffer without terminator is not run over";
    EXPECT_EQ(0, aFull[1]);
    EXPECT_EQ(2u, TextLengthBoundedW(u"abc", 2));
    const char16_t *pszAll = u"aab";
    EXPECT_EQ(pszAll + 1, FindTextW(pszAll, u"ab"));
    EXPECT_EQ(nullptr, FindTextW(u"ab", u"ba"));
}

TEST(TextComparison, FoldsAsTheSystemComparesFileNames)
{
    const struct {
        const char16_t *pszLeft, *pszRight;
        int             nExpected;
    } aCases[] = {
        {u"abc", u"ABC", 0},   {u"ÄÖÜ", u"äöü", 0},       {u"ЖЮ", u"жю", 0},   {u"σ", u"Σ", 0},
        {u"ÿ", u"\x0178", 0},  {u"a", u"b", -1},          {u"a_", u"aB", 1},   {u"ß", u"SS", 1},
        {u"ı", u"I", 1},       {u"ſ", u"S", 1},           {u"ab", u"abc", -1}, {u"", u"", 0},
        {u"日本", u"日本", 0}, {u"\xD83D", u"\xD83D", 0},
    };
    for (const auto &c : aCases) {
        const int32_t n = CompareTextNoCaseW(c.pszLeft, c.pszRight);
        EXPECT_EQ(c.nExpected, (n > 0) - (n < 0)) << A("%ls %ls", c.pszLeft, c.pszRight);
    }
    EXPECT_EQ(0, CompareTextNoCaseN_W(u"C:\\abX", u"c:\\ABy", 5));
    EXPECT_EQ(0, CompareTextNoCaseA("SendFile", "sendFILE"));
    EXPECT_EQ(0, CompareTextNoCaseA("\xC3\xA4", "\xC3\x84"));
    EXPECT_NE(0, CompareTextNoCaseA("\xE4", "\xC4")) << "bytes that are no UTF-8 are themselves";
    EXPECT_EQ(0, CompareTextNoCaseN_A("FileErrDFxx", "FILEERRDFyy", 9));
    EXPECT_GT(0, CompareTextNoCaseN_A("ab", "abc", 3));
}

TEST(TextNumbers, ReadAsTheRunTimeLibraryDoes)
{
    EXPECT_EQ(-42, TextToInt32A(" \t-42x"));
    EXPECT_EQ(0, TextToInt32A("x1"));
    EXPECT_EQ(INT_MAX, TextToInt32A("99999999999"));
    EXPECT_EQ(INT_MIN, TextToInt32A("-99999999999"));
    EXPECT_EQ(5000000000, TextToInt64W(u"+5000000000"));
    EXPECT_EQ(INT64_MIN, TextToInt64W(u"-9223372036854775808"));
    EXPECT_EQ(UINT64_MAX, TextToUInt64W(u"18446744073709551616"));
    EXPECT_EQ(18446744073709551615u, TextToUInt64W(u"18446744073709551615"));
}

TEST(CodePages, ConvertMeasureAndRefuse)
{
    char16_t szWide[8];
    char     sz[16];
    EXPECT_EQ(4, MultiByteToWideChar(CP_UTF8, 0, "a\xF0\x9F\x98\x80", -1, szWide, 8)); // the terminator counts
    EXPECT_EQ(0, CompareTextW(u"a\xD83D\xDE00", szWide));
    EXPECT_EQ(3, MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 0));
    EXPECT_EQ(6, WideCharToMultiByte(CP_UTF8, 0, u"äöü", 3, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(3, MultiByteToWideChar(CP_UTF8, 0, "\xFFx\xC3", 3, szWide, 8)); // what is no UTF-8 is replaced
    EXPECT_EQ(0xFFFD, szWide[0]);
    EXPECT_EQ(0xFFFD, szWide[2]);
    EXPECT_EQ(4, WideCharToMultiByte(CP_UTF8, 0, u"\xDC00", -1, sz, 16, nullptr, nullptr));
    EXPECT_STREQ("\xEF\xBF\xBD", sz);
    SetLastError(0);
    EXPECT_EQ(0, MultiByteToWideChar(CP_UTF8, 0, "abcd", -1, szWide, 4));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, u"abcd", -1, sz, 4, nullptr, nullptr));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, u"a", 0, sz, 4, nullptr, nullptr));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
}
