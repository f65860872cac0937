// machine.cpp: machine.ini and registry.ini of a hosted machine, and making one.
// The file is small and read anew when it has changed, so a test may edit it under a running process.
#include "platform/hosted/machine/machine.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/host_files.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <random>
#include <unistd.h>

namespace hosted {
namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

bool SameText(const std::string &sLeft, const std::string &sRight)
{
    return platform::CompareTextNoCaseA(sLeft.c_str(), sRight.c_str()) == 0;
}

std::string Trimmed(const std::string &sText)
{
    const size_t nFirst = sText.find_first_not_of(" \t\r");
    if (nFirst == std::string::npos) return "";
    return sText.substr(nFirst, sText.find_last_not_of(" \t\r") - nFirst + 1);
}

bool g_bLookOnly = false; // set while LookAt runs, which only a tool of one thread calls

struct Cached {
    struct timespec                              tChanged = {};
    off_t                                        cb       = -1;
    std::string                                  sFile;
    std::vector<std::pair<std::string, Entries>> aSections;
};

// Reads a whole file into sections. False: not readable; *pnBadLine as in machine.h.
bool ReadSections(const std::string &sFile, std::vector<std::pair<std::string, Entries>> *paSections, int *pnBadLine)
{
    std::ifstream file(sFile, std::ios::binary);
    if (!file) return false;
    std::string sLine;
    for (int nLine = 1; std::getline(file, sLine); nLine++) {
        sLine = Trimmed(sLine);
        if (sLine.empty() || sLine[0] == ';') continue;
        const size_t nEqual = sLine.find('=');
        if (sLine[0] == '[' && sLine.back() == ']') {
            paSections->emplace_back(Trimmed(sLine.substr(1, sLine.size() - 2)), Entries());
        } else if (nEqual != std::string::npos && nEqual != 0 && !paSections->empty()) {
            paSections->back().second.emplace_back(Trimmed(sLine.substr(0, nEqual)), Trimmed(sLine.substr(nEqual + 1)));
        } else if (pnBadLine != nullptr && *pnBadLine == 0) {
            *pnBadLine = nLine;
        }
    }
    return true;
}

// A machine SID of its own for each machine, so that two machines have different users.
std::string NewSid()
{
    std::random_device random;
    std::string        sSid = "S-1-5-21";
    for (int i = 0; i < 3; i++) sSid += '-' + std::to_string(random() | 0x1000u);
    return sSid + "-1001";
}

// Makes a Windows folder with its parents; names that exist in another case are used.
bool MakeWindowsFolder(const std::string &sWindows)
{
    DiskPath path;
    if (const uint32_t dwError = ParsePath(ToUtf16(sWindows).c_str(), &path, 0)) {
        SetError(dwError);
        return false;
    }
    for (size_t nEnd = 3; nEnd <= path.sFull.size(); nEnd++) {
        if (nEnd < path.sFull.size() && path.sFull[nEnd] != u'\\') continue;
        if (nEnd == 3 && path.sFull.size() > 3 && path.sFull[nEnd] != u'\\') continue;
        DiskPath part = path;
        part.sFull    = path.sFull.substr(0, nEnd);
        Located found;
        if (const uint32_t dwError = Locate(part, &found)) {
            SetError(dwError);
            return false;
        }
        if (found.bExists) continue;
        if (mkdir(found.sHost.c_str(), 0777) != 0 && errno != EEXIST) {
            SetErrorFromErrno();
            return false;
        }
    }
    return true;
}

// Writes a file unless there is one: whole or not at all, also when two processes make the machine at once.
bool WriteIfMissing(const std::string &sFile, const std::string &sContent)
{
    if (access(sFile.c_str(), F_OK) == 0) return true;
    const std::string sNew = sFile + '.' + std::to_string(getpid());
    const bool bOk = WriteWholeFile(sNew, sContent) && (link(sNew.c_str(), sFile.c_str()) == 0 || errno == EEXIST);
    if (!bOk) SetErrorFromErrno();
    unlink(sNew.c_str());
    return bOk;
}

std::string MachineText(const MachinePlan &plan)
{
    std::string sText = "[machine]\ncomputer=" + plan.sComputer + "\nuser=" + plan.sUser + "\nsid=" + NewSid() +
                        "\nsession=" + std::to_string(plan.nSession) + '\n';
    if (!plan.sDomain.empty()) sText += "domain=" + plan.sDomain + '\n';
    sText += "\n[drives]\n";
    bool bHasC = false;
    for (const auto &drive : plan.aDrives) bHasC = bHasC || drive.first == 'C';
    if (!bHasC) sText += "C=fixed\n";
    for (const auto &drive : plan.aDrives) sText += std::string(1, drive.first) + '=' + drive.second + '\n';
    sText += "\n[folders]\n";
    for (const KnownFolder &folder : KnownFolders()) {
        std::string sPath = folder.pszTail;
        if (sPath.empty() || sPath[0] == '\\') sPath = "C:\\Users\\" + plan.sUser + sPath;
        for (const auto &given : plan.aFolders)
            if (SameText(given.first, folder.pszName)) sPath = given.second;
        sText += std::string(folder.pszName) + '=' + sPath + '\n';
    }
    return sText + "\n[program]\npath=" + PROGRAM_FOLDER + '\\' + PROGRAM_NAME + "\ndiscovery=" + PROGRAM_FOLDER +
           '\\' + DISCOVERY_NAME + '\n';
}

} // namespace

