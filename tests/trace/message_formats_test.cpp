// message_formats_test.cpp: the display table is whole, and the TMF file is made of it.
#include "trace/message_formats.h"
#include "trace/tmf_text.h"
#include <gtest/gtest.h>
#include <string>

TEST(MessageFormats, EveryNumberHasARowThatShowsEachArgumentOnce)
{
    static const struct {
        uint16_t    nNumber;
        const char *pszTypes;
    } aRows[] = {{37, "s"},     {38, "s"},     {10, "ss"},     {34, "ss"},       {13, "ssu"},
                 {16, "ssuu"},  {29, "ssu"},   {30, "ssuu"},   {25, "ssuuus"},   {27, "ssuuusss"},
                 {21, "ssus"},  {22, "ssus"},  {28, "ssuss"},  {35, "sss"},      {36, "sss"}};
    static_assert(std::size(aRows) == TRACE_MESSAGE_COUNT);
    for (const auto &row : aRows) {
        const platform::TraceMessageFormat *pFormat = FindTraceMessageFormat(row.nNumber);
        ASSERT_NE(nullptr, pFormat) << row.nNumber;
        EXPECT_STREQ(row.pszTypes, pFormat->pszTypes) << row.nNumber;
        const std::string sFormat = pFormat->pszFormat;
        for (size_t n = 1; n <= 9; n++) {
            const std::string sArgument = "%" + std::to_string(n);
            const bool        bShown    = sFormat.find(sArgument) != sFormat.npos;
            EXPECT_EQ(n <= std::string(row.pszTypes).size(), bShown) << row.nNumber << " argument " << n;
            EXPECT_EQ(sFormat.find(sArgument), sFormat.rfind(sArgument)) << row.nNumber << " argument " << n;
        }
    }
    EXPECT_EQ(nullptr, FindTraceMessageFormat(11));
}

TEST(TmfText, HoldsOneEntryPerMessageInTheReadersNumbering)
{
    std::string  sText(TMF_TEXT_BYTES, '?');
    const size_t cb = FormatTmfText(sText.data(), sText.size());
    ASSERT_GT(cb, 0u);
    sText.resize(cb);
    EXPECT_EQ(0u, sText.find("eab78ba6-c61f-3835-08b6-ab28bc8b575d VornTramsaNet // SRC=trace_log.cpp MJ= MN=\r\n"));
    EXPECT_NE(sText.npos,
              sText.find("#typev trace_log_cpp13 13 \"%0%10!s!: %11!s!, %12!u! bytes\" //   FUNC=TraceMessage\r\n"
                         "{\r\nArg1, ItemString -- 10\r\nArg2, ItemString -- 11\r\nArg3, ItemLong -- 12\r\n}\r\n"));
    size_t nEntries = 0;
    for (size_t n = sText.find("#typev"); n != sText.npos; n = sText.find("#typev", n + 1)) nEntries++;
    EXPECT_EQ(15u, nEntries);
}

TEST(TmfText, ABufferThatIsTooSmallGivesNothing)
{
    std::string  sWhole(TMF_TEXT_BYTES, 0);
    const size_t cb = FormatTmfText(sWhole.data(), sWhole.size());
    for (const size_t cbSmall : {size_t{1}, size_t{40}, cb / 2, cb}) {
        std::string sText(cbSmall, 0);
        EXPECT_EQ(0u, FormatTmfText(sText.data(), sText.size())) << cbSmall;
    }
    std::string sExact(cb + 1, 0);
    EXPECT_EQ(cb, FormatTmfText(sExact.data(), sExact.size()));
}
