// hosted_machine.cpp: makes, describes and checks the folder of a hosted machine.
// It works on the folder as the host sees it where it looks for what a machine cannot show itself: two names that
// differ in case only, names that Windows does not have, entries that are neither file nor folder.
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/machine.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

namespace fs = std::filesystem;
using hosted::MachinePlan;
using Entries = std::vector<std::pair<std::string, std::string>>;

static int Usage()
{
    std::fprintf(
        stderr,
        "usage: hosted-machine create FOLDER [--computer NAME] [--user NAME] [--domain NAME] [--session N]\n"
        "                             [--drive D[:fixed|removable|hotplug|cdrom|remote]]... [--folder NAME=PATH]...\n"
        "                             [--program AGENT --discovery PROGRAM]\n"
        "       hosted-machine describe FOLDER\n"
        "       hosted-machine check FOLDER\n"
        "folders:");
    for (const hosted::KnownFolder &folder : hosted::KnownFolders()) std::fprintf(stderr, " %s", folder.pszName);
    std::fprintf(stderr, "\n");
    return 2;
}

static bool Refuse(const std::string &sWhat)
{
    std::fprintf(stderr, "hosted-machine: %s\n", sWhat.c_str());
    return false;
}

// ---- create ----
struct CreateOptions {
    MachinePlan plan;
    std::string sProgram, sDiscovery;
};

// A name that can be a computer's or a user's: it becomes part of paths and of a line of machine.ini.
static bool IsName(const std::string &sName)
{
    return !sName.empty() && sName.find_first_of("\"/\\[]:;|=,+*?<>\r\n") == std::string::npos &&
           sName.front() != ' ' && sName.back() != ' ' && sName.back() != '.';
}

static bool IsDrivePath(const std::string &sPath)
{
    hosted::DiskPath path;
    return sPath.size() >= 3 && std::isalpha(static_cast<unsigned char>(sPath[0])) != 0 && sPath[1] == ':' &&
           sPath[2] == '\\' && hosted::ParsePath(hosted::ToUtf16(sPath).c_str(), &path) == 0;
}

static bool ReadDrive(const std::string &sValue, MachinePlan *pPlan)
{
    const std::string sKind = sValue.size() > 2 && sValue[1] == ':' ? sValue.substr(2) : "fixed";
    const char chName = static_cast<char>(std::toupper(static_cast<unsigned char>(sValue.empty() ? ' ' : sValue[0])));
    const bool bShort = sValue.size() == 1 || (sValue.size() == 2 && sValue[1] == ':');
    if (chName < 'A' || chName > 'Z' || (!bShort && (sValue.size() < 3 || sValue[1] != ':')) ||
        !hosted::IsDriveKind(sKind))
        return Refuse("not a drive and a kind: " + sValue);
    for (const auto &drive : pPlan->aDrives)
        if (drive.first == chName) return Refuse("drive given twice: " + sValue);
    pPlan->aDrives.emplace_back(chName, sKind);
    return true;
}

static bool ReadFolder(const std::string &sValue, MachinePlan *pPlan)
{
    const size_t      nEqual = sValue.find('=');
    const std::string sName  = sValue.substr(0, nEqual),
                      sPath  = nEqual == std::string::npos ? "" : sValue.substr(nEqual + 1);
    bool bKnown              = false;
    for (const hosted::KnownFolder &folder : hosted::KnownFolders()) bKnown = bKnown || sName == folder.pszName;
    if (!bKnown || !IsDrivePath(sPath)) return Refuse("not a known folder and a path: " + sValue);
    pPlan->aFolders.emplace_back(sName, sPath);
    return true;
}

static bool ReadOptions(int nArgs, char **ppszArgs, CreateOptions *pOptions)
{
    for (int i = 0; i < nArgs; i += 2) {
        const std::string sOption = ppszArgs[i];
        if (i + 1 >= nArgs) return Refuse("an option without its value: " + sOption);
        const std::string sValue = ppszArgs[i + 1];
        if (sOption == "--computer" || sOption == "--user" || sOption == "--domain") {
            if (!IsName(sValue)) return Refuse("not a name: " + sValue);
            (sOption == "--computer" ? pOptions->plan.sComputer
             : sOption == "--user"   ? pOptions->plan.sUser
                                     : pOptions->plan.sDomain) = sValue;
        } else if (sOption == "--session") {
            char *pszEnd            = nullptr;
            pOptions->plan.nSession = static_cast<int>(std::strtol(sValue.c_str(), &pszEnd, 10));
            if (sValue.empty() || *pszEnd != '\0' || pOptions->plan.nSession < 0)
                return Refuse("not a session: " + sValue);
        } else if (sOption == "--drive") {
            if (!ReadDrive(sValue, &pOptions->plan)) return false;
        } else if (sOption == "--folder") {
            if (!ReadFolder(sValue, &pOptions->plan)) return false;
        } else if (sOption == "--program") {
            pOptions->sProgram = sValue;
        } else if (sOption == "--discovery") {
            pOptions->sDiscovery = sValue;
        } else {
            return Refuse("unknown option: " + sOption);
        }
    }
    return true;
}

