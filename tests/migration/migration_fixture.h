// migration_fixture.h: a machine with fresh state files, and texts and lists as tests compare them.
#pragma once
#include "migration/machine_info.h"
#include "migration/state_files.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "tests/support/test_machine.h"
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Paths = std::vector<std::u16string>;

// The bytes of a UTF-16 file, less its mark.
inline std::string Utf16(const std::u16string &sText)
{
    return std::string(reinterpret_cast<const char *>(sText.data()), sText.size() * 2);
}
inline std::string Utf8(const std::u16string &sText)
{
    std::string   sOut(sText.size() * 3 + 1, '\0');
    const int32_t cb =
        platform::WideCharToMultiByte(platform::CP_UTF8, 0, sText.c_str(), static_cast<int32_t>(sText.size()),
                                      sOut.data(), static_cast<int32_t>(sOut.size()), nullptr, nullptr);
    sOut.resize(static_cast<size_t>(cb));
    return sOut;
}
// The list's texts; frees it.
inline Paths Texts(StringList *pList)
{
    Paths aTexts;
    for (const StringEntry *pEntry = pList->pFirst; pEntry != nullptr; pEntry = pEntry->pNext)
        aTexts.emplace_back(StringText(pEntry));
    FreeStringList(pList);
    return aTexts;
}

class MigrationTest : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetStateFiles();
        ForgetCurrentUserSid();
    }
    // The full path of a state file.
    static std::u16string File(const char16_t *pszName)
    {
        char16_t szPath[260];
        EXPECT_EQ(1, GetProgressFile(pszName, szPath));
        return szPath;
    }
    // A value of a state file.
    static void Ini(const char16_t *pszName, const char16_t *pszSection, const char16_t *pszKey,
                    const std::u16string &sValue)
    {
        ASSERT_TRUE(platform::WritePrivateProfileStringW(pszSection, pszKey, sValue.c_str(), File(pszName).c_str()));
    }
};
