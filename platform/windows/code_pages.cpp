// code_pages.cpp: conversion between UTF-16 and a code page, by the system's own tables.
#include "platform/text.h"

// Taken before the SDK makes macros of the same names.
static constexpr uint32_t g_nAnsi = platform::CP_ACP, g_nUtf8 = platform::CP_UTF8;

#include <windows.h>

static_assert(g_nAnsi == CP_ACP && g_nUtf8 == CP_UTF8);
static_assert(sizeof(char16_t) == sizeof(wchar_t) && sizeof(platform::BOOL) == sizeof(::BOOL));

namespace platform {

int32_t MultiByteToWideChar(uint32_t nCodePage, uint32_t dwFlags, const char *pszSource, int32_t cbSource,
                            char16_t *pszDest, int32_t cchDest)
{
    return ::MultiByteToWideChar(nCodePage, dwFlags, pszSource, cbSource, reinterpret_cast<wchar_t *>(pszDest),
                                 cchDest);
}

int32_t WideCharToMultiByte(uint32_t nCodePage, uint32_t dwFlags, const char16_t *pszSource, int32_t cchSource,
                            char *pszDest, int32_t cbDest, const char *pszDefaultChar, BOOL *pbUsedDefaultChar)
{
    return ::WideCharToMultiByte(nCodePage, dwFlags, reinterpret_cast<const wchar_t *>(pszSource), cchSource, pszDest,
                                 cbDest, pszDefaultChar, pbUsedDefaultChar);
}

} // namespace platform
