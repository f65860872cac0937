// path_map.h: translation of paths between the source's layout and the target's.
// Case     paths compare without regard to case, unit by unit.
// Threads  a map is owned by the operation that built it (on its stack, zeroed); nothing is shared.
#pragma once
#include "migration/string_list.h"
#include <cstdint>

constexpr uint32_t MAP_PATH_UNITS = 1024; // of a prefix, and the longest path a translation can give

// A folder of the source and the folder that stands for it on the target, both with trailing backslash.
struct PathPair {
    PathPair *pPrevious;
    PathPair *pNext;
    char16_t  szSource[MAP_PATH_UNITS];
    char16_t  szTarget[MAP_PATH_UNITS];
};
struct PathMap {
    PathPair  *pFirstPair; // insertion order is match priority
    PathPair  *pLastPair;
    StringList PeerVolumes;           // roots that the source has; receiving side only
    StringList DestinationVolumes;    // roots that the target has
    char16_t   szUnmappedPrefix[260]; // "C:\OLDPC_": where drives go that the target does not have
    char16_t   szWindowsFolder[260];  // the destination's
    uint32_t   bInitialised;
    uint32_t   bUserDiffers; // both users are known and are not the same
    char16_t   szSourceSid[260];
    char16_t   szTargetSid[260];
};

// Builds a zeroed or released map. bIsTarget 1: this machine is the destination and the INI describes the source; 0:
// the other way round. No effect when it is already initialised. An INI that is missing or cut gives fewer pairs, never
// wrong ones.
void InitPathMap(PathMap *pMap, const char16_t *pszIniPath, int32_t bIsTarget);
// Frees what the map holds, only if it is initialised; it may be built again.
void ReleasePathMap(PathMap *pMap);
// Rewrites a path in place: plain, behind a leading quote or '@', or in the form "file:///"; what follows the path (a
// closing quote, arguments) is carried along.
//   cch                   units of pszPath with the terminator
//   bRequireSourceVolume  1: a path on a drive that the source is known not to have is no path of the source and stays
//    1  rewritten      0  left as it was: nothing applies, no such map, or the result has no room in pszPath
int32_t TranslatePath(const PathMap *pMap, char16_t *pszPath, uint32_t cch, int32_t bRequireSourceVolume);
// TranslatePath without a required volume, for whoever is about to send something there: 1 rewritten, 0 stays as it is,
// -1 the translated path has no room in pszPath or would be cut: nothing may be sent to where it would land otherwise.
int32_t TranslateForTarget(const PathMap *pMap, char16_t *pszPath, uint32_t cch);
// The same for a folder path without trailing backslash, which a pair's prefix alone would not match.
int32_t TranslateFolderPath(const PathMap *pMap, char16_t *pszPath, uint32_t cch, int32_t bRequireSourceVolume);
