// unicode.h: one code point in and out of UTF-8 and UTF-16, for the backends and the functions of text.h.
// Threads  any; no state.
#pragma once
#include <cstddef>
#include <cstdint>

namespace platform {

constexpr uint32_t REPLACEMENT_CHARACTER = 0xFFFD;
constexpr uint32_t NO_CODE_POINT         = 0xFFFFFFFF;

constexpr bool IsHighSurrogate(uint32_t c)
{
    return c >= 0xD800 && c <= 0xDBFF;
}
constexpr bool IsLowSurrogate(uint32_t c)
{
    return c >= 0xDC00 && c <= 0xDFFF;
}
constexpr bool IsSurrogate(uint32_t c)
{
    return c >= 0xD800 && c <= 0xDFFF;
}

// Reads one code point of at least one byte. *pcbUsed receives 1 to 4. For bytes that are no UTF-8: NO_CODE_POINT, and
// *pcbUsed is the length of the longest prefix of a valid sequence (at least 1), which readers replace as a whole.
// bSurrogates lets a three-byte surrogate pass, as names on disk need it.
inline uint32_t DecodeUtf8(const char *pszSource, size_t cb, size_t *pcbUsed, bool bSurrogates)
{
    const uint8_t *p = reinterpret_cast<const uint8_t *>(pszSource);
    const uint8_t  c = p[0];
    *pcbUsed         = 1;
    if (c < 0x80) return c;
    if (c < 0xC2 || c > 0xF4) return NO_CODE_POINT;
    const size_t nTrail = c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
    uint32_t     nPoint = c & (0x3F >> nTrail);
    for (size_t i = 1; i <= nTrail; i++) {
        uint8_t nLow = 0x80, nHigh = 0xBF;
        if (i == 1) { // the second byte decides about over-long forms, surrogates and the end of the code space
            if (c == 0xE0) nLow = 0xA0;
            if (c == 0xED && !bSurrogates) nHigh = 0x9F;
            if (c == 0xF0) nLow = 0x90;
            if (c == 0xF4) nHigh = 0x8F;
        }
        if (i >= cb || p[i] < nLow || p[i] > nHigh) return NO_CODE_POINT;
        nPoint   = nPoint << 6 | (p[i] & 0x3F);
        *pcbUsed = i + 1;
    }
    return nPoint;
}

// Writes 1 to 4 bytes (surrogates as three) and gives their number. aOut holds 4.
inline size_t EncodeUtf8(uint32_t nPoint, char *aOut)
{
    if (nPoint < 0x80) {
        aOut[0] = static_cast<char>(nPoint);
        return 1;
    }
    if (nPoint < 0x800) {
        aOut[0] = static_cast<char>(0xC0 | nPoint >> 6);
        aOut[1] = static_cast<char>(0x80 | (nPoint & 0x3F));
        return 2;
    }
    if (nPoint < 0x10000) {
        aOut[0] = static_cast<char>(0xE0 | nPoint >> 12);
        aOut[1] = static_cast<char>(0x80 | (nPoint >> 6 & 0x3F));
        aOut[2] = static_cast<char>(0x80 | (nPoint & 0x3F));
        return 3;
    }
    aOut[0] = static_cast<char>(0xF0 | nPoint >> 18);
    aOut[1] = static_cast<char>(0x80 | (nPoint >> 12 & 0x3F));
    aOut[2] = static_cast<char>(0x80 | (nPoint >> 6 & 0x3F));
    aOut[3] = static_cast<char>(0x80 | (nPoint & 0x3F));
    return 4;
}

// Reads one code point of at least one unit; a surrogate without its partner comes back as itself.
inline uint32_t DecodeUtf16(const char16_t *pszSource, size_t cch, size_t *pcchUsed)
{
    const uint32_t c = pszSource[0];
    *pcchUsed        = 1;
    if (IsHighSurrogate(c) && cch > 1 && IsLowSurrogate(pszSource[1])) {
        *pcchUsed = 2;
        return 0x10000 + ((c - 0xD800) << 10) + (pszSource[1] - 0xDC00u);
    }
    return c;
}

// Writes 1 or 2 units and gives their number. aOut holds 2.
inline size_t EncodeUtf16(uint32_t nPoint, char16_t *aOut)
{
    if (nPoint < 0x10000) {
        aOut[0] = static_cast<char16_t>(nPoint);
        return 1;
    }
    aOut[0] = static_cast<char16_t>(0xD800 + ((nPoint - 0x10000) >> 10));
    aOut[1] = static_cast<char16_t>(0xDC00 + ((nPoint - 0x10000) & 0x3FF));
    return 2;
}

} // namespace platform
