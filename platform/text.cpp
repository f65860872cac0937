// text.cpp: bounded copies, comparisons and numbers for both text widths.
// Narrow text is UTF-8 where it is valid UTF-8; any other byte compares as itself, so that text of unknown origin never
// makes two different texts equal.
#include "platform/text.h"
#include "platform/unicode.h"

namespace platform {
namespace {

template <class Char> size_t Length(const Char *pszText)
{
    size_t cch = 0;
    if (pszText != nullptr)
        while (pszText[cch] != 0) cch++;
    return cch;
}

template <class Char> size_t LengthBounded(const Char *pszText, size_t cchMax)
{
    size_t cch = 0;
    if (pszText != nullptr)
        while (cch < cchMax && pszText[cch] != 0) cch++;
    return cch;
}

template <class Char> bool Copy(Char *pszDest, size_t cchDest, const Char *pszSource)
{
    static const Char chNone = 0;
    if (pszDest == nullptr || cchDest == 0) return false;
    if (pszSource == nullptr) pszSource = &chNone;
    size_t i = 0;
    for (; i + 1 < cchDest && pszSource[i] != 0; i++) pszDest[i] = pszSource[i];
    pszDest[i] = 0;
    return pszSource[i] == 0;
}

template <class Char> bool Append(Char *pszDest, size_t cchDest, const Char *pszSource)
{
    if (pszDest == nullptr || cchDest == 0) return false;
    const size_t cch = LengthBounded(pszDest, cchDest);
    if (cch == cchDest) { // it had no terminator, so there is nothing to append to
        pszDest[cchDest - 1] = 0;
        return false;
    }
    return Copy(pszDest + cch, cchDest - cch, pszSource);
}

uint32_t FoldPoint(uint32_t nPoint)
{
    return nPoint < 0x10000 ? FoldCaseW(static_cast<char16_t>(nPoint)) : nPoint;
}

// One folded code point of narrow text, or a byte that is none, set apart from every code point.
uint32_t NextFolded(const char *psz, size_t cb, size_t *pcbUsed)
{
    const uint8_t c = static_cast<uint8_t>(psz[0]);
    *pcbUsed        = 1;
    if (c < 0x80) return FoldPoint(c);
    const uint32_t nPoint = DecodeUtf8(psz, cb, pcbUsed, false);
    if (nPoint != NO_CODE_POINT) return FoldPoint(nPoint);
    *pcbUsed = 1;
    return 0x110000u + c;
}

int32_t Sign(uint32_t nLeft, uint32_t nRight)
{
    return nLeft < nRight ? -1 : nLeft > nRight ? 1 : 0;
}

int32_t CompareFoldedA(const char *pszLeft, size_t cbLeft, const char *pszRight, size_t cbRight)
{
    while (cbLeft != 0 && cbRight != 0) {
        size_t         nUsedLeft, nUsedRight;
        const uint32_t nLeft  = NextFolded(pszLeft, cbLeft, &nUsedLeft);
        const uint32_t nRight = NextFolded(pszRight, cbRight, &nUsedRight);
        if (nLeft != nRight) return Sign(nLeft, nRight);
        pszLeft += nUsedLeft;
        pszRight += nUsedRight;
        cbLeft -= nUsedLeft;
        cbRight -= nUsedRight;
    }
    return cbLeft != 0 ? 1 : cbRight != 0 ? -1 : 0;
}

template <class Char> bool IsBlank(Char c)
{
    return c == ' ' || (c >= 9 && c <= 13);
}

// Sign and magnitude; the magnitude stops at the largest value instead of wrapping.
template <class Char> uint64_t Magnitude(const Char *pszText, bool *pbNegative)
{
    uint64_t nValue = 0;
    *pbNegative     = false;
    if (pszText == nullptr) return 0;
    while (IsBlank(*pszText)) pszText++;
    if (*pszText == '-' || *pszText == '+') *pbNegative = *pszText++ == '-';
    for (; *pszText >= '0' && *pszText <= '9'; pszText++) {
        const uint64_t nDigit = static_cast<uint64_t>(*pszText - '0');
        if (nValue > (UINT64_MAX - nDigit) / 10) return UINT64_MAX;
        nValue = nValue * 10 + nDigit;
    }
    return nValue;
}

template <class Char> int64_t ToInt64(const Char *pszText, int64_t nMin, int64_t nMax)
{
    bool           bNegative;
    const uint64_t nValue = Magnitude(pszText, &bNegative);
    if (bNegative) return nValue > static_cast<uint64_t>(nMax) ? nMin : -static_cast<int64_t>(nValue);
    return nValue > static_cast<uint64_t>(nMax) ? nMax : static_cast<int64_t>(nValue);
}

} // namespace

bool CopyTextA(char *pszDest, size_t cchDest, const char *pszSource)
{
    return Copy(pszDest, cchDest, pszSource);
}
bool CopyTextW(char16_t *pszDest, size_t cchDest, const char16_t *pszSource)
{
    return Copy(pszDest, cchDest, pszSource);
}
bool AppendTextA(char *pszDest, size_t cchDest, const char *pszSource)
{
    return Append(pszDest, cchDest, pszSource);
}
size_t TextLengthA(const char *pszText)
{
    return Length(pszText);
}
size_t TextLengthW(const char16_t *pszText)
{
    return Length(pszText);
}
size_t TextLengthBoundedW(const char16_t *pszText, size_t cchMax)
{
    return LengthBounded(pszText, cchMax);
}

bool AppendTextW(char16_t *pszDest, size_t cchDest, const char16_t *pszSource)
{
    return Append(pszDest, cchDest, pszSource);
}

int32_t CompareTextNoCaseA(const char *pszLeft, const char *pszRight)
{
    return CompareFoldedA(pszLeft, Length(pszLeft), pszRight, Length(pszRight));
}

int32_t CompareTextNoCaseN_A(const char *pszLeft, const char *pszRight, size_t cch)
{
    return CompareFoldedA(pszLeft, LengthBounded(pszLeft, cch), pszRight, LengthBounded(pszRight, cch));
}

int32_t CompareTextNoCaseN_W(const char16_t *pszLeft, const char16_t *pszRight, size_t cch)
{
    for (size_t i = 0; i < cch; i++) {
        const char16_t chLeft  = pszLeft != nullptr ? FoldCaseW(pszLeft[i]) : u'\0';
        const char16_t chRight = pszRight != nullptr ? FoldCaseW(pszRight[i]) : u'\0';
        if (chLeft != chRight) return Sign(chLeft, chRight);
        if (chLeft == 0) break;
    }
    return 0;
}

int32_t CompareTextNoCaseW(const char16_t *pszLeft, const char16_t *pszRight)
{
    return CompareTextNoCaseN_W(pszLeft, pszRight, SIZE_MAX);
}

int32_t CompareTextW(const char16_t *pszLeft, const char16_t *pszRight)
{
    const size_t cchLeft = Length(pszLeft), cchRight = Length(pszRight);
    for (size_t i = 0; i < cchLeft && i < cchRight; i++)
        if (pszLeft[i] != pszRight[i]) return Sign(pszLeft[i], pszRight[i]);
    return cchLeft < cchRight ? -1 : cchLeft > cchRight ? 1 : 0;
}

const char16_t *FindTextW(const char16_t *pszText, const char16_t *pszWanted)
{
    if (pszText == nullptr || pszWanted == nullptr) return nullptr;
    for (;; pszText++) {
        size_t i = 0;
        while (pszWanted[i] != 0 && pszText[i] == pszWanted[i]) i++;
        if (pszWanted[i] == 0) return pszText;
        if (*pszText == 0) return nullptr;
    }
}

int32_t TextToInt32A(const char *pszText)
{
    return static_cast<int32_t>(ToInt64(pszText, INT32_MIN, INT32_MAX));
}

int64_t TextToInt64W(const char16_t *pszText)
{
    return ToInt64(pszText, INT64_MIN, INT64_MAX);
}

uint64_t TextToUInt64W(const char16_t *pszText)
{
    bool           bNegative;
    const uint64_t nValue = Magnitude(pszText, &bNegative);
    return bNegative && nValue != UINT64_MAX ? 0 - nValue : nValue;
}

} // namespace platform
