// folders.h: a folder with all its missing parents.
// Threads  any; no lock.
#pragma once
#include <cstddef>
#include <cstdint>

// A folder path of more units than this is made level by level on its "\\?\" form: a folder must leave room for a short
// file name below 260 units, so the shell and CreateDirectoryW refuse longer ones.
constexpr size_t FOLDER_PATH_UNITS = 247;

// Creates the folder and every missing parent. The path is absolute ("C:\..." or "\\?\C:\..."), with or without
// trailing backslash, at most 1023 units.
//    1  a folder of that path exists now (whoever made it)
//    0  it does not: GetLastError says why (a file in its place, a missing drive, no access, a full disk)
int32_t CreateFolderTree(const char16_t *pszFolder);
