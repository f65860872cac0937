// debug_output.cpp: the debugger output of a hosted machine: its trace/debug.log, and what a test keeps.
// Most runs want neither. Whether trace/debug.on exists is looked up once a second at most, on a clock that costs no
// call.
#include "platform/errors.h"
#include "platform/event_tracing.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/current_machine.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/utf.h"
#include "platform/hosted/trace/trace_lines.h"
#include "platform/hosted/trace/trace_sessions.h"
#include <atomic>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace {

constexpr size_t MAX_DEBUG_BYTES = 16 * 1024; // of one text, in the log

std::mutex           g_csDebug; // guards the next four
int                  g_fdLog  = -1;
std::string         *g_psKept = nullptr, *g_psTaken = nullptr;
std::atomic<bool>    g_bKeep{false};
std::atomic<int64_t> g_nNextLook{0}; // seconds; when debug.on is looked for again
std::atomic<bool>    g_bLogOn{false};

const hosted::OnUseMachine g_Reset([] {
    std::lock_guard<std::mutex> lock(g_csDebug);
    if (g_fdLog >= 0) ::close(g_fdLog);
    g_fdLog     = -1;
    g_bLogOn    = false;
    g_nNextLook = 0;
});

bool IsLogOn()
{
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (now.tv_sec < g_nNextLook.load(std::memory_order_relaxed)) return g_bLogOn.load(std::memory_order_relaxed);
    g_nNextLook            = now.tv_sec + 1;
    const char *pszMachine = hosted::MachineFolder();
    g_bLogOn = *pszMachine != '\0' && ::access((hosted::TraceFolder(pszMachine) + "/debug.on").c_str(), F_OK) == 0;
    return g_bLogOn;
}

void Output(std::string_view sText)
{
    if (g_bKeep) {
        std::lock_guard<std::mutex> lock(g_csDebug);
        if (g_psKept == nullptr) g_psKept = new std::string;
        *g_psKept += sText;
        if (sText.empty() || sText.back() != '\n') *g_psKept += '\n';
    }
    if (!IsLogOn()) return;
    while (!sText.empty() && (sText.back() == '\n' || sText.back() == '\r')) sText.remove_suffix(1);
    std::string sLine = hosted::LineStart();
    hosted::AppendOneLine(sLine, sText, MAX_DEBUG_BYTES);
    std::lock_guard<std::mutex> lock(g_csDebug);
    if (g_fdLog < 0) {
        const std::string sFile = hosted::DebugLogFile(hosted::MachineFolder());
        g_fdLog                 = ::open(sFile.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    }
    if (g_fdLog >= 0) hosted::WriteLine(g_fdLog, std::move(sLine)); // a full disk costs diagnostics, never the work
}

} // namespace

namespace hosted {

void KeepDebugOutput(bool bKeep)
{
    g_bKeep = bKeep;
}

const char *TakeDebugOutput()
{
    std::lock_guard<std::mutex> lock(g_csDebug);
    delete g_psTaken;
    g_psTaken = g_psKept;
    g_psKept  = nullptr;
    return g_psTaken != nullptr ? g_psTaken->c_str() : "";
}

} // namespace hosted

namespace platform {

// The last error stays as it is: callers log between a failure and their look at its code.
void OutputDebugStringA(const char *pszText)
{
    const uint32_t dwLastError = GetLastError();
    if (!hosted::FailsNow("OutputDebugStringA") && pszText != nullptr) Output(pszText);
    hosted::SetError(dwLastError);
}

void OutputDebugStringW(const char16_t *pszText)
{
    const uint32_t dwLastError = GetLastError();
    if (!hosted::FailsNow("OutputDebugStringW") && pszText != nullptr && (g_bKeep || IsLogOn()))
        Output(hosted::ToUtf8(pszText));
    hosted::SetError(dwLastError);
}

} // namespace platform
