// errors_test.cpp: last errors and the system's texts.
#include "platform/errors.h"
#include "platform/sockets.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <thread>

using namespace platform;

class Errors : public MachineTest {};

namespace {

uint32_t SystemText(uint32_t dwCode, std::u16string *psText)
{
    char16_t      *pszText = nullptr;
    const uint32_t cch =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
                       nullptr, dwCode, 0x400, &pszText, 0, nullptr);
    if (cch != 0) psText->assign(pszText);
    LocalFree(pszText);
    return cch;
}

} // namespace

TEST_F(Errors, EveryThreadHasItsOwnAndWinsockSharesIt)
{
    uint32_t dwOther = 1;
    SetLastError(5);
    const int32_t nShared = WSAGetLastError();
    std::thread([&] { dwOther = GetLastError(); }).join();
    EXPECT_EQ(5, nShared);
    EXPECT_EQ(0u, dwOther);
    WSASetLastError(WSAETIMEDOUT);
    EXPECT_EQ(10060u, GetLastError());
}

TEST_F(Errors, TextsEndWithALineBreakAndAnUnknownCodeHasNone)
{
    for (const uint32_t dwCode : {0u, 2u, 3u, 5u, 32u, 112u, 183u, 10038u, 10048u, 10054u, 10060u, 10061u, 11001u}) {
        std::u16string sText;
        const uint32_t cch = SystemText(dwCode, &sText);
        if (cch == 0 && UnderWine() && dwCode >= 10000) continue; // its table has but some of the socket errors
        EXPECT_EQ(cch, sText.size()) << dwCode;
        EXPECT_GT(sText.size(), 8u) << dwCode;
        EXPECT_TRUE(sText.ends_with(u"\r\n")) << dwCode;
        EXPECT_EQ(sText.size() - 2, sText.find_first_of(u"\r\n")) << dwCode << ": one line";
    }
    std::u16string sText;
    EXPECT_EQ(0u, SystemText(0x2FFFFFFF, &sText));
    EXPECT_EQ(317u, GetLastError());
    EXPECT_TRUE(sText.empty());
}