const std::vector<KnownFolder> &KnownFolders()
{
    static const auto &s_aFolders = *new std::vector<KnownFolder>{
        {"Windows", "C:\\Windows"},
        {"System", "C:\\Windows\\System32"},
        {"ProgramFilesX64", "C:\\Program Files"},
        {"ProgramFilesX86", "C:\\Program Files (x86)"},
        {"ProgramData", "C:\\ProgramData"},
        {"UserProfiles", "C:\\Users"},
        {"Public", "C:\\Users\\Public"},
        {"Profile", ""},
        {"AppData", "\\AppData\\Roaming"},
        {"Desktop", "\\Desktop"},
        {"Documents", "\\Documents"},
        {"Pictures", "\\Pictures"},
    };
    return s_aFolders;
}

bool IsDriveKind(const std::string &sKind)
{
    for (const char *pszKind : DRIVE_KINDS)
        if (SameText(sKind, pszKind)) return true;
    return false;
}

bool ReadMachineFile(const std::string &sFile, const char *pszSection, Entries *paEntries, int *pnBadLine)
{
    std::vector<std::pair<std::string, Entries>> aSections;
    int                                          nBadLine = 0;
    if (pnBadLine != nullptr) *pnBadLine = 0;
    if (!ReadSections(sFile, &aSections, &nBadLine)) return false;
    if (pnBadLine != nullptr) *pnBadLine = nBadLine;
    for (const auto &section : aSections)
        if (SameText(section.first, pszSection))
            paEntries->insert(paEntries->end(), section.second.begin(), section.second.end());
    return nBadLine == 0;
}

std::string MachineSetting(const char *pszSection, const char *pszKey, const char *pszDefault)
{
    static std::mutex                &s_Mutex  = *new std::mutex;
    static Cached                    &s_Cached = *new Cached;
    const std::string                 sFile    = std::string(MachineFolder()) + "/machine.ini";
    const std::lock_guard<std::mutex> guard(s_Mutex);
    struct stat                       st;
    if (stat(sFile.c_str(), &st) != 0) return pszDefault;
    if (s_Cached.sFile != sFile || s_Cached.cb != st.st_size || s_Cached.tChanged.tv_sec != st.st_mtim.tv_sec ||
        s_Cached.tChanged.tv_nsec != st.st_mtim.tv_nsec) {
        s_Cached.aSections.clear();
        s_Cached.sFile    = sFile;
        s_Cached.cb       = st.st_size;
        s_Cached.tChanged = st.st_mtim;
        ReadSections(sFile, &s_Cached.aSections, nullptr);
    }
    for (const auto &section : s_Cached.aSections) {
        if (!SameText(section.first, pszSection)) continue;
        for (const auto &entry : section.second)
            if (SameText(entry.first, pszKey)) return entry.second;
    }
    return pszDefault;
}

std::string KnownFolderSetting(const char *pszName)
{
    for (const KnownFolder &folder : KnownFolders()) {
        if (std::strcmp(folder.pszName, pszName) != 0) continue;
        std::string sPath = folder.pszTail;
        if (sPath.empty() || sPath[0] == '\\')
            sPath = "C:\\Users\\" + MachineSetting("machine", "user", "User") + sPath;
        return MachineSetting("folders", pszName, sPath.c_str());
    }
    return "";
}

bool CreateMachine(const std::string &sFolder, const MachinePlan &plan)
{
    if (!MakeHostFolders(sFolder + "/drive_c")) {
        SetErrorFromErrno();
        return false;
    }
    if (!WriteIfMissing(sFolder + "/machine.ini", MachineText(plan)) || !WriteIfMissing(sFolder + "/registry.ini", ""))
        return false;
    Entries aDrives;
    ReadMachineFile(sFolder + "/machine.ini", "drives", &aDrives);
    for (const auto &drive : aDrives) {
        if (drive.first.size() != 1 || std::isalpha(static_cast<unsigned char>(drive.first[0])) == 0) continue;
        const std::string sDrive = sFolder + "/drive_" + static_cast<char>(drive.first[0] | 32);
        if (mkdir(sDrive.c_str(), 0777) != 0 && errno != EEXIST) {
            SetErrorFromErrno();
            return false;
        }
    }
    return true;
}

bool LookAt(const std::string &sFolder)
{
    g_bLookOnly    = true;
    const bool bOk = UseMachine(sFolder.c_str());
    g_bLookOnly    = false;
    return bOk;
}

bool MakeMachine(const std::string &sFolder)
{
    if (g_bLookOnly) return true;
    if (!CreateMachine(sFolder, MachinePlan())) return false;
    for (const KnownFolder &folder : KnownFolders()) {
        const std::string sPath = KnownFolderSetting(folder.pszName);
        if (!sPath.empty() && !MakeWindowsFolder(sPath)) return false;
    }
    return true;
}

bool HostPath(const char16_t *pszPath, char *pszOut, size_t cb)
{
    DiskPath path;
    uint32_t dwError = ParsePath(pszPath, &path, 0);
    Located  found;
    if (dwError == 0) dwError = Locate(path, &found);
    std::u16string sMissing;
    while (dwError == platform::ERROR_PATH_NOT_FOUND && !path.IsRoot()) { // the names from the first missing folder on
        const size_t nLeaf = path.LeafAt();
        sMissing           = u'\\' + path.sFull.substr(nLeaf) + sMissing;
        path.sFull.resize(nLeaf <= 3 ? 3 : nLeaf - 1);
        dwError = Locate(path, &found);
    }
    if (dwError == 0) {
        for (size_t nAt = 0; nAt < sMissing.size();) {
            const size_t nEnd = std::min(sMissing.find(u'\\', nAt + 1), sMissing.size());
            found.sHost += '/' + HostName(std::u16string_view(sMissing).substr(nAt + 1, nEnd - nAt - 1));
            nAt = nEnd;
        }
        if (platform::CopyTextA(pszOut, cb, found.sHost.c_str())) return true;
        dwError = platform::ERROR_INSUFFICIENT_BUFFER;
    }
    SetError(dwError);
    return false;
}

} // namespace hosted
