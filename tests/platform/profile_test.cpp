// profile_test.cpp: INI files as both backends must read and write them.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/profile.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

class Profile : public MachineTest {
  protected:
    void SetUp() override
    {
        FreshMachine();
        sFile = TestFolder() + u"\\t.ini";
    }
    std::string Get(const char *pszSection, const char *pszKey, uint32_t cb = 100, uint32_t *pcb = nullptr)
    {
        char           sz[200];
        const uint32_t n = GetPrivateProfileStringA(pszSection, pszKey, "DEF", sz, cb, "C:\\vorn-test\\t.ini");
        if (pcb != nullptr) *pcb = n;
        return std::string(sz, n);
    }
    std::u16string GetWide(const char16_t *pszSection, const char16_t *pszKey)
    {
        char16_t       sz[200];
        const uint32_t n = GetPrivateProfileStringW(pszSection, pszKey, u"DEF", sz, 200, sFile.c_str());
        return std::u16string(sz, n);
    }
    BOOL Put(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue)
    {
        const BOOL bOk = WritePrivateProfileStringW(pszSection, pszKey, pszValue, sFile.c_str());
        WritePrivateProfileStringW(nullptr, nullptr, nullptr, sFile.c_str()); // older systems write then
        return bOk;
    }
    std::u16string sFile;
};

std::string Utf16(const std::u16string &sText) // with the mark
{
    return "\xFF\xFE" + std::string(reinterpret_cast<const char *>(sText.data()), sText.size() * 2);
}

} // namespace

TEST_F(Profile, ValuesAreTrimmedAndTheirQuotesStripped)
{
    WriteTestFile(
        sFile, "lost=1\r\n[S]\r\na=1\r\n b =  two words  \r\nc=\"C:\\x y\\\"\r\nd='q'\r\ne=\"open\r\nf=\" in \" "
               "\r\ng=\r\nh\r\n;k=9\r\n"
               "i==x;y\r\n\"j\"=quoted key\r\n[Other]\r\na=2\r\n[s]\r\na=3\r\nlate=1\r\n[T\r\n[U] ; note\r\na=4\r\n");
    const struct {
        const char *pszSection, *pszKey, *pszExpected;
    } aCases[] = {
        {"S", "a", "1"},   {"s", "A", "1"},      {"S", "b", "two words"}, {"S", "c", "C:\\x y\\"},
        {"S", "d", "q"},   {"S", "e", "\"open"}, {"S", "f", " in "},      {"S", "g", ""},
        {"S", "h", "DEF"}, {"S", "k", "DEF"},    {"S", "i", "=x;y"},      {"S", "\"J\"", "quoted key"},
        {"S", "j", "DEF"}, {"OTHER", "a", "2"},  {"S", "late", "DEF"},    {"T", "a", "DEF"},
        {"U", "a", "4"},   {"S", "lost", "DEF"}, {"none", "a", "DEF"},
    };
    for (const auto &c : aCases)
        EXPECT_EQ(c.pszExpected, Get(c.pszSection, c.pszKey)) << c.pszSection << '/' << c.pszKey;
}

TEST_F(Profile, WhatDoesNotFitIsCut)
{
    WriteTestFile(sFile, "[S]\r\na=123456\r\nbb=2\r\n[T]\r\nx=1\r\n");
    uint32_t cb = 0;
    EXPECT_EQ("123", Get("S", "a", 4, &cb));
    EXPECT_EQ(3u, cb);
    EXPECT_EQ("123456", Get("S", "a", 7));
    EXPECT_EQ("", Get("S", "a", 1));
    EXPECT_EQ("DE", Get("S", "none", 3));
}

TEST_F(Profile, NumbersReadAsTheSystemReadsThem)
{
    const struct {
        const char *pszValue;
        uint32_t    nExpected;
    } aCases[] = {
        {"12", 12}, {"12abc", 12}, {"abc", 0}, {"4294967295", 4294967295u}, {"\"9\"", 9}, {"99999999999", 1215752191},
        {"", 77}};
    for (const auto &c : aCases) {
        WriteTestFile(sFile, std::string("[S]\r\na=") + c.pszValue + "\r\n");
        EXPECT_EQ(c.nExpected, GetPrivateProfileIntW(u"S", u"a", 77, sFile.c_str())) << c.pszValue;
        EXPECT_EQ(c.nExpected, GetPrivateProfileIntA("S", "a", 77, "C:\\vorn-test\\t.ini")) << c.pszValue;
    }
    EXPECT_EQ(77u, GetPrivateProfileIntA("S", "none", 77, "C:\\vorn-test\\t.ini"));
    EXPECT_EQ(0u - 1, GetPrivateProfileIntA("S", "a", -1, "C:\\vorn-test\\none.ini"));
}

