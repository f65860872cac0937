// known_folders.h: the folders of this machine that both machines have under different paths.
// Threads  any; no lock.
#pragma once
#include "migration/string_list.h"
#include <cstdint>

constexpr uint32_t SYSTEM_FOLDER_COUNT = 6; // Windows, ProgramFilesX86, ProgramFilesX64, ProgramData, Public, Profile
constexpr uint32_t USER_FOLDER_COUNT   = 3; // Desktop, Documents, Pictures
constexpr size_t   MACHINE_TEXT_UNITS  = 260;

// Append one entry for each known folder in the order above, with trailing backslash, empty when it cannot be resolved:
// the two machines' lists are paired by position. (Fewer entries only without memory.)
void GetSystemFolderList(StringList *pList);
void GetUserFolderList(StringList *pList);
// What the walk through whole drives leaves out; entries without trailing backslash. Lists may be null.
//   pSystem        Windows, both program folders, ProgramData, and what an earlier Windows left behind
//   ("C:\Windows.old")
//   pUserProfiles  the folder that holds all users' profiles
//   pProfile       this user's profile and the public one
// The last two are filled together, each as far as the folders can be resolved in that order.
void GetUpgradeFolders(StringList *pSystem, StringList *pUserProfiles, StringList *pProfile);
