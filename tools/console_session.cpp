// console_session.cpp: the commands of a scenario.
// Waits look at the records in the order of their arrival, from behind the last one that a wait has matched: a scenario
// reads like the conversation, and a record that came early is not missed.
#include "tools/console_session.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/modules.h"
#include "platform/text.h"
#include "platform/user_interface.h"
#include "tools/record_text.h"
#include "tools/service_pipes.h"
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

namespace {

ConsoleOptions                          g_Options;
std::mutex                              g_Lock; // guards output, records and position
std::condition_variable                 g_Arrived;
std::deque<IpcMessage>                  g_Records;
size_t                                  g_nNextToMatch = 0;
std::map<std::string, std::string>      g_Variables;
std::map<std::string, platform::HANDLE> g_Events;

std::string Stamp()
{
    char           szStamp[32];
    const uint64_t ull = platform::GetTickCount64();
    platform::FormatTextA(szStamp, sizeof(szStamp), "%6I64u.%03u", ull / 1000 % 1000000,
                          static_cast<uint32_t>(ull % 1000));
    return szStamp;
}

void PrintLocked(const char *pszMark, const std::string &sLine)
{
    std::printf("%s %s %s\n", Stamp().c_str(), pszMark, sLine.c_str());
    std::fflush(stdout);
}

void PrintEvent(const std::string &sKind, const std::string &sText)
{
    const std::lock_guard<std::mutex> guard(g_Lock);
    if (g_Options.bJson) {
        std::printf("{\"event\":%s,\"text\":%s}\n", JsonText(sKind).c_str(), JsonText(sText).c_str());
        std::fflush(stdout);
    } else {
        PrintLocked("--", sKind + (sText.empty() ? "" : ": " + sText));
    }
}

// '*' stands for any text.
bool MatchesPattern(const std::string &sText, const std::string &sPattern)
{
    size_t t = 0, p = 0, nStar = std::string::npos, nResume = 0;
    while (t < sText.size()) {
        if (p < sPattern.size() && sPattern[p] == '*') {
            nStar   = p++;
            nResume = t;
        } else if (p < sPattern.size() && sPattern[p] == sText[t]) {
            p++;
            t++;
        } else if (nStar != std::string::npos) {
            p = nStar + 1;
            t = ++nResume;
        } else {
            return false;
        }
    }
    while (p < sPattern.size() && sPattern[p] == '*') p++;
    return p == sPattern.size();
}

struct Expectation {
    uint32_t                                         dwCode = 0;
    std::vector<std::pair<std::string, std::string>> fields; // p1, p2, p3, t1, t2, t3 and their pattern
    std::vector<std::pair<std::string, std::string>> sets;   // variable and field
    uint32_t                                         dwSeconds = 0;
};

bool FieldText(const IpcMessage &record, const std::string &sField, std::string *psText)
{
    if (sField == "p1") *psText = std::to_string(static_cast<int32_t>(record.dwParam1));
    else if (sField == "p2") *psText = std::to_string(static_cast<int32_t>(record.dwParam2));
    else if (sField == "p3") *psText = std::to_string(static_cast<int32_t>(record.dwParam3));
    else if (sField == "t1" || sField == "t2" || sField == "t3") {
        const auto   texts = RecordTexts(record);
        const size_t n     = static_cast<size_t>(sField[1] - '1');
        *psText            = n < texts.size() ? texts[n] : "";
    } else {
        return false;
    }
    return true;
}

bool ParseExpectation(const std::vector<std::string> &words, Expectation *pExpected, std::string *psError)
{
    pExpected->dwSeconds = g_Options.dwWaitSeconds;
    if (words.size() < 2 || !ParseCode(words[1], &pExpected->dwCode)) {
        *psError = "a code or label is missing or unknown";
        return false;
    }
    for (size_t i = 2; i < words.size(); i++) {
        const size_t nEqual = words[i].find('=');
        if (nEqual == std::string::npos) {
            *psError = "not of the form name=value: " + words[i];
            return false;
        }
        const std::string sName = words[i].substr(0, nEqual), sValue = words[i].substr(nEqual + 1);
        std::string       sUnused;
        if (sName == "within" || sName == "for") {
            if (!ParseNumber(sValue, &pExpected->dwSeconds)) {
                *psError = "not a number of seconds: " + sValue;
                return false;
            }
        } else if (sName == "set") {
            const size_t nColon = sValue.find(':');
            if (nColon == std::string::npos || !FieldText(IpcMessage{}, sValue.substr(nColon + 1), &sUnused)) {
                *psError = "not of the form set=NAME:FIELD: " + words[i];
                return false;
            }
            pExpected->sets.emplace_back(sValue.substr(0, nColon), sValue.substr(nColon + 1));
        } else if (FieldText(IpcMessage{}, sName, &sUnused)) {
            pExpected->fields.emplace_back(sName, sValue);
        } else {
            *psError = "no such field: " + sName;
            return false;
        }
    }
    return true;
}

bool Matches(const IpcMessage &record, const Expectation &expected)
{
    if (record.dwCommand != expected.dwCode) return false;
    for (const auto &[sField, sPattern] : expected.fields) {
        std::string sText;
        if (!FieldText(record, sField, &sText) || !MatchesPattern(sText, sPattern)) return false;
    }
    return true;
}

// True when a record matched within the time; it and those before it are used up.
bool WaitForRecord(const Expectation &expected)
{
    std::unique_lock<std::mutex> lock(g_Lock);
    const auto                   until = std::chrono::steady_clock::now() + std::chrono::seconds(expected.dwSeconds);
    size_t                       nNext = g_nNextToMatch;
    for (;;) {
        for (; nNext < g_Records.size(); nNext++) {
            if (!Matches(g_Records[nNext], expected)) continue;
            for (const auto &[sName, sField] : expected.sets) FieldText(g_Records[nNext], sField, &g_Variables[sName]);
            g_nNextToMatch = nNext + 1;
            return true;
        }
        if (std::chrono::steady_clock::now() >= until) return false;
        g_Arrived.wait_until(lock, until); // looks once more after the time is up
    }
}

// "$NAME" as a whole word, or "${NAME}" anywhere in one.
void ReplaceVariables(std::vector<std::string> *pWords)
{
    for (std::string &sWord : *pWords) {
        if (sWord.size() > 1 && sWord[0] == '$' && g_Variables.count(sWord.substr(1)) != 0)
            sWord = g_Variables[sWord.substr(1)];
        for (const auto &[sName, sValue] : g_Variables) {
            const std::string sMark = "${" + sName + "}";
            for (size_t n = sWord.find(sMark); n != std::string::npos; n = sWord.find(sMark, n + sValue.size())) {
                sWord.replace(n, sMark.size(), sValue);
            }
        }
    }
}

CommandResult RunEventCommand(const std::vector<std::string> &words, std::string *psError)
{
    if (words.size() != 3) return CommandResult::Usage;
    platform::HANDLE &hEvent = g_Events[words[2]];
    if (words[1] == "create") {
        if (hEvent == nullptr)
            hEvent = platform::CreateEventW(nullptr, platform::TRUE, platform::FALSE, ToWide(words[2]).c_str());
        if (hEvent != nullptr) return CommandResult::Done;
        *psError = "the event cannot be created: error " + std::to_string(platform::GetLastError());
        return CommandResult::Failed;
    }
    if (words[1] != "set" && words[1] != "reset" && words[1] != "close") return CommandResult::Usage;
    if (hEvent == nullptr) {
        *psError = "no event of that name was created here";
        return CommandResult::Failed;
    }
    if (words[1] == "set") platform::SetEvent(hEvent);
    else if (words[1] == "reset") platform::ResetEvent(hEvent);
    else {
        platform::CloseHandle(hEvent);
        hEvent = nullptr;
    }
    return CommandResult::Done;
}

// Posts a message to the agent's hidden window, as the system or another process of the product would.
CommandResult RunPostCommand(const std::vector<std::string> &words, std::string *psError)
{
    uint32_t dwMessage = 0, dwWParam = 0, dwLParam = 0;
    if (words.size() < 2 || words.size() > 4 || (words[1] != "control" && !ParseNumber(words[1], &dwMessage)) ||
        (words.size() > 2 && !ParseNumber(words[2], &dwWParam)) ||
        (words.size() > 3 && !ParseNumber(words[3], &dwLParam))) {
        return CommandResult::Usage;
    }
    const platform::HMODULE hUser32 = platform::LoadLibraryW(u"user32.dll");
    const auto pfnFind = reinterpret_cast<platform::FindWindowWProc>(platform::GetProcAddress(hUser32, "FindWindowW"));
    const auto pfnPost =
        reinterpret_cast<platform::PostMessageWProc>(platform::GetProcAddress(hUser32, "PostMessageW"));
    const auto pfnRegister = reinterpret_cast<platform::RegisterWindowMessageWProc>(
        platform::GetProcAddress(hUser32, "RegisterWindowMessageW"));
    if (pfnFind == nullptr || pfnPost == nullptr || pfnRegister == nullptr) {
        *psError = "user32 is not there";
        return CommandResult::Failed;
    }
    if (words[1] == "control") dwMessage = pfnRegister(u"VORN Migration Control Notification to Net");
    const platform::HWND hWindow = pfnFind(u"VORN Migration Network App Class", u"VORN Migration Network App");
    if (hWindow == nullptr || !pfnPost(hWindow, dwMessage, dwWParam, dwLParam)) {
        *psError = hWindow == nullptr ? "the agent has no window" : "the message cannot be posted";
        return CommandResult::Failed;
    }
    return CommandResult::Done;
}

CommandResult RunSendCommand(const std::vector<std::string> &words, std::string *psError)
{
    IpcMessage record;
    if (!ParseRecord(words, 1, &record, psError)) return CommandResult::Usage;
    if (!SendToAgent(g_Options.dwSession, record, g_Options.dwWaitSeconds * 1000, psError))
        return CommandResult::Failed;
    const std::lock_guard<std::mutex> guard(g_Lock);
    if (!g_Options.bJson) PrintLocked("->", RecordLine(record));
    return CommandResult::Done;
}

CommandResult RunWords(const std::vector<std::string> &words, std::string *psError)
{
    const std::string &sVerb    = words[0];
    uint32_t           dwNumber = 0;
    if (sVerb == "send") return RunSendCommand(words, psError);
    if (sVerb == "send-bytes") {
        if (words.size() != 2 || !ParseNumber(words[1], &dwNumber) || dwNumber > 65536) return CommandResult::Usage;
        return SendBytesToAgent(g_Options.dwSession, std::string(dwNumber, '\0'), g_Options.dwWaitSeconds * 1000,
                                psError)
                   ? CommandResult::Done
                   : CommandResult::Failed;
    }
    if (sVerb == "expect" || sVerb == "absent") {
        Expectation expected;
        if (!ParseExpectation(words, &expected, psError)) return CommandResult::Usage;
        if (WaitForRecord(expected) == (sVerb == "expect")) return CommandResult::Done;
        *psError = sVerb == "expect" ? "no such record came in time" : "such a record came";
        return CommandResult::Failed;
    }
    if (sVerb == "agent") {
        const bool bPresent = words.size() > 1 && words[1] == "present";
        dwNumber            = g_Options.dwWaitSeconds;
        if (words.size() < 2 || words.size() > 3 || (!bPresent && words[1] != "absent") ||
            (words.size() == 3 && (words[2].rfind("within=", 0) != 0 || !ParseNumber(words[2].substr(7), &dwNumber)))) {
            return CommandResult::Usage;
        }
        if (WaitForAgent(g_Options.dwSession, bPresent, dwNumber * 1000)) return CommandResult::Done;
        *psError = bPresent ? "no agent came in time" : "the agent is still there";
        return CommandResult::Failed;
    }
    if (sVerb == "event") return RunEventCommand(words, psError);
    if (sVerb == "post") return RunPostCommand(words, psError);
    if (sVerb == "set" && words.size() == 3) {
        g_Variables[words[1]] = words[2];
        return CommandResult::Done;
    }
    if (sVerb == "print") {
        std::string sText;
        for (size_t i = 1; i < words.size(); i++) sText += (i > 1 ? " " : "") + words[i];
        PrintEvent("print", sText);
        return CommandResult::Done;
    }
    if (sVerb == "quit" && words.size() == 1) return CommandResult::Quit;
    *psError = "no such command: " + sVerb;
    return CommandResult::Usage;
}

} // namespace

