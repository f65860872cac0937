// conversation.cpp: the service's side of the pipes as migrate needs it.
#include "tools/migrate/conversation.h"
#include "platform/console.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "tools/record_text.h"
#include "tools/service_pipes.h"
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

using namespace platform;

namespace {

constexpr char16_t AGENT_NAME[]   = u"VornTramsaNet.exe";
constexpr uint32_t AGENT_START_MS = 30000;
constexpr uint32_t AGENT_END_MS   = 15000;
constexpr uint32_t PIPE_MS        = 5000;
constexpr auto     STOP_POLL      = std::chrono::milliseconds(100); // its handler wakes nobody

std::mutex              g_Lock; // guards g_Records
std::condition_variable g_Arrived;
std::deque<IpcMessage>  g_Records;
uint32_t                g_dwSession     = 0;
bool                    g_bStartedAgent = false;

std::atomic<bool> g_bStopAsked{false};

} // namespace

bool OpenConversation(Trouble *pTrouble)
{
    std::string sError;
    uint32_t    dwOwn = 0;
    if (ProcessIdToSessionId(GetCurrentProcessId(), &dwOwn)) g_dwSession = dwOwn;
    const auto onRecord = [](const IpcMessage &record) {
        const std::lock_guard<std::mutex> guard(g_Lock);
        g_Records.push_back(record);
        g_Arrived.notify_all();
    };
    if (!StartServicePipe(
            onRecord, [](const std::string &) {}, &sError)) {
        *pTrouble = {"On this PC another migration is under way already (" + sError + ").",
                     "Let it end, or close it, and start again."};
        return false;
    }
    if (WaitForAgent(g_dwSession, true, 0)) return true;
    char16_t szAgent[MAX_PATH] = u"";
    if (!StartProgramBeside(AGENT_NAME, szAgent) || !WaitForAgent(g_dwSession, true, AGENT_START_MS)) {
        *pTrouble = {"The agent " + ToUtf8(szAgent, MAX_PATH) + " does not start.",
                     "Unpack the whole archive into one folder, allow the program if a virus scanner asks, and start "
                     "again."};
        return false;
    }
    g_bStartedAgent = true;
    IpcMessage ready;
    if (AwaitRecord(
            AGENT_START_MS, [](const IpcMessage &record) { return record.dwCommand == NTOS_IPCREADY; }, &ready))
        return true;
    *pTrouble = {"The agent was started but does not answer.", "Start again; if it stays so, restart this PC."};
    return false;
}

void CloseConversation()
{
    if (g_bStartedAgent) {
        if (SendRecord(STON_FORCEEXIT, 1)) WaitForAgent(g_dwSession, false, AGENT_END_MS);
    } else {
        SendRecord(STON_NETWORKCONNECTION, 3);
    }
    g_bStartedAgent = false;
}

static void PutText(char16_t (&szField)[IPC_TEXT_UNITS], const std::string &sText)
{
    CopyTextW(szField, IPC_TEXT_UNITS, ToWide(sText).c_str());
}

bool SendRecord(uint32_t dwCode, uint32_t dwParam1, uint32_t dwParam2, const std::string &sText1,
                const std::string &sText2)
{
    IpcMessage  record = {};
    std::string sError;
    record.dwCommand = dwCode;
    record.dwParam1  = dwParam1;
    record.dwParam2  = dwParam2;
    PutText(record.szText1, sText1);
    PutText(record.szText2, sText2);
    return SendToAgent(g_dwSession, record, PIPE_MS, &sError);
}

bool SendNote(PeerNote eNote)
{
    return SendRecord(STON_MIGRATIONOPTIONS, 1, static_cast<uint32_t>(eNote));
}

bool NextRecord(uint32_t dwMilliseconds, IpcMessage *pRecord, bool bStoppable)
{
    const auto                   until = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds);
    std::unique_lock<std::mutex> lock(g_Lock);
    while (g_Records.empty()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= until || (bStoppable && StopAsked())) return false;
        g_Arrived.wait_until(lock, std::min(until, now + STOP_POLL));
    }
    *pRecord = g_Records.front();
    g_Records.pop_front();
    return true;
}

bool AwaitRecord(uint32_t dwMilliseconds, const std::function<bool(const IpcMessage &)> &matches, IpcMessage *pRecord,
                 bool bStoppable)
{
    const uint64_t ullEnd = GetTickCount64() + dwMilliseconds;
    for (uint64_t ullNow = GetTickCount64(); ullNow < ullEnd; ullNow = GetTickCount64()) {
        if (!NextRecord(static_cast<uint32_t>(ullEnd - ullNow), pRecord, bStoppable)) return false;
        if (matches(*pRecord)) return true;
    }
    return false;
}

bool IsLinkLost(const IpcMessage &record)
{
    return (record.dwCommand == NTOS_ERRORCONTROL && record.dwParam1 == 102) || record.dwCommand == NTOS_USERCONTROL;
}

void WatchForStop()
{
    WatchConsoleStop([] { g_bStopAsked = true; });
}

bool StopAsked()
{
    return g_bStopAsked;
}

void ForgetStop()
{
    g_bStopAsked = false;
}

std::string Text1Of(const IpcMessage &record)
{
    return RecordTexts(record)[0];
}
