// machine.cpp: making machines and talking to what runs on them.
#include "tools/driver/machine.h"
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <strings.h>

namespace fs = std::filesystem;
using nlohmann::json;

static const std::string PROGRAM_FOLDER = "C:\\Program Files\\VORN\\VORN Qelvane";

static std::string ProgramFile(const Machine &machine, const std::string &sName)
{
    const bool bWine = machine.plan.eKind == MachineKind::Wine;
    for (const char *pszFolder : {"", "tools/"}) {
        const fs::path path = fs::path(machine.plan.sPrograms) / (pszFolder + sName + (bWine ? ".exe" : ""));
        if (fs::exists(path)) return path.string();
    }
    return (fs::path(machine.plan.sPrograms) / sName).string();
}

static std::vector<std::string> ProgramCommand(const Machine &machine, const std::string &sProgram)
{
    if (machine.plan.eKind == MachineKind::Wine) return {"wine", sProgram};
    return {sProgram};
}

static bool CreateHosted(const MachinePtr &machine, std::string *psError)
{
    const MachinePlan       &plan      = machine->plan;
    std::vector<std::string> arguments = {ProgramFile(*machine, "hosted-machine"),
                                          "create",
                                          plan.sFolder,
                                          "--computer",
                                          plan.sComputer,
                                          "--user",
                                          plan.sUser,
                                          "--program",
                                          ProgramFile(*machine, "VornTramsaNet"),
                                          "--discovery",
                                          ProgramFile(*machine, "VornTramsaNetMDNS")};
    for (const char ch : plan.drives) arguments.insert(arguments.end(), {"--drive", std::string(1, ch) + ":fixed"});
    for (const auto &[sName, sPath] : plan.folders)
        arguments.insert(arguments.end(), {"--folder", sName + "=" + sPath});
    if (RunProgram(arguments, {}, psError) != 0) return false;
    machine->environment = {{"VORN_MACHINE", plan.sFolder}, {"VORN_RENDEZVOUS", plan.sRendezvous}};
    return true;
}

// The prefix script makes the prefix, its drives, its user and its moved folders; here come only the programs.
static bool CreateWine(const MachinePtr &machine, std::string *psError)
{
    const MachinePlan       &plan      = machine->plan;
    std::vector<std::string> arguments = {"scripts/wine-prefix.sh", plan.sFolder, "--user", plan.sUser};
    for (const char ch : plan.drives) arguments.insert(arguments.end(), {"--drive", std::string(1, ch)});
    for (const auto &[sName, sPath] : plan.folders)
        arguments.insert(arguments.end(), {"--folder", sName + "=" + sPath});
    if (RunProgram(arguments, {}, psError) != 0) return false;
    std::string sRendezvous = "Z:" + plan.sRendezvous;
    std::replace(sRendezvous.begin(), sRendezvous.end(), '/', '\\');
    machine->environment   = {{"WINEPREFIX", plan.sFolder},
                              {"WINEDEBUG", "-all"},
                              // no runtimes to install, no menu entries to make of a person's shell links
                              {"WINEDLLOVERRIDES", "mscoree=;mshtml=;winemenubuilder.exe="},
                              {"VORN_RENDEZVOUS", sRendezvous},
                              {"USER", plan.sUser},
                              {"LOGNAME", plan.sUser}};
    const fs::path  folder = HostPathOf(machine, PROGRAM_FOLDER);
    std::error_code error;
    fs::create_directories(folder, error);
    for (const char *pszName : {"VornTramsaNet", "VornTramsaNetMDNS", "migrate"}) {
        fs::copy_file(ProgramFile(*machine, pszName), folder / (std::string(pszName) + ".exe"),
                      fs::copy_options::overwrite_existing, error);
        if (error) {
            *psError = std::string(pszName) + ".exe: " + error.message();
            return false;
        }
    }
    // A prefix has the host's name, in the form that Windows gives it.
    std::string       sAnswer;
    const char *const pszKey = "HKLM\\System\\CurrentControlSet\\Control\\ComputerName\\ActiveComputerName";
    RunProgram({"wine", "reg", "query", pszKey, "/v", "ComputerName"}, machine->environment, &sAnswer);
    const size_t nType = sAnswer.find("REG_SZ");
    if (nType == std::string::npos) {
        *psError = "the prefix does not tell its computer name: " + sAnswer;
        return false;
    }
    const size_t nName      = sAnswer.find_first_not_of(" \t", nType + 6);
    machine->plan.sComputer = sAnswer.substr(nName, sAnswer.find_first_of("\r\n", nName) - nName);
    return true;
}