TEST_F(Profile, WritingChangesOneLine)
{
    const struct {
        const char     *pszBefore;
        const char16_t *pszSection, *pszKey, *pszValue;
        const char     *pszAfter;
    } aCases[] = {
        {"", u"S", u"k", u"v", "[S]\r\nk=v\r\n"},
        {"[S]\r\n", u"S", u"k", u"v", "[S]\r\nk=v\r\n"},
        {"[S]\r\na=1\r\n[T]\r\nb=2\r\n", u"s", u"k", u"v", "[S]\r\na=1\r\nk=v\r\n[T]\r\nb=2\r\n"},
        {"[S]\r\na=1", u"S", u"k", u"v", "[S]\r\na=1\r\nk=v\r\n"},
        {"[S]\r\na=1", u"T", u"k", u"v", "[S]\r\na=1\r\n[T]\r\nk=v\r\n"},
        {"[S]\r\na=1\r\na=3\r\n", u"S", u"A", u"2", "[S]\r\na=2\r\na=3\r\n"},
        {"[S]\r\na=1\r\n;c\r\nb=2\r\n", u"S", u"a", nullptr, "[S]\r\n;c\r\nb=2\r\n"},
        {"[S]\r\na=1\r\n[T]\r\nb=1\r\n", u"S", nullptr, nullptr, "[T]\r\nb=1\r\n"},
        {"[S]\r\na=1\r\n;end\r\n[T]\r\n", u"S", u"b", u"2", "[S]\r\na=1\r\n;end\r\nb=2\r\n[T]\r\n"},
        {"[S]\r\na=1\r\n", u"S", u"\"Size\"", u"\"5\"", "[S]\r\na=1\r\n\"Size\"=\"5\"\r\n"},
        {"[S]\r\na=1\r\n", u"X", nullptr, nullptr, "[S]\r\na=1\r\n"},
        {"[S]\r\na=1\r\n", u"S", u"x", nullptr, "[S]\r\na=1\r\n"},
        {"x=1\r\n[S]\r\nabc=1\r\n", u"S", u"abc", u"", "x=1\r\n[S]\r\nabc=\r\n"},
    };
    for (const auto &c : aCases) {
        WriteTestFile(sFile, c.pszBefore);
        EXPECT_TRUE(Put(c.pszSection, c.pszKey, c.pszValue)) << c.pszBefore;
        EXPECT_EQ(c.pszAfter, ReadTestFile(sFile)) << c.pszBefore;
    }
}

TEST_F(Profile, AFileThatStartsWithTheMarkStaysInUtf16)
{
    WriteTestFile(sFile, "\xFF\xFE");
    EXPECT_TRUE(Put(u"Ordner\\日本\\", u"\"Ж.txt\"", u"1"));
    EXPECT_TRUE(Put(u"Ordner\\日本\\", u"\"Ж.txt\"", u"2"));
    EXPECT_EQ(Utf16(u"[Ordner\\日本\\]\r\n\"Ж.txt\"=2\r\n"), ReadTestFile(sFile));
    EXPECT_EQ(u"2", GetWide(u"ORDNER\\日本\\", UnderWine() ? u"\"Ж.TXT\"" : u"\"ж.TXT\""))
        << "Wine folds plain letters only";
    EXPECT_TRUE(WritePrivateProfileStringA("A", "b", "c", "C:\\vorn-test\\t.ini"));
    Put(nullptr, nullptr, nullptr);
    EXPECT_EQ(Utf16(u"[Ordner\\日本\\]\r\n\"Ж.txt\"=2\r\n[A]\r\nb=c\r\n"), ReadTestFile(sFile));
    EXPECT_EQ("c", Get("A", "b"));
}

TEST_F(Profile, AMissingFileIsMadeItsFolderIsNot)
{
    EXPECT_EQ("DEF", Get("S", "k"));
    EXPECT_TRUE(Put(u"S", u"k", u"v"));
    EXPECT_EQ("[S]\r\nk=v\r\n", ReadTestFile(sFile)) << "in the ANSI code page";
    sFile = TestFolder() + u"\\none\\t.ini";
    EXPECT_FALSE(WritePrivateProfileStringW(u"S", u"k", u"v", sFile.c_str()));
    EXPECT_FALSE(PathExists(TestFolder() + u"\\none"));
}

TEST_F(Profile, ALockedFileIsNeitherReadNorWritten)
{
    WriteTestFile(sFile, "[S]\r\na=1\r\n");
    const HANDLE hFile = CreateFileW(sFile.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ("DEF", Get("S", "a"));
    SetLastError(0);
    EXPECT_FALSE(WritePrivateProfileStringW(u"S", u"a", u"2", sFile.c_str()));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, GetLastError());
    CloseHandle(hFile);
    EXPECT_EQ("1", Get("S", "a"));
}
