// profile.cpp: the private-profile functions.
// The narrow functions are the wide ones with the text converted: a file with FF FE stays UTF-16LE whoever writes it.
#include "platform/profile.h"
#include "platform/errors.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/hosted/profile/profile_store.h"
#include "platform/text.h"
#include <algorithm>
#include <cstring>

namespace {

using namespace platform;
using hosted::ProfileText;

// Optional text in UTF-16.
struct Wide {
    explicit Wide(const char *psz) : bGiven(psz != nullptr), sText(psz == nullptr ? u"" : hosted::ToUtf16(psz)) {}
    const char16_t *Get() const { return bGiven ? sText.c_str() : nullptr; }
    bool            bGiven;
    std::u16string  sText;
};

// False: the default is to be given.
bool Query(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszFile, std::u16string *psResult)
{
    bool     bFound  = false;
    uint32_t dwError = ERROR_NOT_SUPPORTED; // lists of sections and keys
    if (pszSection != nullptr && pszKey != nullptr)
        dwError = hosted::ReadProfile(pszFile, [&](const ProfileText &text) {
            std::u16string_view sValue;
            bFound = text.Read(pszSection, pszKey, &sValue);
            if (bFound) *psResult = sValue;
        });
    if (!bFound) hosted::SetError(dwError != 0 ? dwError : ERROR_FILE_NOT_FOUND);
    return bFound;
}

// What does not fit is cut.
template <class Char> uint32_t Give(const std::basic_string<Char> &sResult, Char *pszBuffer, uint32_t cch)
{
    if (pszBuffer == nullptr || cch == 0) return 0;
    const size_t nGive = std::min<size_t>(sResult.size(), cch - 1);
    std::memcpy(pszBuffer, sResult.data(), nGive * sizeof(Char));
    pszBuffer[nGive] = 0;
    return static_cast<uint32_t>(nGive);
}

std::u16string WithoutTrailingBlanks(std::u16string sText)
{
    while (!sText.empty() && (sText.back() == u' ' || sText.back() == u'\t')) sText.pop_back();
    return sText;
}

// The whole number at the start of a value; too large ones wrap. Signs and other bases are nobody's here.
uint32_t NumberIn(const std::u16string &sValue)
{
    uint32_t nValue = 0;
    for (size_t i = 0; i < sValue.size() && sValue[i] >= u'0' && sValue[i] <= u'9'; i++)
        nValue = nValue * 10 + (sValue[i] - u'0');
    return nValue;
}

uint32_t QueryNumber(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault, const char16_t *pszFile)
{
    std::u16string sValue;
    if (!Query(pszSection, pszKey, pszFile, &sValue) || sValue.empty()) return static_cast<uint32_t>(nDefault);
    return NumberIn(sValue);
}

BOOL Change(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue, const char16_t *pszFile)
{
    uint32_t dwError =
        ERROR_FILE_NOT_FOUND; // what writing out the cache of an older system answers, and no section at all
    if (pszSection != nullptr) {
        const bool bWrites = pszKey != nullptr && pszValue != nullptr;
        dwError            = hosted::ChangeProfile(pszFile, bWrites, [&](ProfileText *pText) {
            if (pszKey == nullptr) return pText->RemoveSection(pszSection);
            if (pszValue == nullptr) return pText->RemoveKey(pszSection, pszKey);
            return pText->Write(pszSection, pszKey, pszValue);
        });
    }
    if (dwError == 0) return TRUE;
    hosted::SetError(dwError);
    return FALSE;
}

} // namespace

uint32_t platform::GetPrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszDefault,
                                            char *pszBuffer, uint32_t cch, const char *pszFile)
{
    std::u16string sResult;
    if (!hosted::FailsNow("GetPrivateProfileStringA") &&
        Query(Wide(pszSection).Get(), Wide(pszKey).Get(), Wide(pszFile).Get(), &sResult))
        return Give(hosted::ToUtf8(sResult), pszBuffer, cch);
    return Give(hosted::ToUtf8(WithoutTrailingBlanks(Wide(pszDefault).sText)), pszBuffer, cch);
}

uint32_t platform::GetPrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey,
                                            const char16_t *pszDefault, char16_t *pszBuffer, uint32_t cch,
                                            const char16_t *pszFile)
{
    std::u16string sResult;
    if (!hosted::FailsNow("GetPrivateProfileStringW") && Query(pszSection, pszKey, pszFile, &sResult))
        return Give(sResult, pszBuffer, cch);
    return Give(WithoutTrailingBlanks(pszDefault == nullptr ? u"" : pszDefault), pszBuffer, cch);
}

uint32_t platform::GetPrivateProfileIntA(const char *pszSection, const char *pszKey, int32_t nDefault,
                                         const char *pszFile)
{
    if (hosted::FailsNow("GetPrivateProfileIntA")) return static_cast<uint32_t>(nDefault);
    return QueryNumber(Wide(pszSection).Get(), Wide(pszKey).Get(), nDefault, Wide(pszFile).Get());
}

uint32_t platform::GetPrivateProfileIntW(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault,
                                         const char16_t *pszFile)
{
    if (hosted::FailsNow("GetPrivateProfileIntW")) return static_cast<uint32_t>(nDefault);
    return QueryNumber(pszSection, pszKey, nDefault, pszFile);
}

platform::BOOL platform::WritePrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszValue,
                                                    const char *pszFile)
{
    if (hosted::FailsNow("WritePrivateProfileStringA")) return FALSE;
    return Change(Wide(pszSection).Get(), Wide(pszKey).Get(), Wide(pszValue).Get(), Wide(pszFile).Get());
}

platform::BOOL platform::WritePrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey,
                                                    const char16_t *pszValue, const char16_t *pszFile)
{
    if (hosted::FailsNow("WritePrivateProfileStringW")) return FALSE;
    return Change(pszSection, pszKey, pszValue, pszFile);
}
