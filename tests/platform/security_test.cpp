// security_test.cpp: the access list for Everyone and the user's identity.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/pipes.h"
#include "platform/security.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <cstring>

using namespace platform;

namespace {

class Security : public MachineTest {};

} // namespace

TEST_F(Security, EveryonesRightsReadBackAsTheSystemStoresThem)
{
    uint32_t             dwMask = 0, nEntries = 0;
    SECURITY_ATTRIBUTES *pAll   = CreateEveryoneSecurity(FILE_EVERYONE_ACCESS);
    SECURITY_ATTRIBUTES *pPipe  = CreateEveryoneSecurity(PIPE_EVERYONE_ACCESS);
    ASSERT_TRUE(pAll != nullptr && pPipe != nullptr);
    HANDLE hFile =
        CreateFileW((TestFolder() + u"\\f").c_str(), GENERIC_WRITE | READ_CONTROL, 0, pAll, CREATE_ALWAYS, 0, nullptr);
    EXPECT_TRUE(ReadEveryoneAccess(hFile, SecuredObject::File, &dwMask, &nEntries));
    // Wine keeps a file's access list as the host's permission bits: three entries, and no right to change the list.
    EXPECT_EQ(UnderWine() ? 0x1301FFu : 0x1F01FFu, dwMask);
    EXPECT_EQ(UnderWine() ? 3u : 1u, nEntries);
    CloseHandle(hFile);
    const HANDLE hPipe = CreateNamedPipeW(u"\\\\.\\pipe\\vorn-security-test", PIPE_ACCESS_INBOUND,
                                          PIPE_TYPE_MESSAGE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 0, 4096, 0, pPipe);
    ASSERT_NE(INVALID_HANDLE_VALUE, hPipe);
    EXPECT_TRUE(ReadEveryoneAccess(hPipe, SecuredObject::Kernel, &dwMask, &nEntries));
    EXPECT_EQ(PIPE_EVERYONE_ACCESS, dwMask);
    EXPECT_EQ(1u, nEntries);
    CloseHandle(hPipe);
    const struct {
        HANDLE   h;
        uint32_t dwMeant,
            dwExpected; // the rights that mean something for the kind of object, and those of them that are given
    } aObjects[] = {{CreateEventW(pPipe, TRUE, FALSE, u"Global\\VORN security test event"), 0x1F0003, 0x120003},
                    {CreateMutexW(pPipe, FALSE, u"Global\\VORN security test mutex_0x1"), 0x1F0001, 0x120001}};
    for (const auto &object : aObjects) {
        dwMask = nEntries = 0;
        EXPECT_TRUE(ReadEveryoneAccess(object.h, SecuredObject::Kernel, &dwMask, &nEntries));
        EXPECT_EQ(object.dwExpected, dwMask & object.dwMeant);
        EXPECT_EQ(1u, nEntries);
        CloseHandle(object.h);
    }
    const HANDLE hPlain = CreateEventW(nullptr, TRUE, FALSE, u"Global\\VORN security test event");
    EXPECT_FALSE(ReadEveryoneAccess(hPlain, SecuredObject::Kernel, &dwMask, &nEntries)) << "made without a list";
    CloseHandle(hPlain);
    FreeSecurity(pAll);
    FreeSecurity(pPipe);
    FreeSecurity(nullptr);
    EXPECT_FALSE(ReadEveryoneAccess(hFile, SecuredObject::File, &dwMask, &nEntries)) << "a closed handle";
}

TEST_F(Security, TheUserHasASid)
{
    char16_t szUser[260], szDomain[260];
    uint32_t cch = 260, cchDomain = 260, cbSid = 68;
    uint8_t  aSid[68];
    SID_NAME_USE eUse = SidTypeUnknown;
    ASSERT_TRUE(GetUserNameW(szUser, &cch));
    EXPECT_EQ(TextLengthW(szUser) + 1, cch) << "the terminator counts";
    std::u16string sAccount = szUser;
    if (!LookupAccountNameW(nullptr, sAccount.c_str(), aSid, &cbSid, szDomain, &cchDomain, &eUse) ||
        eUse != SidTypeUser) {
        sAccount = std::u16string(szDomain) + u'\\' + szUser;
        cbSid = 68, cchDomain = 260;
        ASSERT_TRUE(LookupAccountNameW(nullptr, sAccount.c_str(), aSid, &cbSid, szDomain, &cchDomain, &eUse));
    }
    ASSERT_EQ(SidTypeUser, eUse);
    EXPECT_EQ(TextLengthW(szDomain), cchDomain);
    char16_t *pszSid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(aSid, &pszSid));
    EXPECT_EQ(0, CompareTextNoCaseN_W(pszSid, u"S-1-5-", 6));
    LocalFree(pszSid);

    cbSid = 4, cchDomain = 1;
    EXPECT_FALSE(LookupAccountNameW(nullptr, sAccount.c_str(), aSid, &cbSid, szDomain, &cchDomain, &eUse));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    EXPECT_LT(4u, cbSid);
    cbSid = 68, cchDomain = 260;
    EXPECT_FALSE(LookupAccountNameW(nullptr, u"no such user", aSid, &cbSid, szDomain, &cchDomain, &eUse));
    EXPECT_EQ(ERROR_NONE_MAPPED, GetLastError());
    cch = 1;
    EXPECT_FALSE(GetUserNameW(szUser, &cch));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    aSid[0] = 9;
    EXPECT_FALSE(ConvertSidToStringSidW(aSid, &pszSid));
}
