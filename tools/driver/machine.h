// machine.h: one machine of a migration as the demo and the end-to-end tests handle it: a hosted machine's folder or a
// Wine prefix, its agent, its service console, its files seen from outside.
#pragma once
#include "tools/driver/process.h"
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

enum class MachineKind { Hosted, Wine };

struct MachinePlan {
    MachineKind                        eKind = MachineKind::Hosted;
    std::string                        sFolder;   // absolute; made anew
    std::string                        sPrograms; // the build folder whose programs it runs
    std::string                        sComputer; // hosted machines; a Wine prefix has the host's name
    std::string                        sUser;
    std::vector<char>                  drives;      // fixed drives beside C
    std::map<std::string, std::string> folders;     // known folders that lie elsewhere: "Desktop" -> "D:\\Desktop"
    std::string                        sRendezvous; // absolute host folder, shared with the peer
};

struct Machine {
    MachinePlan                        plan;
    std::map<std::string, std::string> environment; // of everything that runs on the machine
    Child                              agent, console;
    // what the console said; guarded by lock
    std::mutex                  lock;
    std::condition_variable     said;
    std::vector<nlohmann::json> records; // received from the agent, in order
    std::vector<nlohmann::json> replies; // outcomes of commands
    std::vector<std::string>    prints;
    std::string                 sLastError;
};
using MachinePtr = std::shared_ptr<Machine>;

// Makes the machine with its folders and programs. Null with *psError.
MachinePtr CreateMachine(const MachinePlan &plan, std::string *psError);

// The host path behind a Windows path; existing parts are found without regard to case.
std::string HostPathOf(const MachinePtr &machine, const std::string &sWindowsPath);
// "C:\Users\anna" and the folders that the plan or the layout gives: Desktop, Documents, Pictures, ProgramData,
// Progress.
std::string ProfileFolder(const MachinePtr &machine);
std::string KnownFolder(const MachinePtr &machine, const std::string &sName);
// The command that starts a program where the machine has it installed ("VornTramsaNet", "migrate"); it wants the
// machine's environment.
std::vector<std::string> InstalledCommand(const MachinePtr &machine, const std::string &sName);
// Runs one of the machine's own tools on it ("machine-files"). The exit code.
int RunTool(const MachinePtr &machine, const std::string &sTool, const std::vector<std::string> &arguments,
            std::string *psOutput);

bool StartConsole(const MachinePtr &machine); // the migration service; its agent finds it at once
void StopConsole(const MachinePtr &machine);
bool StartAgent(const MachinePtr &machine, const std::map<std::string, std::string> &extraEnvironment = {});
void KillAgent(const MachinePtr &machine); // as a crash does
// Asks the agent to exit (545) and waits; false when it does not end with 0 in time.
bool StopAgent(const MachinePtr &machine);
void StopMachine(const MachinePtr &machine);

// One command of the service console; true when it was carried out. Waits as long as the command does.
bool Command(const MachinePtr &machine, const std::string &sCommand);
// The value of a console variable, "" when it has none.
std::string ConsoleVariable(const MachinePtr &machine, const std::string &sName);
// All records received so far.
std::vector<nlohmann::json> ReceivedRecords(const MachinePtr &machine);
size_t                      CountRecords(const MachinePtr &machine, uint32_t dwCode);

// Reads a UTF-16LE text file with byte-order mark of the host as UTF-8 lines; empty when missing.
std::vector<std::string> ReadWideLines(const std::string &sHostPath);
// Writes UTF-8 text as UTF-16LE with byte-order mark, CR LF kept as given. False on failure.
bool WriteWideText(const std::string &sHostPath, const std::string &sText);
// A key's value in an INI file of either encoding, without quotes; "" when missing.
std::string IniValue(const std::string &sHostPath, const std::string &sSection, const std::string &sKey);
