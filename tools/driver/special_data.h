// special_data.h: what moves beside a person's files, as the two services play it: which settings and applications can
// be moved (asked by the new machine, answered with files in the mapping folder), and their data, moved in caches.
#pragma once
#include "tools/driver/machine.h"

enum class SpecialKind { SettingsSupported, ApplicationsSupported, Setting, Application };

struct SpecialData {
    SpecialKind                                   eKind;
    std::string                                   sName;  // of its folder on both machines
    uint32_t                                      dwItem; // which setting (1 to 11), or the application's tag
    std::vector<std::pair<std::string, uint64_t>> files;  // names below the folder, bytes; an answer names the first
    bool                                          bReserved = false; // the old machine's service keeps the cache
    // what became of it
    std::string sPlace{}; // the folder on the new machine
    uint64_t    cb       = 0;
    size_t      nReports = 0; // of progress
};
// One of each kind, and a second setting.
std::vector<SpecialData> UsualSpecialData();

// Makes the files in the old user's application data, has the new machine's service ask and the old one's gather and
// answer, and compares what came, byte by byte. False with *psError. The machines are linked, and the new one's service
// has told its role (TellRoleAndOptions).
bool PlaySpecialData(const MachinePtr &old, const MachinePtr &next, SpecialData *pData, std::string *psError);
// Each file of the data byte by byte below its folder, and nothing else there. "" or what is wrong.
std::string CompareSpecialData(const MachinePtr &old, const MachinePtr &machine, const SpecialData &data,
                               const std::string &sFolder);
// Where the old machine's service gathers the data of a setting or an application.
std::string CacheFolder(const MachinePtr &machine, const SpecialData &data);
