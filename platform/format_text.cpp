// format_text.cpp: the printf dialect of the product's messages.
// Width and precision count units of the format's own width; text of the other width is converted first. A flag, width
// or precision that the run-time library of Windows ignores for a conversion is ignored here too. The last error stays
// as it was, so that a caller can format it.
#include "platform/text.h"
#include "platform/unicode.h"
#include <type_traits>

namespace platform {
namespace {

template <class Char> struct Output {
    Char  *pszBuffer;
    size_t cch;   // capacity with the terminator
    size_t nUsed; // units written
    bool   bCut;
};

template <class Char> void Put(Output<Char> *pOut, Char c)
{
    if (pOut->nUsed + 1 < pOut->cch) pOut->pszBuffer[pOut->nUsed++] = c;
    else pOut->bCut = true;
}

template <class Char> void PutMany(Output<Char> *pOut, Char c, int64_t nCount)
{
    for (; nCount > 0 && !pOut->bCut; nCount--) Put(pOut, c);
}

enum class Size { Default, Byte, Short, Long, Long64, Pointer };

struct Conversion {
    bool    bLeft, bPlus, bBlank, bHash, bZero;
    int32_t nWidth;
    int32_t nPrecision; // -1: none given
    Size    eSize;
};

// Hands each unit of text, converted to the format's width, to use(); stops when it says false.
template <class Char, class Source, class Use> void EachUnit(const Source *psz, size_t cch, Use use)
{
    if constexpr (std::is_same_v<Char, Source>) {
        for (size_t i = 0; i < cch; i++)
            if (!use(psz[i])) return;
    } else {
        for (size_t i = 0, nUsed = 0; i < cch; i += nUsed) {
            uint32_t nPoint;
            if constexpr (std::is_same_v<Source, char>) nPoint = DecodeUtf8(psz + i, cch - i, &nUsed, false);
            else nPoint = DecodeUtf16(psz + i, cch - i, &nUsed);
            if (nPoint == NO_CODE_POINT || IsSurrogate(nPoint)) nPoint = REPLACEMENT_CHARACTER;
            Char   aUnits[4];
            size_t nUnits;
            if constexpr (std::is_same_v<Char, char>) nUnits = EncodeUtf8(nPoint, aUnits);
            else nUnits = EncodeUtf16(nPoint, aUnits);
            for (size_t j = 0; j < nUnits; j++)
                if (!use(aUnits[j])) return;
        }
    }
}

template <class Char, class Source> void PutText(Output<Char> *pOut, const Conversion &c, const Source *psz, size_t cch)
{
    const size_t nLimit = c.nPrecision < 0 ? SIZE_MAX : static_cast<size_t>(c.nPrecision);
    size_t       nUnits = 0;
    if (c.nWidth > 0)
        EachUnit<Char>(psz, cch, [&](Char) { return nUnits < nLimit && ++nUnits < static_cast<size_t>(c.nWidth); });
    const int64_t nPad = c.nWidth - static_cast<int64_t>(nUnits);
    if (!c.bLeft) PutMany(pOut, c.bZero ? Char('0') : Char(' '), nPad);
    size_t nPut = 0;
    EachUnit<Char>(psz, cch, [&](Char unit) {
        if (nPut++ >= nLimit) return false;
        Put(pOut, unit);
        return !pOut->bCut;
    });
    if (c.bLeft) PutMany(pOut, Char(' '), nPad);
}

template <class Char, class Source> void PutString(Output<Char> *pOut, Conversion c, const Source *psz)
{
    static const Source aNull[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
    if (psz == nullptr) psz = aNull;
    size_t cch = 0;
    if (c.nPrecision < 0)
        while (psz[cch] != 0) cch++;
    else // the text may lack a terminator beyond the precision; a source unit gives at least a third of a target unit
        while (cch < static_cast<size_t>(c.nPrecision) * (sizeof(Char) > sizeof(Source) ? 4 : 1) && psz[cch] != 0)
            cch++;
    PutText(pOut, c, psz, cch);
}

template <class Char>
void PutNumber(Output<Char> *pOut, const Conversion &c, uint64_t nValue, bool bSigned, bool bNegative, int nBase,
               bool bUpper)
{
    const char *pszDigits = bUpper ? "0123456789ABCDEF" : "0123456789abcdef";
    char        aDigits[24];
    int         nDigits = 0;
    const bool  bHash   = c.bHash && nValue != 0;
    for (uint64_t n = nValue; n != 0; n /= static_cast<unsigned>(nBase)) aDigits[nDigits++] = pszDigits[n % nBase];
    int64_t nZeros = (c.nPrecision < 0 ? 1 : c.nPrecision) - nDigits;
    if (nZeros < 0) nZeros = 0;
    if (nBase == 8 && bHash && nZeros == 0) nZeros = 1;

    char aPrefix[3];
    int  nPrefix = 0;
    if (bSigned && bNegative) aPrefix[nPrefix++] = '-';
    else if (bSigned && c.bPlus) aPrefix[nPrefix++] = '+';
    else if (bSigned && c.bBlank) aPrefix[nPrefix++] = ' ';
    if (nBase == 16 && bHash) {
        aPrefix[nPrefix++] = '0';
        aPrefix[nPrefix++] = bUpper ? 'X' : 'x';
    }
    int64_t nPad = c.nWidth - (nZeros + nDigits + nPrefix);
    if (c.bZero && !c.bLeft && c.nPrecision < 0 && nPad > 0) {
        nZeros += nPad;
        nPad = 0;
    }
    if (!c.bLeft) PutMany(pOut, Char(' '), nPad);
    for (int i = 0; i < nPrefix; i++) Put(pOut, static_cast<Char>(aPrefix[i]));
    PutMany(pOut, Char('0'), nZeros);
    while (nDigits > 0) Put(pOut, static_cast<Char>(aDigits[--nDigits]));
    if (c.bLeft) PutMany(pOut, Char(' '), nPad);
}

// Digits of a width or precision; stops growing at a size no buffer has.
template <class Char> int32_t ReadDigits(const Char **ppsz)
{
    int32_t n = 0;
    for (; **ppsz >= '0' && **ppsz <= '9'; ++*ppsz)
        if (n < 0x1000000) n = n * 10 + static_cast<int32_t>(**ppsz - '0');
    return n;
}

template <class Char> const Char *ReadFlags(const Char *psz, Conversion *pC)
{
    for (;; psz++) {
        if (*psz == '-') pC->bLeft = true;
        else if (*psz == '+') pC->bPlus = true;
        else if (*psz == ' ') pC->bBlank = true;
        else if (*psz == '#') pC->bHash = true;
        else if (*psz == '0') pC->bZero = true;
        else return psz;
    }
}

// *pbNarrow and *pbWide report h and l for text conversions.
template <class Char> const Char *ReadSize(const Char *psz, Conversion *pC)
{
    pC->eSize = Size::Default;
    if (psz[0] == 'h') {
        pC->eSize = psz[1] == 'h' ? Size::Byte : Size::Short;
        return psz + (psz[1] == 'h' ? 2 : 1);
    }
    if (psz[0] == 'l') {
        pC->eSize = psz[1] == 'l' ? Size::Long64 : Size::Long;
        return psz + (psz[1] == 'l' ? 2 : 1);
    }
    if (psz[0] == 'I' && psz[1] == '6' && psz[2] == '4') {
        pC->eSize = Size::Long64;
        return psz + 3;
    }
    if (psz[0] == 'z') {
        pC->eSize = Size::Pointer;
        return psz + 1;
    }
    return psz;
}

struct Arguments {
    va_list list;
};

// Width and precision, as digits or as an argument each.
template <class Char> const Char *ReadExtent(const Char *psz, Arguments *pArgs, Conversion *pC)
{
    if (*psz == '*') {
        psz++;
        const int32_t n = va_arg(pArgs->list, int);
        pC->bLeft       = pC->bLeft || n < 0;
        pC->nWidth      = n == INT32_MIN ? INT32_MAX : n < 0 ? -n : n;
    } else {
        pC->nWidth = ReadDigits(&psz);
    }
    pC->nPrecision = -1;
    if (*psz != '.') return psz;
    if (*++psz != '*') {
        pC->nPrecision = ReadDigits(&psz);
        return psz;
    }
    const int32_t n = va_arg(pArgs->list, int);
    pC->nPrecision  = n < 0 ? -1 : n;
    return psz + 1;
}

template <class Char> void PutCharacter(Output<Char> *pOut, Conversion c, int n, bool bWide)
{
    c.nPrecision        = -1;
    const char16_t wide = static_cast<char16_t>(n);
    const char     ch   = static_cast<char>(n);
    if (bWide) PutText(pOut, c, &wide, 1);
    else PutText(pOut, c, &ch, 1);
}

template <class Char> void PutSigned(Output<Char> *pOut, const Conversion &c, Arguments *pArgs)
{
    int64_t n;
    if (c.eSize == Size::Long64 || c.eSize == Size::Pointer) n = va_arg(pArgs->list, int64_t);
    else n = va_arg(pArgs->list, int);
    if (c.eSize == Size::Short) n = static_cast<int16_t>(n);
    if (c.eSize == Size::Byte) n = static_cast<int8_t>(n);
    const uint64_t nMagnitude = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
    PutNumber(pOut, c, nMagnitude, true, n < 0, 10, false);
}

template <class Char> void PutUnsigned(Output<Char> *pOut, const Conversion &c, Arguments *pArgs, Char cKind)
{
    uint64_t n;
    if (c.eSize == Size::Long64 || c.eSize == Size::Pointer) n = va_arg(pArgs->list, uint64_t);
    else n = va_arg(pArgs->list, unsigned);
    if (c.eSize == Size::Short) n = static_cast<uint16_t>(n);
    if (c.eSize == Size::Byte) n = static_cast<uint8_t>(n);
    PutNumber(pOut, c, n, false, false, cKind == 'u' ? 10 : cKind == 'o' ? 8 : 16, cKind == 'X');
}

// One conversion. False when cKind is none.
template <class Char> bool PutConversion(Output<Char> *pOut, Conversion c, Char cKind, Arguments *pArgs)
{
    const bool bWide = c.eSize == Size::Long || (c.eSize == Size::Default && sizeof(Char) == sizeof(char16_t));
    switch (cKind) {
    case 's':
        if (bWide) PutString(pOut, c, va_arg(pArgs->list, const char16_t *));
        else PutString(pOut, c, va_arg(pArgs->list, const char *));
        return true;
    case 'c': PutCharacter(pOut, c, va_arg(pArgs->list, int), bWide); return true;
    case 'd':
    case 'i': PutSigned(pOut, c, pArgs); return true;
    case 'u':
    case 'x':
    case 'X':
    case 'o': PutUnsigned(pOut, c, pArgs, cKind); return true;
    case 'p': // 16 upper-case digits, as the run-time library of 64-bit Windows prints it
        c.nPrecision = 16;
        c.bHash      = false;
        PutNumber(pOut, c, reinterpret_cast<uintptr_t>(va_arg(pArgs->list, void *)), false, false, 16, true);
        return true;
    case '%': Put(pOut, cKind); return true;
    default: return false;
    }
}

template <class Char> int32_t Format(Char *pszBuffer, size_t cch, const Char *pszFormat, va_list argsGiven)
{
    if (pszBuffer == nullptr || cch == 0) return -1;
    Output<Char> out = {pszBuffer, cch, 0, false};
    Arguments    args;
    va_copy(args.list, argsGiven);
    while (*pszFormat != 0 && !out.bCut) {
        if (*pszFormat != '%') {
            Put(&out, *pszFormat++);
            continue;
        }
        const Char *pszStart = pszFormat++;
        Conversion  c        = {};
        pszFormat            = ReadFlags(pszFormat, &c);
        pszFormat            = ReadExtent(pszFormat, &args, &c);
        pszFormat            = ReadSize(pszFormat, &c);
        if (PutConversion(&out, c, *pszFormat, &args)) pszFormat++;
        else // as it stands; what ended it is looked at again, for it may be a terminator or another '%'
            while (pszStart != pszFormat) Put(&out, *pszStart++);
    }
    va_end(args.list);
    out.pszBuffer[out.nUsed] = 0;
    return out.bCut ? -1 : static_cast<int32_t>(out.nUsed);
}

} // namespace

int32_t FormatTextVA(char *pszBuffer, size_t cch, const char *pszFormat, va_list args)
{
    return Format(pszBuffer, cch, pszFormat, args);
}

int32_t FormatTextVW(char16_t *pszBuffer, size_t cch, const char16_t *pszFormat, va_list args)
{
    return Format(pszBuffer, cch, pszFormat, args);
}

int32_t FormatTextA(char *pszBuffer, size_t cch, const char *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const int32_t nResult = Format(pszBuffer, cch, pszFormat, args);
    va_end(args);
    return nResult;
}

int32_t FormatTextW(char16_t *pszBuffer, size_t cch, const char16_t *pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    const int32_t nResult = Format(pszBuffer, cch, pszFormat, args);
    va_end(args);
    return nResult;
}

} // namespace platform
