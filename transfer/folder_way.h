// folder_way.h: the folders on a walk's way, as the file system sees them, so that a link which leads back to one of
// them is not entered: its content would be sent again and again, until the target's disk is full.
// Threads  a walk owns its way.
#pragma once
#include "platform/files.h"

// One link that was entered, and those before it. Null: none.
struct EnteredLink;

// True for a folder that is another name (a junction, a directory link). A folder kept in a cloud stands for itself.
bool IsFolderLink(const platform::WIN32_FIND_DATAW *pEntry);
// The way with this link on it; LeaveLink gives back pWay. Null: the link leads to a folder on the way or above it,
// leads nowhere, or memory is short, and must not be entered.
//   pszFolder  the folder the link is in     pszLink  the link's path; both shorter than 1024 units
EnteredLink *EnterLink(EnteredLink *pWay, const char16_t *pszFolder, const char16_t *pszLink);
EnteredLink *LeaveLink(EnteredLink *pWay);
