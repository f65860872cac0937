// machine_info.h: how a machine describes itself to its peer: known folders, computer name, user, fixed volumes.
// Format   an INI file in UTF-16, "localinfo.ini" on the machine it describes and "targetinfo.ini" on its peer. The
// quotes are part of the key names, and round every value but "Number"; the profile functions take them off when
// reading.
//            [KnownFolder]    "Windows" "ProgramFilesX86" "ProgramFilesX64" "ProgramData" "Public" "Profile" "Desktop"
//            "Documents" "Pictures": a path with trailing backslash, empty when the folder does not exist
//            [SourceMachine]  "ComputerName"; "CurrentUser": a SID as text
//            [Volume]         Number; [Volume0] [Volume1] ...: Path, the root of a fixed volume
// Threads  any; no lock.
#pragma once
#include "migration/known_folders.h"
#include "migration/string_list.h"
#include "platform/types.h"
#include <cstdint>

// Names that readers of the file outside this module use.
constexpr char16_t SOURCE_MACHINE_SECTION[] = u"SourceMachine";
constexpr char16_t COMPUTER_NAME_KEY[]      = u"\"ComputerName\"";
constexpr char16_t CURRENT_USER_KEY[]       = u"\"CurrentUser\"";

// Roots ("C:\") of the fixed drives without removable media that are no hot-plug devices and stand for a
// volume of a disk, in letter order. A drive that
// does not answer the hot-plug query counts as one that cannot be pulled.
void GetFixedVolumes(StringList *pList);
// 1 and the SID as text (pszSid: 260 units), or 0 with the text empty. The system is asked once for each process, and a
// domain may take its time: lifecycle asks ahead of the first session. Whoever comes meanwhile waits for that answer.
int32_t GetCurrentUserSid(char16_t *pszSid);
void    ForgetCurrentUserSid(); // tests only: another machine's user is asked for anew
// The machine's name (pszName: 260 units), or 0 with the text empty.
int32_t GetOwnComputerName(char16_t *pszName);
// Adds the sections above to an existing INI file. 1 when the system folders were written.
//   pszCurrentUserSid  not null, may be empty
int32_t WriteMachineInfo(const char16_t *pszIniPath, const char16_t *pszCurrentUserSid);
// Each list may be null and is filled only when empty. 1 when the system folder list was filled (with empty texts where
// the file says nothing, so also for a missing file). Volumes: drive roots only, everything else is passed over.
int32_t ReadMachineInfo(const char16_t *pszIniPath, StringList *pSystem, StringList *pUser, StringList *pVolumes);
