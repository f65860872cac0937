// event_tracing.cpp: providers, the watch on the machine's trace folder, and the rendering of messages.
// A logger handle is laid out as on Windows: session id in the low 16 bits, level in the next 8, flags in the high 32.
// Ids are not used again soon, so that a message with the handle of a session that has ended fails
// (ERROR_INVALID_HANDLE).
// Differences from Windows: the message is rendered here and now, with the formats of SetTraceMessageFormats; time,
// sequence and process stand in every line, whether the message flags ask for them or not.
// Threads  one watcher thread while any provider is registered; it blocks on the folder and looks at nothing in
//          between.
// Locks    g_csProviders is held across callbacks, so that an unregistered provider is never called again; a callback
//          must not register or unregister. g_csSessions guards the open logs alone and is never held while a line is
//          written.
#include "platform/event_tracing.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/guids.h"
#include "platform/hosted/trace/trace_lines.h"
#include "platform/hosted/trace/trace_sessions.h"
#include "platform/text.h"
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace platform;

constexpr uint32_t KNOWN_MESSAGE_FLAGS =
    TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_TIMESTAMP | TRACE_MESSAGE_SYSTEMINFO;
constexpr size_t MAX_MESSAGE_ARGUMENTS = 32;
constexpr size_t MAX_ARGUMENT_BYTES    = 4096; // of each argument; Windows refuses messages above 8 KB in all

struct Session { // its log
    Session(std::string sSessionName, int nDescriptor) : sName(std::move(sSessionName)), fd(nDescriptor) {}
    ~Session() { ::close(fd); }
    Session(const Session &)            = delete;
    Session &operator=(const Session &) = delete;

    const std::string     sName;
    const int             fd;
    std::atomic<uint32_t> nSequence{0};
};

struct Provider {
    TRACEHANDLE          hRegistration;
    TraceControlCallback pCallback;
    void                *pContext;
    GUID                 controlGuid;
    TRACEHANDLE          hLogger = 0; // what the callback was last told; 0: disabled
};

// One "PROVIDER LEVEL FLAGS" line.
struct Enabling {
    std::string sSession, sProvider;
    uint8_t     nLevel;
    uint32_t    dwFlags;
};

struct Sessions {
    std::mutex                                   csSessions;
    std::map<uint16_t, std::shared_ptr<Session>> open;
    uint16_t                                     nLastId = 0;
};
Sessions &OpenSessions()
{
    static auto &sessions = *new Sessions;
    return sessions;
}

std::mutex             g_csProviders; // guards the next five
TRACEHANDLE            g_hLastRegistration = 0;
int                    g_fdStop            = -1; // wakes the watcher for its end
std::thread           *g_pWatcher          = nullptr;
std::string           *g_psFolder          = nullptr; // the folder it watches
std::vector<Provider> &Providers()
{
    static auto &providers = *new std::vector<Provider>;
    return providers;
}

std::atomic<const TraceMessageFormat *> g_pFormats{nullptr};
std::atomic<size_t>                     g_nFormats{0};

// What the session files of the folder say, in the order of their names.
std::vector<Enabling> ReadSessionFiles(const std::string &sFolder)
{
    std::vector<std::string> aNames;
    std::vector<Enabling>    aEnablings;
    if (DIR *pFolder = ::opendir(sFolder.c_str())) {
        while (const dirent *pEntry = ::readdir(pFolder)) {
            const std::string sFile   = pEntry->d_name;
            const size_t      cbStart = sFile.size() - std::min(sFile.size(), std::strlen(hosted::SESSION_SUFFIX));
            if (cbStart > 0 && sFile.substr(cbStart) == hosted::SESSION_SUFFIX)
                aNames.push_back(sFile.substr(0, cbStart));
        }
        ::closedir(pFolder);
    }
    std::sort(aNames.begin(), aNames.end());
    for (const std::string &sName : aNames) {
        std::ifstream file(sFolder + "/" + sName + hosted::SESSION_SUFFIX);
        for (std::string sLine; std::getline(file, sLine);) {
            std::istringstream line(sLine);
            std::string        sProvider, sLevel, sFlags;
            if (!(line >> sProvider >> sLevel >> sFlags)) continue;
            aEnablings.push_back({sName, sProvider, static_cast<uint8_t>(std::strtoul(sLevel.c_str(), nullptr, 0)),
                                  static_cast<uint32_t>(std::strtoul(sFlags.c_str(), nullptr, 0))});
        }
    }
    return aEnablings;
}

