// file_queries.h: what walks ask of a file or folder before they send it.
// Threads  any.
#pragma once
#include <cstdint>

// "\\?\" is used for paths of 260 units and more.
bool    IsFolderReadOnly(const char16_t *pszFolder); // false also when it cannot be asked
int64_t GetFileSize64(const char16_t *pszPath);      // bytes, 0 when it cannot be asked
