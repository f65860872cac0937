// machine.h: what machine.ini says, and making a machine.
// machine.ini  UTF-8, one setting a line:
//   [machine]  computer, user, sid, session, domain (empty: the user is the computer's own)
//   [drives]   C=fixed|removable|hotplug|cdrom|remote; a drive_x folder without an entry is fixed
//   [folders]  the known folders by the names below, as Windows paths; an empty value cannot be resolved
//   [program]  path, discovery: Windows paths of the agent and the discovery program
//   [adapters] see adapters.cpp
#pragma once
#include "platform/types.h"
#include <string>
#include <utility>
#include <vector>

namespace hosted {

inline constexpr const char *DRIVE_KINDS[] = {"fixed", "removable", "hotplug", "cdrom", "remote"};
bool                         IsDriveKind(const std::string &sKind);

// The known folders of a machine in the order they are made, parents first.
struct KnownFolder {
    const char *pszName; // the key in [folders]
    const char *pszTail; // below the user's profile when it starts with a backslash, else a whole path
};
const std::vector<KnownFolder> &KnownFolders();
inline constexpr const char    *PROGRAM_FOLDER = "C:\\Program Files\\VORN\\VORN Qelvane";
inline constexpr const char    *PROGRAM_NAME   = "VornTramsaNet.exe";
inline constexpr const char    *DISCOVERY_NAME = "VornTramsaNetMDNS.exe";

struct MachinePlan {
    std::string sComputer = "HOSTED-PC";
    std::string sUser     = "User";
    std::string sDomain;
    int         nSession = 1;
    // Letter and kind; C is added when it is missing.
    std::vector<std::pair<char, std::string>> aDrives;
    // Known folder and Windows path, instead of the usual one.
    std::vector<std::pair<std::string, std::string>> aFolders;
};
// Writes machine.ini and registry.ini and makes the drives and folders. An existing machine.ini is kept as it is; what
// it names and is missing is made. False with the last error set.
bool CreateMachine(const std::string &sFolder, const MachinePlan &plan);

// Moves this process to a machine like UseMachine, but makes nothing that is missing in it; for a tool that reports it.
bool LookAt(const std::string &sFolder);

// A setting of the current machine's machine.ini; sDefault when it is not there.
std::string MachineSetting(const char *pszSection, const char *pszKey, const char *pszDefault);
// Makes what a machine needs at least (machine.ini, registry.ini, drive_c with the known folders) where it is missing;
// UseMachine has made the folder itself and run/ before. False with the last error set.
bool MakeMachine(const std::string &sFolder);

// One [folders] entry of the current machine; "" when it cannot be resolved.
std::string KnownFolderSetting(const char *pszName);
// All entries of a section of a machine's INI file, in order. False: the file cannot be read, or *pnBadLine (from 1) is
// no setting, section or comment.
bool ReadMachineFile(const std::string &sFile, const char *pszSection,
                     std::vector<std::pair<std::string, std::string>> *paEntries, int *pnBadLine = nullptr);

} // namespace hosted