// The id of the session's open log, opened when it is not yet; 0 when that fails.
uint16_t OpenLog(const std::string &sFolder, const std::string &sName)
{
    Sessions                   &sessions = OpenSessions();
    std::lock_guard<std::mutex> lock(sessions.csSessions);
    for (const auto &[nId, pSession] : sessions.open)
        if (pSession->sName == sName) return nId;
    const int fd =
        ::open((sFolder + "/" + sName + hosted::LOG_SUFFIX).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return 0;
    do sessions.nLastId++;
    while (sessions.nLastId == 0 || sessions.open.contains(sessions.nLastId));
    sessions.open[sessions.nLastId] = std::make_shared<Session>(sName, fd);
    return sessions.nLastId;
}

// [g_csProviders held] Closes the logs that no provider writes to any more.
void CloseIdleLogs()
{
    Sessions                   &sessions = OpenSessions();
    std::lock_guard<std::mutex> lock(sessions.csSessions);
    std::erase_if(sessions.open, [](const auto &entry) {
        return std::none_of(Providers().begin(), Providers().end(),
                            [&](const Provider &p) { return (p.hLogger & 0xFFFF) == entry.first; });
    });
}

// [g_csProviders held] Tells a provider when what it was last told no longer holds.
void ControlProvider(Provider &provider, const std::vector<Enabling> &aEnablings, const std::string &sFolder)
{
    const std::string sGuid   = hosted::GuidText(provider.controlGuid);
    TRACEHANDLE       hLogger = 0;
    for (const Enabling &enabling : aEnablings) {
        if (enabling.sProvider != "*" && CompareTextNoCaseA(enabling.sProvider.c_str(), sGuid.c_str()) != 0) continue;
        if (const uint16_t nId = OpenLog(sFolder, enabling.sSession))
            hLogger =
                nId | static_cast<uint64_t>(enabling.nLevel) << 16 | static_cast<uint64_t>(enabling.dwFlags) << 32;
        break;
    }
    if (hLogger == provider.hLogger) return;
    uint32_t    cbBuffer = sizeof(hLogger);
    TRACEHANDLE hTold    = hLogger; // what the callback's buffer holds
    provider.hLogger     = hLogger;
    provider.pCallback(hLogger != 0 ? WMI_ENABLE_EVENTS : WMI_DISABLE_EVENTS, provider.pContext, &cbBuffer, &hTold);
}

void ControlEveryProvider(const std::string &sFolder)
{
    std::lock_guard<std::mutex> lock(g_csProviders);
    const std::vector<Enabling> aEnablings = ReadSessionFiles(sFolder);
    for (Provider &provider : Providers()) ControlProvider(provider, aEnablings, sFolder);
    CloseIdleLogs();
}

void WatchTraceFolder(int fdChanges, int fdStop, std::string sFolder)
{
    alignas(inotify_event) char aEvents[4096];
    for (;;) {
        pollfd aWaits[2] = {{fdChanges, POLLIN, 0}, {fdStop, POLLIN, 0}};
        if (::poll(aWaits, 2, -1) < 0 && errno != EINTR) break;
        if (aWaits[1].revents != 0) break;
        if ((aWaits[0].revents & POLLIN) == 0) continue;
        bool          bSessions = false;
        const ssize_t cb        = ::read(fdChanges, aEvents, sizeof(aEvents));
        for (ssize_t i = 0; i < cb;) {
            const auto *pEvent = reinterpret_cast<const inotify_event *>(aEvents + i);
            bSessions          = bSessions || (pEvent->mask & IN_Q_OVERFLOW) != 0 ||
                        (pEvent->len > 0 && std::string_view(pEvent->name).ends_with(hosted::SESSION_SUFFIX));
            i += static_cast<ssize_t>(sizeof(*pEvent) + pEvent->len);
        }
        if (bSessions) ControlEveryProvider(sFolder);
    }
    ::close(fdChanges);
    ::close(fdStop);
}

// [g_csProviders held] Starts the watch; without one (no machine, no descriptors) providers just stay disabled.
void StartWatcher()
{
    if (*hosted::MachineFolder() == '\0') return;
    const std::string sFolder = hosted::TraceFolder(hosted::MachineFolder());
    ::mkdir(sFolder.c_str(), 0777);
    const int fdChanges = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const int fdStop    = ::eventfd(0, EFD_CLOEXEC);
    const int fdToStop  = fdStop >= 0 ? ::fcntl(fdStop, F_DUPFD_CLOEXEC, 0) : -1; // the thread closes its own
    if (fdChanges >= 0 && fdToStop >= 0 &&
        ::inotify_add_watch(fdChanges, sFolder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) >=
            0) {
        try {
            g_pWatcher = new std::thread(WatchTraceFolder, fdChanges, fdStop, sFolder);
            g_psFolder = new std::string(sFolder);
            g_fdStop   = fdToStop;
            return;
        } catch (const std::system_error &) {
        }
    }
    for (const int fd : {fdChanges, fdStop, fdToStop})
        if (fd >= 0) ::close(fd);
}

// What has to be done about the watch when the last provider has gone, outside the lock that it takes itself.
struct EndingWatch {
    std::thread *pWatcher;
    int          fdStop;
};
void EndWatch(const EndingWatch &watch)
{
    if (watch.pWatcher == nullptr) return;
    const uint64_t nOne = 1;
    if (::write(watch.fdStop, &nOne, sizeof(nOne)) == static_cast<ssize_t>(sizeof(nOne))) watch.pWatcher->join();
    else watch.pWatcher->detach(); // cannot happen to a fresh counter
    ::close(watch.fdStop);
    delete watch.pWatcher;
}

struct Argument {
    const void *pValue;
    size_t      cb;
};

void AppendArgument(std::string &sLine, const Argument &argument, char chType)
{
    char szValue[16];
    if (chType == 's') {
        std::string_view sText(static_cast<const char *>(argument.pValue), argument.cb);
        if (!sText.empty() && sText.back() == '\0') sText.remove_suffix(1);
        hosted::AppendOneLine(sLine, sText, MAX_ARGUMENT_BYTES);
        return;
    }
    if ((chType == 'u' || chType == 'x') && argument.cb == sizeof(uint32_t)) {
        uint32_t dwValue;
        std::memcpy(&dwValue, argument.pValue, sizeof(dwValue));
        std::snprintf(szValue, sizeof(szValue), chType == 'u' ? "%u" : "0x%X", dwValue);
        sLine += szValue;
        return;
    }
    sLine += '<';
    for (size_t i = 0; i < std::min(argument.cb, MAX_ARGUMENT_BYTES); i++) {
        std::snprintf(szValue, sizeof(szValue), "%02X", static_cast<const uint8_t *>(argument.pValue)[i]);
        sLine += szValue;
    }
    sLine += '>';
}

void AppendMessage(std::string &sLine, uint16_t nNumber, const std::vector<Argument> &aArguments)
{
    const TraceMessageFormat *pTable  = g_pFormats.load(std::memory_order_acquire);
    const TraceMessageFormat *pFormat = nullptr;
    for (size_t i = 0; pTable != nullptr && i < g_nFormats; i++)
        if (pTable[i].nNumber == nNumber) pFormat = &pTable[i];
    if (pFormat == nullptr || std::strlen(pFormat->pszTypes) != aArguments.size()) {
        for (const Argument &argument : aArguments) {
            AppendArgument(sLine, argument, '?');
            sLine += ' ';
        }
        return;
    }
    for (const char *p = pFormat->pszFormat; *p != '\0'; p++) {
        const size_t iArgument = static_cast<size_t>(p[0] == '%' && p[1] >= '1' && p[1] <= '9' ? p[1] - '1' : 9);
        if (iArgument < aArguments.size() && iArgument < 9) {
            AppendArgument(sLine, aArguments[iArgument], pFormat->pszTypes[iArgument]);
            p++;
        } else {
            if (p[0] == '%' && p[1] == '%') p++;
            sLine += *p;
        }
    }
}

} // namespace