void SetConsoleOptions(const ConsoleOptions &options)
{
    g_Options = options;
}

void PrintReceived(const IpcMessage &record)
{
    {
        const std::lock_guard<std::mutex> guard(g_Lock);
        g_Records.push_back(record);
        if (g_Options.bJson) {
            std::printf("%s\n", RecordJson(record).c_str());
            std::fflush(stdout);
        } else {
            PrintLocked("<-", RecordLine(record));
        }
    }
    g_Arrived.notify_all();
}

void PrintNote(const std::string &sText)
{
    PrintEvent("note", sText);
}

CommandResult RunCommand(const std::string &sLine)
{
    std::vector<std::string> words;
    if (!SplitWords(sLine, &words)) {
        PrintEvent("error", "a quote is not closed: " + sLine);
        return CommandResult::Usage;
    }
    if (words.empty() || words[0][0] == '#') return CommandResult::Done;
    ReplaceVariables(&words);
    std::string         sError;
    const CommandResult eResult = RunWords(words, &sError);
    if (eResult == CommandResult::Failed) PrintEvent("failed", sLine + " (" + sError + ")");
    else if (eResult == CommandResult::Usage) PrintEvent("error", sLine + (sError.empty() ? "" : " (" + sError + ")"));
    else if (g_Options.bJson && eResult == CommandResult::Done) PrintEvent("done", sLine);
    return eResult;
}

const char *CommandHelp()
{
    return "  send CODE [P1 [P2 [P3 [TEXT1 [TEXT2 [TEXT3]]]]]]   CODE: a label such as STON_GETPINCODE, or a number\n"
           "  expect CODE [p1=N] [p2=N] [p3=N] [t1=PATTERN] [t2=..] [t3=..] [within=SECONDS] [set=NAME:FIELD]\n"
           "  absent CODE [fields as above] [for=SECONDS]        fails when such a record comes\n"
           "  agent present|absent [within=SECONDS]              waits for the agent to be there, or gone\n"
           "  event create|set|reset|close NAME                  a named event of the service\n"
           "  post control|MESSAGE [WPARAM [LPARAM]]             a message to the agent's window\n"
           "  send-bytes N                                       N zero bytes in one write, instead of a record\n"
           "  set NAME VALUE, print TEXT..., quit                $NAME and ${NAME} stand for a variable's value\n";
}
