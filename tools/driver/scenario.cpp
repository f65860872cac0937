// scenario.cpp: the conversation of a migration. Waits are on records; the times are bounds, not pauses.
#include "tools/driver/scenario.h"
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

bool StartMachine(const MachinePtr &machine, const std::map<std::string, std::string> &agentEnvironment)
{
    if (!machine->console && !StartConsole(machine)) return false;
    return StartAgent(machine, agentEnvironment) && Command(machine, "expect NTOS_IPCREADY p1=1 within=60") &&
           Command(machine, "agent present within=90");
}

bool LinkByPin(const MachinePtr &server, const MachinePtr &client, std::string *psPin)
{
    if (!Command(server, "send STON_GETPINCODE 1") ||
        !Command(server, "expect STON_GETPINCODE p1=3 set=PIN:p2 within=90"))
        return false;
    const std::string sPin = ConsoleVariable(server, "PIN");
    if (psPin != nullptr) *psPin = sPin;
    return Command(client, "send STON_SETPINCCODE 1 " + sPin) &&
           Command(client, "expect STON_SETPINCCODE p1=2 within=90") &&
           Command(server, "expect STON_GETPINCODE p1=2 within=90");
}

bool LinkAgain(const MachinePtr &server, const MachinePtr &client)
{
    return Command(server, "send STON_NETWORKCONNECTION 1") && Command(client, "send STON_NETWORKCONNECTION 2") &&
           Command(client, "expect STON_NETWORKCONNECTION p1=2 within=90") &&
           Command(server, "expect STON_NETWORKCONNECTION p1=2 within=90");
}

bool Unlink(const MachinePtr &machine)
{
    return Command(machine, "send STON_NETWORKCONNECTION 3");
}

bool WaitForBrokenLink(const MachinePtr &machine)
{
    // A frozen peer is noticed after 96 s when it was in the middle of a file: its piece times out after 8 s and is
    // tried eleven times more. A killed one closes its connection at once, but Wine's server can keep that of a process
    // killed within a receive.
    return Command(machine, "expect NTOS_ERRORCONTROL p1=102 within=180");
}

std::string ApplicationDataRoot(const MachinePtr &machine)
{
    return ProfileFolder(machine) + "\\AppData\\Roaming"; // no backslash at its end: the mapping folder has none either
}

static bool TellRole(const MachinePtr &target)
{
    return Command(target, "send STON_SETCOMPUTERROLE 2 0 0 \"" + ApplicationDataRoot(target) + "\"");
}

bool TellRoleAndOptions(const MachinePtr &target, const MachinePtr &source, uint32_t dwOptions)
{
    const std::string sOptions = std::to_string(dwOptions);
    // The role is not answered. Once the options have come to the other side, it has been taken as well.
    return TellRole(target) && Command(target, "send STON_MIGRATIONOPTIONS 1 " + sOptions) &&
           Command(source, "expect NTOS_MIGRATIONOPTIONS p1=1 p3=0 within=60 p2=" + sOptions);
}

bool RequestCollection(const MachinePtr &target, const std::vector<std::string> &items, uint64_t cbTotal, bool bResume)
{
    const fs::path  progress = HostPathOf(target, KnownFolder(target, "Progress"));
    std::error_code error;
    fs::create_directories(progress, error);
    const uint64_t cbDone = bResume ? CollectedBytes(target) : 0;
    if (!WriteWideText((progress / "progressinfo.ini").string(), "[Collection]\r\n\"Size\"=" + std::to_string(cbTotal) +
                                                                     "\r\n\"ProgressSize\"=" + std::to_string(cbDone) +
                                                                     "\r\n")) {
        return false;
    }
    const std::string sList = KnownFolder(target, "ProgramData") + "\\VORN\\VORN Qelvane\\VornTramsa\\collection.txt";
    std::string       sText;
    for (const std::string &sItem : items) sText += sItem + "\r\n";
    return WriteWideText(HostPathOf(target, sList), sText) && TellRole(target) &&
           Command(target, "send STON_MIGRATIONCOLLECTION 1 0 0 \"" + sList + "\"");
}

int WaitForCollection(const MachinePtr &target, std::chrono::seconds timeout)
{
    if (!Command(target, "expect STON_MIGRATIONCOLLECTION set=OUTCOME:p1 within=" + std::to_string(timeout.count())))
        return 0;
    return std::atoi(ConsoleVariable(target, "OUTCOME").c_str());
}

uint64_t CollectedBytes(const MachinePtr &target)
{
    const std::string sFile = HostPathOf(target, KnownFolder(target, "Progress") + "\\progressinfo.ini");
    return std::strtoull(IniValue(sFile, "Collection", "\"ProgressSize\"").c_str(), nullptr, 10);
}