// Puts a program into the machine; linked when both are on one file system, else copied.
static bool PutProgram(const std::string &sFrom, const char *pszName)
{
    if (sFrom.empty()) return true;
    char              szFolder[4096];
    const std::string sFolder = hosted::PROGRAM_FOLDER;
    if (!hosted::HostPath(hosted::ToUtf16(sFolder).c_str(), szFolder, sizeof(szFolder)))
        return Refuse("no place for " + sFolder);
    std::error_code error;
    const fs::path  target = fs::path(szFolder) / pszName;
    fs::create_directories(szFolder, error);
    fs::remove(target, error);
    fs::create_hard_link(fs::canonical(sFrom, error), target, error);
    if (error) fs::copy_file(sFrom, target, fs::copy_options::overwrite_existing, error);
    return error ? Refuse(sFrom + ": " + error.message()) : true;
}

static int Create(const std::string &sFolder, const CreateOptions &options)
{
    std::error_code ignored;
    if (fs::exists(sFolder + "/machine.ini", ignored)) return Refuse(sFolder + " is a machine already") ? 0 : 1;
    for (const auto &folder : options.plan.aFolders) {
        const char chDrive = static_cast<char>(std::toupper(static_cast<unsigned char>(folder.second[0])));
        bool       bThere  = chDrive == 'C';
        for (const auto &drive : options.plan.aDrives) bThere = bThere || drive.first == chDrive;
        if (!bThere)
            return Refuse(folder.first + " is on a drive that the machine does not have: " + folder.second) ? 0 : 2;
    }
    if (!hosted::CreateMachine(sFolder, options.plan) || !hosted::UseMachine(sFolder.c_str()))
        return Refuse(sFolder + " cannot be made, error " + std::to_string(platform::GetLastError())) ? 0 : 1;
    if (!PutProgram(options.sProgram, hosted::PROGRAM_NAME) || !PutProgram(options.sDiscovery, hosted::DISCOVERY_NAME))
        return 1;
    return 0;
}

// ---- describe ----
static int Describe(const std::string &sFolder)
{
    const std::string sIni = sFolder + "/machine.ini";
    for (const char *pszSection : {"machine", "drives", "folders", "program", "adapters"}) {
        Entries aEntries;
        hosted::ReadMachineFile(sIni, pszSection, &aEntries);
        if (aEntries.empty()) continue;
        std::printf("%s\n", pszSection);
        for (const auto &entry : aEntries) {
            std::string sMore;
            char        szHost[4096];
            if (std::strcmp(pszSection, "folders") == 0 || std::strcmp(pszSection, "program") == 0) {
                std::error_code ignored;
                if (!hosted::HostPath(hosted::ToUtf16(entry.second).c_str(), szHost, sizeof(szHost)) ||
                    !fs::exists(szHost, ignored))
                    sMore = "   (missing)";
            }
            std::printf("  %-16s %s%s\n", entry.first.c_str(), entry.second.c_str(), sMore.c_str());
        }
    }
    return 0;
}

// ---- check ----
static int g_nProblems = 0;

static void Problem(const std::string &sWhat)
{
    g_nProblems++;
    std::printf("%s\n", sWhat.c_str());
}

static std::u16string Folded(std::u16string sText)
{
    for (char16_t &ch : sText) ch = platform::FoldCaseW(ch);
    return sText;
}

static void CheckName(const fs::path &path, const std::string &sName, std::map<std::u16string, std::string> *pSeen)
{
    const std::u16string sWindows = hosted::WindowsName(path.parent_path().string(), sName.c_str());
    hosted::DiskPath     parsed;
    if (sName.compare(0, hosted::LONG_NAME_PREFIX.size(), hosted::LONG_NAME_PREFIX) == 0 &&
        sWindows == hosted::ToUtf16(sName))
        Problem(path.string() + ": a long name's place without the name");
    if (hosted::ParsePath((u"\\\\?\\C:\\" + sWindows).c_str(), &parsed) != 0)
        Problem(path.string() + ": Windows has no such name");
    else if (sWindows.back() == u'.' || sWindows.back() == u' ' || hosted::IsDeviceName(sWindows))
        Problem(path.string() + ": only \"\\\\?\\\" paths reach this name");
    const auto [it, bNew] = pSeen->try_emplace(Folded(sWindows), sName);
    if (!bNew) Problem(path.string() + ": differs from \"" + it->second + "\" in case only");
}

