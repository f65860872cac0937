// window_registry.cpp: see window_registry.h.
#include "platform/hosted/desktop/window_registry.h"
#include "platform/errors.h"
#include "platform/hosted/kernel/named_objects.h"
#include "platform/hosted/kernel/unix_sockets.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/host_files.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace hosted {
namespace {

constexpr uint32_t FIRST_WINDOW = 0x00010002;
constexpr uint32_t FIRST_ATOM = 0xC000, LAST_ATOM = 0xFFFF;
constexpr uint32_t ERROR_NO_SYSTEM_RESOURCES = 1450;

std::string FileOf(uint32_t nWindow, const char *pszKind)
{
    char szName[32];
    std::snprintf(szName, sizeof(szName), "%08x.%s", nWindow, pszKind);
    return szName;
}

std::string OneLine(const std::u16string &sText)
{
    std::string sOut = ToUtf8(sText);
    std::replace(sOut.begin(), sOut.end(), '\n', ' ');
    return sOut;
}

// [held: MachineLock]
bool StoreRecord(const std::string &sFolder, const WindowRecord &record)
{
    std::ostringstream text;
    text << "session " << record.nSessionRegistrations << "\nallowed";
    for (const uint32_t uMsg : record.aAllowed) text << ' ' << uMsg;
    text << "\nclass " << OneLine(record.sClass) << "\ntitle " << OneLine(record.sTitle) << '\n';
    if (WriteWholeFile(sFolder + "/" + FileOf(record.nWindow, "window"), text.str())) return true;
    SetErrorFromErrno();
    return false;
}

bool ReadRecord(const std::string &sFolder, uint32_t nWindow, WindowRecord *pRecord)
{
    std::ifstream file(sFolder + "/" + FileOf(nWindow, "window"), std::ios::binary);
    if (!file) return false;
    *pRecord         = {};
    pRecord->nWindow = nWindow;
    for (std::string sLine; std::getline(file, sLine);) {
        std::istringstream line(sLine);
        std::string        sKey;
        line >> sKey;
        const std::string sRest = sLine.size() > sKey.size() ? sLine.substr(sKey.size() + 1) : "";
        if (sKey == "session") line >> pRecord->nSessionRegistrations;
        if (sKey == "class") pRecord->sClass = ToUtf16(sRest);
        if (sKey == "title") pRecord->sTitle = ToUtf16(sRest);
        for (uint32_t uMsg = 0; sKey == "allowed" && line >> uMsg;) pRecord->aAllowed.push_back(uMsg);
    }
    return true;
}

// [held: MachineLock]
void RemoveFiles(const std::string &sFolder, uint32_t nWindow)
{
    unlink((sFolder + "/" + FileOf(nWindow, "socket")).c_str());
    unlink((sFolder + "/" + FileOf(nWindow, "window")).c_str());
}

// [held: MachineLock] A window whose process has gone refuses the connection.
bool ReadLiveRecord(const std::string &sFolder, uint32_t nWindow, WindowRecord *pRecord)
{
    const Descriptor socket(ConnectLocalSocket(sFolder, FileOf(nWindow, "socket"), SOCK_DGRAM));
    if (socket.nFd >= 0 && ReadRecord(sFolder, nWindow, pRecord)) return true;
    RemoveFiles(sFolder, nWindow);
    return false;
}

} // namespace

int AddWindow(WindowRecord *pRecord)
{
    const std::string sFolder = RunFolder("windows");
    const MachineLock lock;
    if (sFolder.empty() || !lock.IsHeld()) return -1;
    uint32_t nWindow = FIRST_WINDOW; // numbers are not used again: a stale HWND never names another window
    std::ifstream(sFolder + "/next") >> nWindow;
    pRecord->nWindow = nWindow;
    const int nFd    = WriteWholeFile(sFolder + "/next", std::to_string(nWindow + 2))
                           ? BindLocalSocket(sFolder, FileOf(nWindow, "socket"), SOCK_DGRAM | SOCK_NONBLOCK)
                           : -1;
    if (nFd < 0) {
        SetErrorFromErrno();
        return -1;
    }
    if (StoreRecord(sFolder, *pRecord)) return nFd;
    RemoveFiles(sFolder, nWindow);
    close(nFd);
    return -1;
}

