// control.cpp: which machine the process is on, and what the environment asks of the backend.
// The environment is read on the first call of any operation and not by a static object, since the settings go to other
// files whose globals may not be there yet while static objects are made.
#include "platform/hosted/control.h"
#include "platform/errors.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/host_files.h"
#include "platform/hosted/machine/machine.h"
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace hosted {

namespace {

std::atomic<const std::string *> g_psFolder{nullptr};
std::atomic<bool>                g_bStarted{false};
thread_local bool                t_bStarting = false;

// Every folder so far: what MachineFolder gave stays readable.
std::deque<std::string> &Folders()
{
    static auto &s_aFolders = *new std::deque<std::string>;
    return s_aFolders;
}

[[noreturn]] void BadSetting(const char *pszName, const char *pszValue)
{
    std::fprintf(stderr, "%s=%s: not understood\n", pszName, pszValue);
    _exit(2);
}

std::vector<std::string> Split(const std::string &sText, char chAt)
{
    std::vector<std::string> aParts(1);
    for (const char ch : sText) {
        if (ch == chAt) {
            aParts.emplace_back();
        } else {
            aParts.back() += ch;
        }
    }
    return aParts;
}

// The value of a decimal setting; ends the process when it is none. False when it is not set.
bool NumberFrom(const char *pszName, const std::string &sValue, int64_t *pnValue)
{
    char *pszEnd = nullptr;
    errno        = 0;
    *pnValue     = std::strtoll(sValue.c_str(), &pszEnd, 10);
    if (sValue.empty() || *pszEnd != '\0' || errno != 0 || *pnValue < 0) BadSetting(pszName, sValue.c_str());
    return true;
}

bool NumberSetting(const char *pszName, int64_t *pnValue)
{
    const char *pszValue = std::getenv(pszName);
    return pszValue != nullptr && NumberFrom(pszName, pszValue, pnValue);
}

void ReadFaults(const char *pszValue)
{
    for (const std::string &sFault : Split(pszValue, ',')) {
        const std::vector<std::string> aParts = Split(sFault, ':');
        int64_t                        nth = 0, nError = 0;
        if (aParts.size() < 3 || aParts.size() > 4 || (aParts.size() == 4 && aParts[3] != "on")) {
            BadSetting("VORN_FAULTS", pszValue);
        }
        NumberFrom("VORN_FAULTS", aParts[1], &nth);
        NumberFrom("VORN_FAULTS", aParts[2], &nError);
        FailCall(aParts[0].c_str(), static_cast<int>(nth), static_cast<uint32_t>(nError), aParts.size() == 4);
    }
}

void ReadDriveLimits(const char *pszValue)
{
    for (const std::string &sLimit : Split(pszValue, ',')) {
        int64_t cbFree = 0;
        if (sLimit.size() < 3 || sLimit[1] != ':') BadSetting("VORN_DRIVE_FULL", pszValue);
        NumberFrom("VORN_DRIVE_FULL", sLimit.substr(2), &cbFree);
        SetDriveLimit(sLimit[0], cbFree);
    }
}

void ReadMissing(const char *pszValue)
{
    for (const std::string &sMissing : Split(pszValue, ',')) {
        const size_t nAt = sMissing.find('!');
        if (nAt == std::string::npos) {
            RemoveLibrary(sMissing.c_str());
        } else {
            RemoveFunction(sMissing.substr(0, nAt).c_str(), sMissing.substr(nAt + 1).c_str());
        }
    }
}

bool MoveTo(const char *pszFolder)
{
    std::string sFolder = pszFolder == nullptr ? "" : pszFolder;
    while (sFolder.size() > 1 && sFolder.back() == '/') sFolder.pop_back();
    if (sFolder.empty() || sFolder[0] != '/') {
        SetError(platform::ERROR_INVALID_PARAMETER);
        return false;
    }
    DropWhatBelongsToAMachine();
    g_psFolder.store(nullptr);
    if (!MakeHostFolders(sFolder + "/run")) {
        SetErrorFromErrno();
        return false;
    }
    g_psFolder.store(&Folders().emplace_back(sFolder));
    if (MakeMachine(sFolder)) return true;
    g_psFolder.store(nullptr);
    return false;
}

void ReadEnvironment()
{
    int64_t     nValue   = 0;
    const char *pszValue = std::getenv("VORN_MACHINE");
    if (pszValue != nullptr && *pszValue != '\0' && !MoveTo(pszValue)) {
        std::fprintf(stderr, "VORN_MACHINE=%s: no machine can be made there (error %u)\n", pszValue,
                     platform::GetLastError());
        _exit(2);
    }
    if ((pszValue = std::getenv("VORN_FAULTS")) != nullptr && *pszValue != '\0') ReadFaults(pszValue);
    if ((pszValue = std::getenv("VORN_DRIVE_FULL")) != nullptr && *pszValue != '\0') ReadDriveLimits(pszValue);
    if ((pszValue = std::getenv("VORN_MISSING")) != nullptr && *pszValue != '\0') ReadMissing(pszValue);
    if ((pszValue = std::getenv("VORN_INTEGRITY")) != nullptr && *pszValue != '\0') {
        if (std::strcmp(pszValue, "low") != 0) BadSetting("VORN_INTEGRITY", pszValue);
        SetLowStanding(true);
    }
    if (NumberSetting("VORN_CLOCK_RATE", &nValue)) {
        if (nValue == 0) BadSetting("VORN_CLOCK_RATE", "0");
        SetClockRate(static_cast<uint32_t>(nValue));
    }
    if (NumberSetting("VORN_SOCKET_TIMEOUT_MS", &nValue)) SetSocketTimeout(static_cast<uint32_t>(nValue));
    if (NumberSetting("VORN_REUSE_SOCKETS", &nValue)) ReuseSocketValues(nValue != 0);
    if (NumberSetting("VORN_LINK_DELAY_MS", &nValue)) SetLinkDelay(static_cast<uint32_t>(nValue));
    if (NumberSetting("VORN_LINK_CUT_AFTER", &nValue)) CutLinkAfter(nValue);
}

} // namespace

// Reads the environment once. A call that comes from inside returns at once.
void Start()
{
    if (g_bStarted.load(std::memory_order_acquire) || t_bStarting) return;
    static std::mutex                &s_Mutex = *new std::mutex;
    const std::lock_guard<std::mutex> guard(s_Mutex);
    if (g_bStarted.load(std::memory_order_acquire)) return;
    const uint32_t dwLastError = platform::GetLastError(); // belongs to the program
    t_bStarting                = true;
    ReadEnvironment();
    t_bStarting = false;
    SetError(dwLastError);
    g_bStarted.store(true, std::memory_order_release);
}

bool UseMachine(const char *pszFolder)
{
    Start();
    return MoveTo(pszFolder);
}

const char *MachineFolder()
{
    Start();
    const std::string *psFolder = g_psFolder.load();
    return psFolder == nullptr ? "" : psFolder->c_str();
}

} // namespace hosted
