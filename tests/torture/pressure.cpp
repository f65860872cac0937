// pressure.cpp: requests as impatient people make them on both machines at once, and then one ordinary link.
// What the service may ask of the link (a PIN shown, a PIN typed, the roles, a disconnect), a cancel, a switch of the
// console and the death of a peer, in any order and with any pauses. After it each request has had its answer, the
// link comes up at the first try and stays, and when it has ended nothing is left of all that.
#include "tests/torture/pair.h"
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

constexpr unsigned CONNECTION = 2080, PIN_SHOWN = 2336, PIN_TYPED = 2337, BROKEN = 818;
constexpr unsigned ANSWER_MS = 40000, LINK_MS = 40000, QUIET_MS = 20000; // bounds for a busy machine

namespace {

// What one machine has been asked for.
struct Asked {
    MachinePtr  machine;
    size_t      nPins    = 0;               // 2336 since its agent started
    int         nTyped   = 0;               // the PIN of a 2337 that is to be answered, 0: none
    bool        bClient  = false;           // a 2080 in mode 2 is to be answered
    size_t      nClient  = 0;               // answers to 2080 before it
    long        nThreads = 0, nSockets = 0; // of its agent before any request
    std::string sSteps;
};

size_t HeardOf(const MachinePtr &machine, unsigned nCode, int nParameter, int nPin)
{
    const auto records = ReceivedRecords(machine);
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), [&](const auto &record) {
        return record.value("code", 0U) == nCode && record.value("p1", 0) == nParameter &&
               record.value("p2", 0) == nPin;
    }));
}

size_t Connections(const MachinePtr &machine)
{
    return Heard(machine, CONNECTION, 2) + Heard(machine, CONNECTION, -4);
}

int LastPin(const MachinePtr &machine)
{
    int nPin = 0;
    for (const auto &record : ReceivedRecords(machine))
        if (record.value("code", 0U) == PIN_SHOWN && record.value("p1", 0) == 3) nPin = record.value("p2", 0);
    return nPin;
}

// Discovery programs of this machine that run.
std::string DiscoveryPrograms(const MachinePtr &machine)
{
    std::string     sFound;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const auto Read = [&](const char *pszFile) {
            std::ostringstream text; // the process may end meanwhile
            text << std::ifstream(entry.path() / pszFile, std::ios::binary).rdbuf();
            return text.str();
        };
        if (entry.path().filename().string().find_first_not_of("0123456789") != std::string::npos) continue;
        std::string sLine = Read("cmdline");
        if (sLine.find("NetMDNS") == std::string::npos ||
            Read("environ").find("VORN_MACHINE=" + machine->plan.sFolder + '\0') == std::string::npos)
            continue;
        std::replace(sLine.begin(), sLine.end(), '\0', ' ');
        sFound += " [" + sLine + "]";
    }
    return sFound;
}

bool Send(Pair *pPair, Asked *pAsked, const std::string &sRequest)
{
    if (Command(pAsked->machine, "send " + sRequest)) return true;
    pPair->Fault(&Tally::nOther, pAsked->machine->plan.sComputer + " takes no request: " + sRequest);
    return false;
}

bool Restart(Pair *pPair, Asked *pAsked)
{
    pPair->Kill(pAsked->machine);
    if (!pPair->Start(pAsked->machine)) return false;
    *pAsked = {pAsked->machine, 0, 0, false, 0, 0, 0, pAsked->sSteps};
    return Await(
        [&] { // its start is over
            const long nThreads = OfProcess(pAsked->machine, "Threads:"),
                       nSockets = OfProcess(pAsked->machine, "socket:");
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
            pAsked->nThreads = OfProcess(pAsked->machine, "Threads:");
            pAsked->nSockets = OfProcess(pAsked->machine, "socket:");
            return pAsked->nThreads == nThreads && pAsked->nSockets == nSockets;
        },
        QUIET_MS);
}

bool Disconnect(Pair *pPair, Asked *pAsked, bool bNotice)
{
    pAsked->nTyped  = 0;
    pAsked->bClient = false;
    return Send(pPair, pAsked, bNotice ? "STON_NETWORKCONNECTION 3 1" : "STON_NETWORKCONNECTION 3");
}

bool ShowPin(Pair *pPair, Asked *pAsked)
{
    pAsked->nTyped = 0;
    pAsked->nPins++;
    return Send(pPair, pAsked, "STON_GETPINCODE 1");
}