bool StoreWindow(const WindowRecord &record)
{
    const std::string sFolder = RunFolder("windows");
    const MachineLock lock;
    return !sFolder.empty() && lock.IsHeld() && StoreRecord(sFolder, record);
}

void RemoveWindow(uint32_t nWindow)
{
    const std::string sFolder = RunFolder("windows");
    const MachineLock lock;
    if (!sFolder.empty() && lock.IsHeld()) RemoveFiles(sFolder, nWindow);
}

bool ReadWindow(uint32_t nWindow, WindowRecord *pRecord)
{
    const std::string sFolder = RunFolder("windows");
    const MachineLock lock;
    return !sFolder.empty() && lock.IsHeld() && ReadLiveRecord(sFolder, nWindow, pRecord);
}

std::vector<WindowRecord> AllWindows()
{
    std::vector<WindowRecord> aWindows;
    const std::string         sFolder = RunFolder("windows");
    const MachineLock         lock;
    DIR                      *pDir = sFolder.empty() || !lock.IsHeld() ? nullptr : opendir(sFolder.c_str());
    if (pDir == nullptr) return aWindows;
    std::vector<uint32_t> aNumbers;
    while (const dirent *pEntry = readdir(pDir)) {
        const std::string_view sName = pEntry->d_name;
        if (sName.ends_with(".window"))
            aNumbers.push_back(static_cast<uint32_t>(std::strtoul(pEntry->d_name, nullptr, 16)));
    }
    closedir(pDir);
    std::sort(aNumbers.rbegin(), aNumbers.rend());
    for (const uint32_t nWindow : aNumbers) {
        WindowRecord record;
        if (ReadLiveRecord(sFolder, nWindow, &record)) aWindows.push_back(std::move(record));
    }
    return aWindows;
}

bool SendToWindow(const WireMessage &message)
{
    const std::string sFolder = RunFolder("windows");
    if (sFolder.empty()) return false;
    const Descriptor socket(ConnectLocalSocket(sFolder, FileOf(message.nWindow, "socket"), SOCK_DGRAM));
    if (socket.nFd < 0) return false;
    ssize_t cb = 0;
    do { // blocks while the receiver's watcher has many to take
        cb = send(socket.nFd, &message, sizeof(message), MSG_NOSIGNAL);
    } while (cb < 0 && errno == EINTR);
    return cb == sizeof(message);
}

platform::ATOM AtomOf(const std::u16string &sName)
{
    if (sName.empty() || sName.size() > 255) {
        SetError(platform::ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::u16string sFolded = sName;
    for (char16_t &ch : sFolded) ch = platform::FoldCaseW(ch);
    const std::string sEscaped = EscapedName(ToUtf8(sFolded));
    const std::string sFolder  = RunFolder("windows");
    const MachineLock lock;
    if (sFolder.empty() || !lock.IsHeld()) return 0;
    std::fstream file(sFolder + "/atoms", std::ios::in | std::ios::out | std::ios::app | std::ios::binary);
    uint32_t     nAtom = FIRST_ATOM;
    file.seekg(0);
    for (std::string sLine; std::getline(file, sLine); nAtom++) {
        if (sLine == sEscaped) return static_cast<platform::ATOM>(nAtom);
    }
    file.clear();
    file << sEscaped << '\n' << std::flush;
    if (file && nAtom <= LAST_ATOM) return static_cast<platform::ATOM>(nAtom);
    SetError(ERROR_NO_SYSTEM_RESOURCES);
    return 0;
}

} // namespace hosted
