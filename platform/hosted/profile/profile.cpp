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

// *psResult: the value, or a list of names each with its terminator. False: the default is to be given.
bool Query(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszFile, std::u16string *psResult)
{
    bool           bFound  = false;
    const uint32_t dwError = hosted::ReadProfile(pszFile, [&](const ProfileText &text) {
        if (pszSection == nullptr) {
            *psResult = text.Sections();
            bFound    = true;
        } else if (pszKey == nullptr) {
            bFound = text.Keys(pszSection, psResult);
        } else {
            std::u16string_view sValue;
            bFound = text.Read(pszSection, pszKey, &sValue);
            if (bFound) *psResult = sValue;
        }
    });
    if (!bFound) hosted::SetError(dwError != 0 ? dwError : ERROR_FILE_NOT_FOUND);
    return bFound;
}

// Copies a value (one terminator) or a list (one more at its end); what does not fit is cut.
template <class Char> uint32_t Give(const std::basic_string<Char> &sResult, bool bList, Char *pszBuffer, uint32_t cch)
{
    const uint32_t nTerminators = bList ? 2 : 1;
    if (pszBuffer == nullptr || cch == 0) return 0;
    if (cch < nTerminators) {
        pszBuffer[0] = 0;
        return 0;
    }
    // The last name of a list brings its own terminator.
    const size_t nWhole = sResult.size() + (bList && !sResult.empty() ? 1 : nTerminators);
    const size_t nGive  = nWhole <= cch ? sResult.size() : cch - nTerminators;
    memcpy(pszBuffer, sResult.data(), nGive * sizeof(Char));
    for (size_t i = nGive; i < cch && i < nGive + nTerminators; i++) pszBuffer[i] = 0;
    return static_cast<uint32_t>(nGive);
}

std::u16string WithoutTrailingBlanks(std::u16string sText)
{
    while (!sText.empty() && (sText.back() == u' ' || sText.back() == u'\t')) sText.pop_back();
    return sText;
}

// The whole number at the start of a value, as the system reads it: sign, 0x, digits; too large ones wrap.
uint32_t NumberIn(const std::u16string &sValue)
{
    size_t i = 0;
    while (i < sValue.size() && sValue[i] <= u' ') i++;
    const bool bNegative = i < sValue.size() && sValue[i] == u'-';
    if (i < sValue.size() && (sValue[i] == u'-' || sValue[i] == u'+')) i++;
    const uint32_t nBase = sValue.compare(i, 2, u"0x") == 0 ? 16 : 10;
    if (nBase == 16) i += 2;
    uint32_t nValue = 0;
    for (; i < sValue.size(); i++) {
        const char16_t ch     = sValue[i];
        const uint32_t nDigit = ch >= u'0' && ch <= u'9'                 ? ch - u'0'
                                : (ch | 32) >= u'a' && (ch | 32) <= u'f' ? (ch | 32) - u'a' + 10u
                                                                         : 99;
        if (nDigit >= nBase) break;
        nValue = nValue * nBase + nDigit;
    }
    return bNegative ? 0 - nValue : nValue;
}

uint32_t QueryNumber(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault, const char16_t *pszFile)
{
    std::u16string sValue;
    if (pszSection == nullptr || pszKey == nullptr || !Query(pszSection, pszKey, pszFile, &sValue) || sValue.empty())
        return static_cast<uint32_t>(nDefault);
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
    const bool     bList = pszSection == nullptr || pszKey == nullptr;
    std::u16string sResult;
    if (!hosted::FailsNow("GetPrivateProfileStringA") &&
        Query(Wide(pszSection).Get(), Wide(pszKey).Get(), Wide(pszFile).Get(), &sResult))
        return Give(hosted::ToUtf8(sResult), bList, pszBuffer, cch);
    return Give(hosted::ToUtf8(WithoutTrailingBlanks(Wide(pszDefault).sText)), false, pszBuffer, cch);
}

uint32_t platform::GetPrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey,
                                            const char16_t *pszDefault, char16_t *pszBuffer, uint32_t cch,
                                            const char16_t *pszFile)
{
    const bool     bList = pszSection == nullptr || pszKey == nullptr;
    std::u16string sResult;
    if (!hosted::FailsNow("GetPrivateProfileStringW") && Query(pszSection, pszKey, pszFile, &sResult))
        return Give(sResult, bList, pszBuffer, cch);
    return Give(WithoutTrailingBlanks(pszDefault == nullptr ? u"" : pszDefault), false, pszBuffer, cch);
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
