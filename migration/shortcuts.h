// shortcuts.h: shell links received from the source machine, rewritten to the target's layout.
#pragma once
#include "migration/path_map.h"
#include <cstdint>

// Names either a list of links or one link (the other is null). Links of a list are rewritten wherever they point; a
// single link only when it points to a drive that the source has, so that a link that came from elsewhere stays as it
// is.
struct ShortcutRequest {
    const StringList *pLinks;
    const char16_t   *pszLink;
};
// The number of links rewritten; 0 also when shell links cannot be had. Runs on a thread of its own, since it enters a
// COM apartment; the request is not kept.
int32_t FixShortcuts(const ShortcutRequest *pRequest);
// 1 when the link was rewritten and saved, 0 when it was left as it was. The thread of FixShortcuts.
int32_t FixShortcut(const PathMap *pMap, const char16_t *pszLink, int32_t bRequireSourceVolume);