bool TypePin(Pair *pPair, Asked *pAsked, int nPin)
{
    // An earlier one of the same PIN may be answered for this one, or this one for it.
    pAsked->nTyped = HeardOf(pAsked->machine, PIN_TYPED, -3, nPin) + HeardOf(pAsked->machine, PIN_TYPED, -4, nPin) +
                                 HeardOf(pAsked->machine, PIN_TYPED, 2, nPin) >
                             0
                         ? 0
                         : nPin;
    return Send(pPair, pAsked, "STON_SETPINCCODE 1 " + std::to_string(nPin));
}

bool Connect(Pair *pPair, Asked *pAsked, bool bClient)
{
    pAsked->bClient = bClient;
    if (bClient) {
        pAsked->nClient = Connections(pAsked->machine);
        pAsked->nTyped  = 0; // a newer search cancels the older one
    }
    return Send(pPair, pAsked, bClient ? "STON_NETWORKCONNECTION 2" : "STON_NETWORKCONNECTION 1");
}

// False when it could not be made.
bool Step(Pair *pPair, Asked *pAsked, Asked *pOther, uint64_t nRandom)
{
    static const char *const NAMES[] = {"pin ", "pin ",    "type ", "type ",   "wrong ",   "server ", "client ",
                                        "end ", "notice ", "none ", "cancel ", "console ", "kill "};
    const uint64_t           nWhat   = nRandom % std::size(NAMES);
    pAsked->sSteps += NAMES[nWhat];
    switch (nWhat) {
    case 0:
    case 1: return ShowPin(pPair, pAsked);
    case 2:
    case 3: return TypePin(pPair, pAsked, std::max(LastPin(pOther->machine), 1));
    case 4: return TypePin(pPair, pAsked, 1000000 + static_cast<int>(nRandom >> 32) % 1000000);
    case 5:
    case 6: return Connect(pPair, pAsked, nWhat == 6);
    case 7:
    case 8: return Disconnect(pPair, pAsked, nWhat == 8);
    case 9: return Send(pPair, pAsked, nRandom >> 32 & 1 ? "STON_NETWORKCONNECTION 0" : "STON_NETWORKCONNECTION 4");
    case 10: return Send(pPair, pAsked, "STON_SETPROGRESS 3");
    case 11:
        pAsked->nTyped  = 0;
        pAsked->bClient = false;
        return Command(pAsked->machine, "post 0x2B1 2") && Command(pAsked->machine, "post 0x2B1 1");
    default: return Restart(pPair, pAsked);
    }
}

// Searches have an end of their own, and whoever asked for one is told.
void ExpectAnswers(Pair *pPair, Asked *pAsked)
{
    const MachinePtr &machine = pAsked->machine;
    if (pAsked->nTyped != 0 && !Await(
                                   [&] {
                                       return HeardOf(machine, PIN_TYPED, 2, pAsked->nTyped) +
                                                  HeardOf(machine, PIN_TYPED, -3, pAsked->nTyped) +
                                                  HeardOf(machine, PIN_TYPED, -4, pAsked->nTyped) >
                                              0;
                                   },
                                   ANSWER_MS))
        pPair->Fault(&Tally::nHang, machine->plan.sComputer + ": the PIN typed is never answered");
    if (pAsked->bClient && !Await([&] { return Connections(machine) > pAsked->nClient; }, ANSWER_MS))
        pPair->Fault(&Tally::nHang, machine->plan.sComputer + ": the role asked for is never answered");
}

// One try, as two people make it. False: a fault.
bool LinkOnce(Pair *pPair, Asked *pServer, Asked *pClient, bool bNotice)
{
    const MachinePtr &server = pServer->machine, &client = pClient->machine;
    if (!Disconnect(pPair, pServer, bNotice) || !Disconnect(pPair, pClient, bNotice) || !ShowPin(pPair, pServer))
        return false;
    const auto IsShown = [&] { return Heard(server, PIN_SHOWN, 3) >= pServer->nPins; };
    if (!Await(IsShown, ANSWER_MS)) {
        pPair->Fault(&Tally::nHang, "of " + std::to_string(pServer->nPins) + " PINs asked for " +
                                        std::to_string(Heard(server, PIN_SHOWN, 3)) + " were shown");
        return false;
    }
    const int  nPin   = LastPin(server);
    const auto Failed = [&] {
        return HeardOf(client, PIN_TYPED, -3, nPin) + HeardOf(client, PIN_TYPED, -4, nPin) +
               HeardOf(server, PIN_SHOWN, -4, nPin);
    };
    const auto IsUp = [&] {
        return HeardOf(client, PIN_TYPED, 2, nPin) > 0 && HeardOf(server, PIN_SHOWN, 2, nPin) > 0;
    };
    const size_t nFailed = Failed();
    if (!TypePin(pPair, pClient, nPin)) return false;
    if (Await([&] { return IsUp() || Failed() > nFailed; }, LINK_MS) && IsUp()) return true;
    pPair->Fault(&Tally::nOther, "no ordinary link: " + server->plan.sComputer + " as server, PIN " +
                                     std::to_string(nPin) + (Failed() > nFailed ? ", told as failed" : ", never told"));
    return false;
}

