// text.h: one formatter and bounded text functions for char and char16_t, the same code on both backends.
// Nothing here overruns or leaves a buffer unterminated; capacities are in units and count the terminator.
#pragma once
#include "platform/types.h"
#include <cstdarg>

namespace platform {

constexpr uint32_t CP_ACP  = 0;
constexpr uint32_t CP_UTF8 = 65001;

// printf in the product's dialect: %s and %c are text of the format's own width (%hs, %hc narrow, %ls, %lc wide
// always), %d %i %u %x %X %o with h, hh, l (32 bits, as on Windows), ll and I64 (64 bits), z; %p, %%; flags - + space #
// 0, width, precision, '*'. A null text prints as "(null)". Result: units written without the terminator, or -1 when
// the text was cut (the buffer is full and terminated). An unknown conversion is copied as it stands.
int32_t FormatTextA(char *pszBuffer, size_t cch, const char *pszFormat, ...) __attribute__((nonnull(3)));
int32_t FormatTextW(char16_t *pszBuffer, size_t cch, const char16_t *pszFormat, ...) __attribute__((nonnull(3)));
int32_t FormatTextVA(char *pszBuffer, size_t cch, const char *pszFormat, va_list args);
int32_t FormatTextVW(char16_t *pszBuffer, size_t cch, const char16_t *pszFormat, va_list args);

// Copies at most cchDest - 1 units. True when the whole source fitted. A null source copies as empty.
bool CopyTextA(char *pszDest, size_t cchDest, const char *pszSource);
bool CopyTextW(char16_t *pszDest, size_t cchDest, const char16_t *pszSource);
bool AppendTextA(char *pszDest, size_t cchDest, const char *pszSource);
bool AppendTextW(char16_t *pszDest, size_t cchDest, const char16_t *pszSource);

size_t TextLengthA(const char *pszText);
size_t TextLengthW(const char16_t *pszText);
// At most cchMax, for text that may lack a terminator.
size_t TextLengthBoundedW(const char16_t *pszText, size_t cchMax);

// Below, at or above 0. Case: simple upper-case folding of the basic plane, as the system compares file names.
int32_t         CompareTextNoCaseA(const char *pszLeft, const char *pszRight);
int32_t         CompareTextNoCaseW(const char16_t *pszLeft, const char16_t *pszRight);
int32_t         CompareTextNoCaseN_A(const char *pszLeft, const char *pszRight, size_t cch);
int32_t         CompareTextNoCaseN_W(const char16_t *pszLeft, const char16_t *pszRight, size_t cch);
int32_t         CompareTextW(const char16_t *pszLeft, const char16_t *pszRight); // exact
char16_t        FoldCaseW(char16_t ch);
const char16_t *FindTextW(const char16_t *pszText, const char16_t *pszWanted); // exact; null when absent

// Decimal, as atoi and _wtoi64 read it: blanks, sign, digits; 0 when there are none.
int32_t  TextToInt32A(const char *pszText);
int64_t  TextToInt64W(const char16_t *pszText);
uint64_t TextToUInt64W(const char16_t *pszText);

// Win32 contract. cch/cb -1: terminated source, the terminator is converted too. A destination size of 0 asks for the
// length. 0 on failure (ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_PARAMETER). CP_ACP and CP_UTF8.
int32_t MultiByteToWideChar(uint32_t nCodePage, uint32_t dwFlags, const char *pszSource, int32_t cbSource,
                            char16_t *pszDest, int32_t cchDest);
int32_t WideCharToMultiByte(uint32_t nCodePage, uint32_t dwFlags, const char16_t *pszSource, int32_t cchSource,
                            char *pszDest, int32_t cbDest, const char *pszDefaultChar, BOOL *pbUsedDefaultChar);

} // namespace platform
