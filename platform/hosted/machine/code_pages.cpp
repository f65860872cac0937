// code_pages.cpp: conversion between UTF-16 and the two code pages of a hosted machine.
// Both are UTF-8: the ANSI code page of a hosted machine is 65001. Bytes that are no UTF-8 become U+FFFD, one for each
// longest prefix of a sequence; a surrogate without partner becomes the bytes of U+FFFD.
#include "platform/errors.h"
#include "platform/text.h"
#include "platform/unicode.h"

namespace platform {
namespace {

constexpr uint32_t CONVERT_STRICT = 8; // MB_ERR_INVALID_CHARS

int32_t Refuse(uint32_t dwError)
{
    SetLastError(dwError);
    return 0;
}

// True when the arguments that both directions share can be honoured.
bool CheckArguments(uint32_t nCodePage, const void *pSource, int32_t nSource, const void *pDest, int32_t nDest)
{
    return (nCodePage == CP_ACP || nCodePage == CP_UTF8) && pSource != nullptr && pSource != pDest && nSource >= -1 &&
           nSource != 0 && nDest >= 0 && (nDest == 0 || pDest != nullptr);
}

// Appends units while they fit whole; counts only when there is no destination size. False when full.
template <class Char> bool Take(Char *pDest, int32_t nDest, int64_t *pnUsed, const Char *pUnits, size_t nUnits)
{
    if (nDest != 0) {
        if (*pnUsed + static_cast<int64_t>(nUnits) > nDest) return false;
        for (size_t i = 0; i < nUnits; i++) pDest[*pnUsed + static_cast<int64_t>(i)] = pUnits[i];
    }
    *pnUsed += static_cast<int64_t>(nUnits);
    return *pnUsed <= INT32_MAX;
}

} // namespace

int32_t MultiByteToWideChar(uint32_t nCodePage, uint32_t dwFlags, const char *pszSource, int32_t cbSource,
                            char16_t *pszDest, int32_t cchDest)
{
    if (!CheckArguments(nCodePage, pszSource, cbSource, pszDest, cchDest)) return Refuse(ERROR_INVALID_PARAMETER);
    if (dwFlags != 0 && dwFlags != CONVERT_STRICT) return Refuse(ERROR_NOT_SUPPORTED);
    const size_t cb    = cbSource < 0 ? TextLengthA(pszSource) + 1 : static_cast<size_t>(cbSource);
    int64_t      nUsed = 0;
    for (size_t i = 0, n = 0; i < cb; i += n) {
        char16_t aUnits[2];
        uint32_t nPoint = DecodeUtf8(pszSource + i, cb - i, &n, false);
        if (nPoint == NO_CODE_POINT) {
            if (dwFlags == CONVERT_STRICT) return Refuse(1113); // ERROR_NO_UNICODE_TRANSLATION
            nPoint = REPLACEMENT_CHARACTER;
        }
        if (!Take(pszDest, cchDest, &nUsed, aUnits, EncodeUtf16(nPoint, aUnits)))
            return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    return static_cast<int32_t>(nUsed);
}

int32_t WideCharToMultiByte(uint32_t nCodePage, uint32_t dwFlags, const char16_t *pszSource, int32_t cchSource,
                            char *pszDest, int32_t cbDest, const char *pszDefaultChar, BOOL *pbUsedDefaultChar)
{
    if (!CheckArguments(nCodePage, pszSource, cchSource, pszDest, cbDest)) return Refuse(ERROR_INVALID_PARAMETER);
    if (nCodePage == CP_UTF8 && (pszDefaultChar != nullptr || pbUsedDefaultChar != nullptr))
        return Refuse(ERROR_INVALID_PARAMETER);
    if (dwFlags != 0) return Refuse(ERROR_NOT_SUPPORTED);
    if (pbUsedDefaultChar != nullptr) *pbUsedDefaultChar = FALSE; // every character has a form in UTF-8
    const size_t cch   = cchSource < 0 ? TextLengthW(pszSource) + 1 : static_cast<size_t>(cchSource);
    int64_t      nUsed = 0;
    for (size_t i = 0, n = 0; i < cch; i += n) {
        char     aUnits[4];
        uint32_t nPoint = DecodeUtf16(pszSource + i, cch - i, &n);
        if (IsSurrogate(nPoint)) nPoint = REPLACEMENT_CHARACTER;
        if (!Take(pszDest, cbDest, &nUsed, aUnits, EncodeUtf8(nPoint, aUnits)))
            return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    return static_cast<int32_t>(nUsed);
}

} // namespace platform
