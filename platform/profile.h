// profile.h: private-profile (INI) files.
// Format   the W functions keep a file that starts with FF FE in UTF-16LE, any other in the ANSI code page. Section and
//          key names compare without regard to case; quotes round a value are stripped on reading; values and keys are
//          trimmed of blanks; a line that starts with ';' is a comment. A value longer than the buffer is cut.
// Threads  any; one write is whole against every other process of the machine.
#pragma once
#include "platform/types.h"

namespace platform {

// Result: units or bytes copied, without the terminator.
uint32_t GetPrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszDefault, char *pszBuffer,
                                  uint32_t cch, const char *pszFile);
uint32_t GetPrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszDefault,
                                  char16_t *pszBuffer, uint32_t cch, const char16_t *pszFile);
uint32_t GetPrivateProfileIntA(const char *pszSection, const char *pszKey, int32_t nDefault, const char *pszFile);
uint32_t GetPrivateProfileIntW(const char16_t *pszSection, const char16_t *pszKey, int32_t nDefault,
                               const char16_t *pszFile);
// A null value removes the key, a null key the section. The file is created when missing, its folder is not.
BOOL WritePrivateProfileStringA(const char *pszSection, const char *pszKey, const char *pszValue, const char *pszFile);
BOOL WritePrivateProfileStringW(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue,
                                const char16_t *pszFile);

} // namespace platform