static void CheckFolder(const fs::path &folder)
{
    std::error_code                       error;
    std::set<std::string>                 aNames; // in order, so that two runs report alike
    std::map<std::u16string, std::string> aSeen;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
        aNames.insert(it->path().filename().string());
    if (error) Problem(folder.string() + ": " + error.message());
    for (const std::string &sName : aNames) {
        const fs::path        path   = folder / sName;
        const fs::file_status status = fs::symlink_status(path, error);
        CheckName(path, sName, &aSeen);
        if (fs::is_directory(status)) CheckFolder(path);
        else if (fs::is_symlink(status) && !fs::exists(path, error)) Problem(path.string() + ": a link to nothing");
        else if (!fs::is_regular_file(status) && !fs::is_symlink(status))
            Problem(path.string() + ": neither file nor folder");
    }
}

static void CheckSettings(const std::string &sFolder)
{
    Entries           aMachine, aDrives, aFolders;
    const std::string sIni     = sFolder + "/machine.ini";
    int               nBadLine = 0;
    if (!hosted::ReadMachineFile(sIni, "machine", &aMachine, &nBadLine))
        Problem(nBadLine == 0 ? "machine.ini: cannot be read"
                              : "machine.ini, line " + std::to_string(nBadLine) + ": not understood");
    for (const char *pszKey : {"computer", "user", "sid", "session"}) {
        const auto it =
            std::find_if(aMachine.begin(), aMachine.end(), [&](const auto &entry) { return entry.first == pszKey; });
        if (it == aMachine.end() || it->second.empty()) Problem(std::string("machine.ini: [machine] has no ") + pszKey);
        else if (std::strcmp(pszKey, "sid") == 0 &&
                 (it->second.compare(0, 4, "S-1-") != 0 ||
                  it->second.find_first_not_of("0123456789-", 1) != std::string::npos))
            Problem("machine.ini: not a SID: " + it->second);
    }
    hosted::ReadMachineFile(sIni, "drives", &aDrives);
    for (const auto &drive : aDrives) {
        const bool bLetter = drive.first.size() == 1 && std::isalpha(static_cast<unsigned char>(drive.first[0])) != 0;
        if (!bLetter || !hosted::IsDriveKind(drive.second)) {
            Problem("machine.ini: not a drive and a kind: " + drive.first + "=" + drive.second);
            continue;
        }
        const std::string sDrive = std::string("drive_") + static_cast<char>(drive.first[0] | 32);
        if (!fs::is_directory(sFolder + '/' + sDrive)) Problem(sDrive + ": missing");
    }
    hosted::ReadMachineFile(sIni, "folders", &aFolders);
    for (const hosted::KnownFolder &known : hosted::KnownFolders()) {
        const auto it = std::find_if(aFolders.begin(), aFolders.end(),
                                     [&](const auto &entry) { return entry.first == known.pszName; });
        if (it == aFolders.end()) {
            Problem(std::string("machine.ini: [folders] has no ") + known.pszName);
            continue;
        }
        char szHost[4096];
        if (!it->second.empty() && (!IsDrivePath(it->second) ||
                                    !hosted::HostPath(hosted::ToUtf16(it->second).c_str(), szHost, sizeof(szHost)) ||
                                    !fs::is_directory(szHost)))
            Problem(std::string(known.pszName) + ": missing: " + it->second);
    }
}

static int Check(const std::string &sFolder)
{
    CheckSettings(sFolder);
    for (char chDrive = 'a'; chDrive <= 'z'; chDrive++) {
        const std::string sDrive = sFolder + "/drive_" + chDrive;
        if (fs::is_directory(sDrive)) CheckFolder(sDrive);
    }
    std::printf(g_nProblems == 0 ? "no problems\n" : "%d problems\n", g_nProblems);
    return g_nProblems == 0 ? 0 : 1;
}

int main(int nArgs, char **ppszArgs)
{
    if (nArgs < 3 || ppszArgs[2][0] == '-' || ppszArgs[2][0] == '\0') return Usage();
    const std::string sVerb   = ppszArgs[1];
    std::string       sFolder = fs::absolute(ppszArgs[2]).lexically_normal().string();
    while (sFolder.size() > 1 && sFolder.back() == '/') sFolder.pop_back();
    if (sVerb == "create") {
        CreateOptions options;
        if (!ReadOptions(nArgs - 3, ppszArgs + 3, &options)) return Usage();
        return Create(sFolder, options);
    }
    if ((sVerb != "describe" && sVerb != "check") || nArgs != 3) return Usage();
    if (!fs::exists(sFolder + "/machine.ini")) return Refuse(sFolder + " is no machine") ? 0 : 1;
    if (!hosted::LookAt(sFolder))
        return Refuse(sFolder + " cannot be opened, error " + std::to_string(platform::GetLastError())) ? 0 : 1;
    return sVerb == "describe" ? Describe(sFolder) : Check(sFolder);
}
