// trace_sessions.cpp: switching trace sessions and debugger output of a machine on and off, from any program.
// A session file is put in place whole, by rename, so that a program never reads half of one.
#include "platform/hosted/trace/trace_sessions.h"
#include "platform/hosted/machine/host_files.h"
#include "platform/hosted/trace/trace_lines.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace hosted {

namespace {

constexpr size_t MAX_SESSION_NAME = 64;

std::string FileOfSession(const char *pszMachine, const char *pszSession, const char *pszSuffix)
{
    const std::string_view sName = pszSession != nullptr ? pszSession : "";
    if (sName.empty() || sName.size() > MAX_SESSION_NAME || sName[0] == '.' ||
        sName.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_") != sName.npos)
        return "";
    return TraceFolder(pszMachine) + "/" + pszSession + pszSuffix;
}

bool MakeTraceFolder(const char *pszMachine)
{
    return ::mkdir(TraceFolder(pszMachine).c_str(), 0777) == 0 || errno == EEXIST;
}

} // namespace

std::string TraceFolder(const char *pszMachine)
{
    return std::string(pszMachine) + "/trace";
}

std::string TraceSessionFile(const char *pszMachine, const char *pszSession)
{
    return FileOfSession(pszMachine, pszSession, SESSION_SUFFIX);
}

std::string TraceLogFile(const char *pszMachine, const char *pszSession)
{
    return FileOfSession(pszMachine, pszSession, LOG_SUFFIX);
}

std::string DebugLogFile(const char *pszMachine)
{
    return TraceFolder(pszMachine) + "/debug.log";
}

bool StartTraceSession(const char *pszMachine, const char *pszSession, uint8_t nLevel, uint32_t dwFlags)
{
    const std::string sFile = TraceSessionFile(pszMachine, pszSession);
    char              szLine[64];
    if (sFile.empty()) {
        errno = EINVAL;
        return false;
    }
    std::snprintf(szLine, sizeof(szLine), "* %u 0x%X\n", static_cast<unsigned>(nLevel), dwFlags);
    return MakeTraceFolder(pszMachine) && WriteWholeFile(sFile, szLine);
}

bool StopTraceSession(const char *pszMachine, const char *pszSession)
{
    const std::string sFile = TraceSessionFile(pszMachine, pszSession);
    if (sFile.empty()) {
        errno = EINVAL;
        return false;
    }
    return ::unlink(sFile.c_str()) == 0;
}

bool SwitchDebugOutput(const char *pszMachine, bool bOn)
{
    const std::string sFile = TraceFolder(pszMachine) + "/debug.on";
    if (bOn) return MakeTraceFolder(pszMachine) && WriteWholeFile(sFile, "");
    return ::unlink(sFile.c_str()) == 0 || errno == ENOENT;
}

std::string LineStart()
{
    static thread_local const long s_nThread = ::syscall(SYS_gettid);
    timespec                       now       = {};
    tm                             parts     = {};
    char                           szDate[32], szStart[80];
    ::clock_gettime(CLOCK_REALTIME, &now);
    ::gmtime_r(&now.tv_sec, &parts);
    std::strftime(szDate, sizeof(szDate), "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(szStart, sizeof(szStart), "%s.%06ld %d.%ld ", szDate, now.tv_nsec / 1000, ::getpid(), s_nThread);
    return szStart;
}

void AppendOneLine(std::string &sLine, std::string_view sText, size_t cbMax)
{
    for (const char ch : sText.substr(0, cbMax)) {
        const auto nCode = static_cast<unsigned char>(ch);
        if (ch == '\n') sLine += "\\n";
        else if (ch == '\r') sLine += "\\r";
        else if (ch == '\t') sLine += "\\t";
        else if (nCode < 0x20 || nCode == 0x7F) {
            char szHex[8];
            std::snprintf(szHex, sizeof(szHex), "\\x%02X", nCode);
            sLine += szHex;
        } else sLine += ch;
    }
}

bool WriteLine(int fd, std::string sLine)
{
    sLine += '\n';
    ssize_t cb;
    do cb = ::write(fd, sLine.data(), sLine.size());
    while (cb < 0 && errno == EINTR);
    return cb == static_cast<ssize_t>(sLine.size());
}

} // namespace hosted
