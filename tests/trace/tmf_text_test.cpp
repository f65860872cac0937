// tmf_text_test.cpp: the TMF file that is made of the display table (what that shows: trace_log_hosted_test.cpp).
#include "trace/tmf_text.h"
#include <gtest/gtest.h>
#include <string>

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
    // A buffer that is too small gives nothing.
    std::string sExact(cb + 1, 0);
    EXPECT_EQ(cb, FormatTmfText(sExact.data(), cb + 1));
    for (const size_t cbSmall : {size_t{1}, size_t{40}, cb / 2, cb}) {
        std::string sSmall(cbSmall, 0);
        EXPECT_EQ(0u, FormatTmfText(sSmall.data(), cbSmall)) << cbSmall;
    }
}