void ExpectAlive(Pair *pPair, const MachinePtr &from, const MachinePtr &to, int nWord)
{
    if (!Command(from, "send STON_MIGRATIONOPTIONS 1 " + std::to_string(nWord)) ||
        !Command(to, "expect NTOS_MIGRATIONOPTIONS p1=1 p2=" + std::to_string(nWord) + " within=20"))
        pPair->Fault(&Tally::nOther, "the link is not there any more, from " + from->plan.sComputer);
}

void ExpectNothingLeft(Pair *pPair, const Asked &asked)
{
    std::string sLeft;
    const auto  IsQuiet = [&] {
        const long nThreads = OfProcess(asked.machine, "Threads:"), nSockets = OfProcess(asked.machine, "socket:");
        sLeft = DiscoveryPrograms(asked.machine);
        if (nThreads > asked.nThreads) sLeft += " " + std::to_string(nThreads - asked.nThreads) + " threads";
        if (nSockets > asked.nSockets) sLeft += " " + std::to_string(nSockets - asked.nSockets) + " sockets";
        return sLeft.empty();
    };
    if (!Await(IsQuiet, QUIET_MS)) pPair->Fault(&Tally::nLeftover, asked.machine->plan.sComputer + " keeps" + sLeft);
}

} // namespace

void Pressure(Pair *pPair, std::mt19937_64 *pRandom)
{
    static Asked s_aAsked[2];
    const auto   Pick = [pRandom](uint64_t nFrom, uint64_t nTo) { return nFrom + (*pRandom)() % (nTo - nFrom + 1); };
    const auto Pause  = [&](uint64_t nMost) { std::this_thread::sleep_for(std::chrono::milliseconds(Pick(0, nMost))); };
    pPair->environment["VORN_CLOCK_RATE"]    = "5"; // a search's fifteen seconds are enough for a program to start
    pPair->environment["VORN_REUSE_SOCKETS"] = "1"; // as Windows may
    for (int i = 0; i < 2; i++) {
        s_aAsked[i].machine = i == 0 ? pPair->old : pPair->next;
        s_aAsked[i].sSteps.clear();
        if (!IsChildRunning(s_aAsked[i].machine->agent) && !Restart(pPair, &s_aAsked[i]))
            return pPair->Fault(&Tally::nOther, "an agent does not start");
    }
    const std::string sRun = pPair->sRun;
    for (uint64_t i = 0, nSteps = Pick(3, 12); i < nSteps; i++) {
        const uint64_t nWhere = Pick(0, 1);
        pPair->sRun           = sRun + " old: " + s_aAsked[0].sSteps + "new: " + s_aAsked[1].sSteps;
        if (!Step(pPair, &s_aAsked[nWhere], &s_aAsked[1 - nWhere], (*pRandom)()))
            return pPair->Fault(&Tally::nOther, "a step cannot be made");
        Pause(Pick(0, 3) == 0 ? 1500 : 120);
    }
    const bool   bAnswers = Pick(0, 2) == 0, bNotice = Pick(0, 3) == 0;
    const size_t nServer = Pick(0, 1);
    Asked *const pServer = &s_aAsked[nServer], *const pClient = &s_aAsked[1 - nServer];
    pPair->sRun = sRun + " old: " + s_aAsked[0].sSteps + "new: " + s_aAsked[1].sSteps;
    for (Asked &asked : s_aAsked)
        if (bAnswers) ExpectAnswers(pPair, &asked);
    if (!LinkOnce(pPair, pServer, pClient, bNotice)) return;
    const auto   Broken  = [&] { return Heard(pServer->machine, BROKEN, 102) + Heard(pClient->machine, BROKEN, 102); };
    const size_t nBroken = Broken();
    Pause(Pick(0, 4) == 0 ? 3000 : 300);
    const int nWord = static_cast<int>(Pick(1, 1000000000));
    ExpectAlive(pPair, pServer->machine, pClient->machine, nWord);
    ExpectAlive(pPair, pClient->machine, pServer->machine, nWord);
    if (Broken() != nBroken) pPair->Fault(&Tally::nOther, "a standing link is told as broken");
    Disconnect(pPair, Pick(0, 1) == 0 ? pServer : pClient, false);
    if (!Await([&] { return Broken() > nBroken; }, QUIET_MS))
        pPair->Fault(&Tally::nHang, "the peer's end of the link is never told");
    for (const Asked &asked : s_aAsked) ExpectNothingLeft(pPair, asked);
}
