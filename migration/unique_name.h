// unique_name.h: a free name beside one that is taken: "report (2).txt".
#pragma once
#include <cstdint>

constexpr uint32_t UNIQUE_PATH_UNITS = 1024;

// pszPath: 1024 units, a file's path in the plain form of whatever length. 1 when it was replaced by a free name, 0
// when it is free as it is or none was found. Any thread; the name is free when it is found, nothing keeps it so.
int32_t MakeUniqueFileName(char16_t *pszPath);