namespace platform {

uint32_t RegisterTraceGuidsW(TraceControlCallback pCallback, void *pContext, const GUID *pControlGuid, uint32_t nGuids,
                             TRACE_GUID_REGISTRATION *pGuids, const char16_t *pszMofImagePath,
                             const char16_t *pszMofResourceName, TRACEHANDLE *phRegistration)
{
    uint32_t dwError = 0;
    if (hosted::FailsNow("RegisterTraceGuidsW", &dwError)) return dwError;
    if (pCallback == nullptr || pControlGuid == nullptr || phRegistration == nullptr ||
        (nGuids > 0 && pGuids == nullptr))
        return ERROR_INVALID_PARAMETER;
    if (pszMofImagePath != nullptr || pszMofResourceName != nullptr) return ERROR_NOT_SUPPORTED;
    std::lock_guard<std::mutex> lock(g_csProviders);
    if (g_pWatcher == nullptr) StartWatcher();
    const TRACEHANDLE hRegistration = ++g_hLastRegistration;
    for (uint32_t i = 0; i < nGuids; i++) pGuids[i].RegHandle = reinterpret_cast<HANDLE>(hRegistration << 16 | (i + 1));
    *phRegistration = hRegistration;
    Providers().push_back({hRegistration, pCallback, pContext, *pControlGuid, 0});
    // a session that is on already has the program's first message
    if (g_psFolder != nullptr) ControlProvider(Providers().back(), ReadSessionFiles(*g_psFolder), *g_psFolder);
    return ERROR_SUCCESS;
}

uint32_t UnregisterTraceGuids(TRACEHANDLE hRegistration)
{
    uint32_t    dwError = 0;
    EndingWatch ending  = {nullptr, -1};
    if (hosted::FailsNow("UnregisterTraceGuids", &dwError)) return dwError;
    {
        std::lock_guard<std::mutex> lock(g_csProviders);
        const auto                  IsIt = [&](const Provider &p) { return p.hRegistration == hRegistration; };
        const auto                  it   = std::find_if(Providers().begin(), Providers().end(), IsIt);
        if (it == Providers().end()) return ERROR_INVALID_PARAMETER;
        ControlProvider(*it, {}, ""); // an enabled one is disabled first
        Providers().erase(it);
        CloseIdleLogs();
        if (Providers().empty()) {
            ending     = {g_pWatcher, g_fdStop};
            g_pWatcher = nullptr;
            g_fdStop   = -1;
            delete g_psFolder;
            g_psFolder = nullptr;
        }
    }
    EndWatch(ending);
    return ERROR_SUCCESS;
}

TRACEHANDLE GetTraceLoggerHandle(void *pBuffer)
{
    TRACEHANDLE hLogger = 0;
    if (pBuffer != nullptr) std::memcpy(&hLogger, pBuffer, sizeof(hLogger));
    return hLogger;
}

uint8_t GetTraceEnableLevel(TRACEHANDLE hLogger)
{
    return static_cast<uint8_t>(hLogger >> 16);
}

uint32_t GetTraceEnableFlags(TRACEHANDLE hLogger)
{
    return static_cast<uint32_t>(hLogger >> 32);
}

void SetTraceMessageFormats(const TraceMessageFormat *pTable, size_t nFormats)
{
    g_nFormats = 0; // never a count that is larger than its table
    g_pFormats.store(pTable, std::memory_order_release);
    g_nFormats = nFormats;
}

uint32_t TraceMessage(TRACEHANDLE hLogger, uint32_t dwMessageFlags, const GUID *pMessageGuid, uint32_t nMessageNumber,
                      ...)
{
    uint32_t              dwError = 0;
    std::vector<Argument> aArguments;
    if (hosted::FailsNow("TraceMessage", &dwError)) return dwError;
    if ((dwMessageFlags & ~KNOWN_MESSAGE_FLAGS) != 0) return ERROR_NOT_SUPPORTED;
    if ((dwMessageFlags & TRACE_MESSAGE_GUID) != 0 && pMessageGuid == nullptr) return ERROR_INVALID_PARAMETER;
    va_list args;
    va_start(args, nMessageNumber);
    while (const void *pValue = va_arg(args, const void *)) {
        aArguments.push_back({pValue, va_arg(args, size_t)});
        if (aArguments.size() > MAX_MESSAGE_ARGUMENTS) break;
    }
    va_end(args);
    if (aArguments.size() > MAX_MESSAGE_ARGUMENTS) return ERROR_INVALID_PARAMETER;

    std::shared_ptr<Session> pSession;
    {
        Sessions                   &sessions = OpenSessions();
        std::lock_guard<std::mutex> lock(sessions.csSessions);
        const auto                  it = sessions.open.find(static_cast<uint16_t>(hLogger));
        if (it != sessions.open.end()) pSession = it->second;
    }
    if (pSession == nullptr) return ERROR_INVALID_HANDLE;
    char szHead[48];
    if ((dwMessageFlags & TRACE_MESSAGE_GUID) != 0)
        std::snprintf(szHead, sizeof(szHead), "%u %08x/%u: ", ++pSession->nSequence, pMessageGuid->Data1,
                      nMessageNumber);
    else std::snprintf(szHead, sizeof(szHead), "%u %u: ", ++pSession->nSequence, nMessageNumber);
    std::string sLine = hosted::LineStart() + szHead;
    AppendMessage(sLine, static_cast<uint16_t>(nMessageNumber), aArguments);
    return hosted::WriteLine(pSession->fd, std::move(sLine)) ? ERROR_SUCCESS : hosted::ErrorFromErrno(errno);
}

} // namespace platform