MachinePtr CreateMachine(const MachinePlan &plan, std::string *psError)
{
    auto machine  = std::make_shared<Machine>();
    machine->plan = plan;
    std::error_code error;
    fs::remove_all(plan.sFolder, error);
    fs::create_directories(plan.sRendezvous, error);
    const bool bMade =
        plan.eKind == MachineKind::Hosted ? CreateHosted(machine, psError) : CreateWine(machine, psError);
    return bMade ? machine : nullptr;
}

std::string HostPathOf(const MachinePtr &machine, const std::string &sWindowsPath)
{
    const char chDrive = static_cast<char>(std::tolower(sWindowsPath[0]));
    fs::path   path    = machine->plan.eKind == MachineKind::Hosted
                             ? fs::path(machine->plan.sFolder) / (std::string("drive_") + chDrive)
                             : fs::path(machine->plan.sFolder) / "dosdevices" / (std::string(1, chDrive) + ":");
    size_t     nStart  = 3;
    while (nStart < sWindowsPath.size()) {
        size_t            nEnd  = std::min(sWindowsPath.find('\\', nStart), sWindowsPath.size());
        const std::string sPart = sWindowsPath.substr(nStart, nEnd - nStart);
        nStart                  = nEnd + 1;
        std::error_code error;
        fs::path        found = path / sPart;
        if (!sPart.empty() && !fs::exists(found, error)) {
            for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
                if (strcasecmp(it->path().filename().c_str(), sPart.c_str()) == 0) found = it->path();
            }
        }
        if (!sPart.empty()) path = found;
    }
    return path.string();
}

std::string ProfileFolder(const MachinePtr &machine)
{
    return "C:\\Users\\" + machine->plan.sUser;
}

std::string KnownFolder(const MachinePtr &machine, const std::string &sName)
{
    const auto it = machine->plan.folders.find(sName);
    if (it != machine->plan.folders.end()) return it->second;
    if (sName == "ProgramData") return "C:\\ProgramData";
    if (sName == "Progress") return "C:\\ProgramData\\VORN\\VORN Qelvane\\VornTramsa\\progress";
    return ProfileFolder(machine) + "\\" + sName;
}

int RunTool(const MachinePtr &machine, const std::string &sTool, const std::vector<std::string> &arguments,
            std::string *psOutput)
{
    std::vector<std::string> command = ProgramCommand(*machine, ProgramFile(*machine, sTool));
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(command, machine->environment, psOutput);
}

std::vector<std::string> InstalledCommand(const MachinePtr &machine, const std::string &sName)
{
    const bool bWine = machine->plan.eKind == MachineKind::Wine;
    return ProgramCommand(*machine, bWine ? PROGRAM_FOLDER + "\\" + sName + ".exe" : ProgramFile(*machine, sName));
}

static void OnConsoleLine(Machine *pMachine, const std::string &sLine)
{
    const json value = json::parse(sLine, nullptr, false);
    if (!value.is_object()) return; // a line that is no JSON object is none of the console's
    const std::lock_guard<std::mutex> guard(pMachine->lock);
    const std::string                 sEvent = value.value("event", "");
    if (sEvent.empty()) pMachine->records.push_back(value);
    else if (sEvent == "print") pMachine->prints.push_back(value.value("text", ""));
    else if (sEvent != "note") pMachine->replies.push_back(value);
    if (sEvent == "failed" || sEvent == "error") pMachine->sLastError = value.value("text", "");
    pMachine->said.notify_all();
}

