// folders.h: a folder with all its missing parents, and the long form of a path.
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

// The form in which a path of cchLimit units and more can be opened: "\\?\" in front, unless it has it. Shorter paths
// come back as they are, and so does one too long for the buffer (the call it is given to then fails).
//   szLong  holds the long form when it is needed
constexpr size_t LONG_PATH_UNITS = 1024 + 4; // the longest path, and the prefix
const char16_t  *LongPathForm(const char16_t *pszPath, size_t cchLimit, char16_t (&szLong)[LONG_PATH_UNITS]);
