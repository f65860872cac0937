// path.h: path text functions under their Win32 names, the same code on both backends. They look at text only, never at
// the disk. Capacities are in units with the terminator.
#pragma once
#include "platform/types.h"

namespace platform {

// Removes the last component and its backslash in place (never the root's). TRUE when something was removed.
BOOL PathRemoveFileSpecA(char *pszPath);
// Win32 contract for drive paths, UNC and "\\?\" paths: S_OK, S_FALSE (1) when nothing was removed, or a negative
// error.
HRESULT PathCchRemoveFileSpec(char16_t *pszPath, size_t cch);
// S_OK, S_FALSE (1) when it ends with one already, negative when there is no room. An empty path stays empty (S_FALSE).
HRESULT PathCchAddBackslash(char16_t *pszPath, size_t cch);
// The part after the last backslash, slash or drive colon that is followed by something; the whole text if there is
// none.
const char16_t *PathFindFileNameW(const char16_t *pszPath);
// The last '.' of the last component with what follows, or the terminator. A blank after the dot ends an extension.
const char16_t *PathFindExtensionW(const char16_t *pszPath);

// The form in which a path of cchLimit units and more can be opened: "\\?\" in front, unless it has it. Shorter paths
// come back as they are, and so does one too long for the buffer (the call it is given to then fails).
//   szLong  holds the long form when it is needed
constexpr size_t LONG_PATH_UNITS = 1024 + 4; // the longest path, and the prefix
const char16_t  *LongPathForm(const char16_t *pszPath, size_t cchLimit, char16_t (&szLong)[LONG_PATH_UNITS]);

} // namespace platform