bool StartConsole(const MachinePtr &machine)
{
    std::vector<std::string> command = ProgramCommand(*machine, ProgramFile(*machine, "service-console"));
    command.insert(command.end(), {"--json", "--wait", "90"}); // bounds for a busy machine, not pauses
    machine->console = StartChild(
        command, machine->environment, [raw = machine.get()](const std::string &sLine) { OnConsoleLine(raw, sLine); },
        machine->plan.sFolder + ".console.log");
    return machine->console != nullptr && Command(machine, "print ready");
}

void StopConsole(const MachinePtr &machine)
{
    if (!machine->console) return;
    WriteToChild(machine->console, "quit\n");
    CloseChildInput(machine->console);
    if (!WaitForChild(machine->console, std::chrono::seconds(10), nullptr)) KillChild(machine->console);
    machine->console = nullptr;
}

bool StartAgent(const MachinePtr &machine, const std::map<std::string, std::string> &extraEnvironment)
{
    auto environment = machine->environment;
    environment.insert(extraEnvironment.begin(), extraEnvironment.end());
    machine->agent = StartChild(InstalledCommand(machine, "VornTramsaNet"), environment, nullptr,
                                machine->plan.sFolder + ".agent.log");
    return machine->agent != nullptr;
}

void KillAgent(const MachinePtr &machine)
{
    if (machine->agent) KillChild(machine->agent);
    machine->agent = nullptr;
}

bool StopAgent(const MachinePtr &machine)
{
    if (!machine->agent) return true;
    int        nExit  = -1;
    const bool bAsked = Command(machine, "send STON_FORCEEXIT 1");
    const bool bEnded = bAsked && WaitForChild(machine->agent, std::chrono::seconds(30), &nExit);
    if (!bEnded) KillChild(machine->agent);
    machine->agent = nullptr;
    return bEnded && nExit == 0;
}

void StopMachine(const MachinePtr &machine)
{
    if (!machine) return;
    if (machine->console && IsChildRunning(machine->agent)) StopAgent(machine);
    KillAgent(machine);
    StopConsole(machine);
    if (machine->plan.eKind == MachineKind::Wine) RunProgram({"wineserver", "-k"}, machine->environment, nullptr);
}

bool Command(const MachinePtr &machine, const std::string &sCommand)
{
    size_t nBefore = 0;
    {
        const std::lock_guard<std::mutex> guard(machine->lock);
        nBefore = machine->replies.size();
    }
    if (!machine->console || !WriteToChild(machine->console, sCommand + "\n")) return false;
    std::unique_lock<std::mutex> lock(machine->lock);
    const bool                   bReplied =
        machine->said.wait_for(lock, std::chrono::minutes(10), [&] { return machine->replies.size() > nBefore; });
    return bReplied && machine->replies[nBefore].value("event", "") == "done";
}

std::string ConsoleVariable(const MachinePtr &machine, const std::string &sName)
{
    if (!Command(machine, "print $" + sName)) return {};
    const std::lock_guard<std::mutex> guard(machine->lock);
    const std::string                 sText = machine->prints.empty() ? "" : machine->prints.back();
    return sText == "$" + sName ? "" : sText;
}

std::vector<json> ReceivedRecords(const MachinePtr &machine)
{
    const std::lock_guard<std::mutex> guard(machine->lock);
    return machine->records;
}

size_t CountRecords(const MachinePtr &machine, uint32_t dwCode)
{
    size_t nCount = 0;
    for (const json &record : ReceivedRecords(machine)) nCount += record.value("code", 0U) == dwCode;
    return nCount;
}
