// folder_listing.h: the files of a whole tree, as a list.
// Threads  any; the list is the caller's.
#pragma once
#include "migration/string_list.h"
#include <cstdint>

// Appends every file below pszFolder, hidden and system ones too, in name order, folders entered where they stand
// (bRecursive 0: none is entered). dwOptions is taken for its callers' sake; it differs in nothing.
//   pszFolder  fewer than 1024 units, without trailing backslash
// 1; 0 when the folder cannot be read; -1 when a listing broke off or memory ended: the list then holds what was found
// before. A subfolder that cannot be read is passed over, and so is a path of 1024 units and more.
int32_t ListFolderFiles(const char16_t *pszFolder, uint32_t dwOptions, int32_t bRecursive, StringList *pList);
