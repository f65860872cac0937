// unique_name.h: a free name beside one that is taken: "report (2).txt".
// Threads  any. A name is free when it is found; nothing keeps it so.
#pragma once
#include <cstdint>

constexpr uint32_t UNIQUE_PATH_UNITS = 1024;

// pszPath: 1024 units, a file's path in the plain form of whatever length. 1 when it was replaced by a free name, 0
// when it is free as it is or none was found.
int32_t MakeUniqueFileName(char16_t *pszPath);
// The path whose name has the number: 1 is the path itself, 2 has " (2)" before its extension.
//   pszNumbered  1024 units; false when the path does not fit
bool NumberFileName(const char16_t *pszPath, uint32_t nNumber, char16_t *pszNumbered);
// The first number from nFirst on under which the path's name is free, with that path in pszFree (1024 units). 0: none.
uint32_t FindFreeFileName(const char16_t *pszPath, uint32_t nFirst, char16_t *pszFree);
