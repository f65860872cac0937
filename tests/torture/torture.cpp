// torture.cpp: the experiments and their table.
//   torture [EXPERIMENT]... [--seed N] [--runs N] [--first N] [--short] [--list]
// A run is made of the seed, the experiment's name and the run's number alone; --first N --runs 1 repeats one.
// Ends with 1 when anything was lost, doubled, left, hung, crashed or was reported by a sanitizer.
#include "tests/torture/pair.h"
#include "tools/driver/scenario.h"
#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using Random = std::mt19937_64;

constexpr unsigned FAILED_ITEM = 819;

struct RunPlace {
    Random   random;
    int      nRun, nRuns;
    uint64_t nSeed;
    // Spreads any number of runs evenly over what they vary.
    double At() const { return std::fmod((nRun + 0.5) * 0.6180339887 + static_cast<double>(nSeed % 1000) * 0.37, 1.0); }
    bool   Single() const { return nRun % 2 != 0; } // single files instead of a folder
};
static uint64_t Pick(RunPlace *p, uint64_t nFrom, uint64_t nTo)
{
    return nFrom + p->random() % (nTo - nFrom + 1);
}
static void Pause(unsigned nMilliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(nMilliseconds));
}

// What a whole request has on the line; measured once for each kind.
static uint64_t LineBytes(Pair *pPair, bool bSingle)
{
    static uint64_t s_acb[2];
    if (s_acb[bSingle] == 0) {
        if (!pPair->Prepare(bSingle)) return 1 << 20;
        pPair->Complete(pPair->Request(false));
        s_acb[bSingle] = pPair->proxy->cbPassed;
    }
    return s_acb[bSingle];
}

// A request that is disturbed once so many bytes have passed: at most a tenth of the points lie behind its end.
static bool Disturb(Pair *pPair, RunPlace *p, const std::function<void()> &fn)
{
    const uint64_t cbLine = LineBytes(pPair, p->Single());
    if (!pPair->Prepare(p->Single())) return false;
    auto       bMet = std::make_shared<std::atomic<bool>>(false);
    const auto cb   = static_cast<uint64_t>(p->At() * 1.06 * static_cast<double>(cbLine));
    pPair->proxy->At(cb, [fn, bMet] {
        fn();
        *bMet = true;
    });
    if (!pPair->Request(false)) {
        pPair->Fault(&Tally::nOther, "the request could not be made");
        return false;
    }
    if (cb >= cbLine - 1000) { // behind the last file: some moments after the end
        pPair->AwaitEnd();
        Pause(static_cast<unsigned>(Pick(p, 0, 30)));
        if (!*bMet) fn();
        pPair->proxy->At(UINT64_MAX, nullptr);
        *bMet = true;
    }
    Await([&] { return bMet->load(); }, 60000);
    return true;
}

static void KillRun(Pair *pPair, RunPlace *p, bool bOld, bool bNext)
{
    const bool bStarted = Disturb(pPair, p, [pPair, bOld, bNext] {
        const Child oldAgent = pPair->old->agent, nextAgent = pPair->next->agent; // Kill below may come in between
        if (bOld) KillChild(oldAgent);
        if (bNext) KillChild(nextAgent);
    });
    if (!bStarted) return;
    // Whoever is left is told of it; an end that was told before is one.
    const int nEnd = pPair->AwaitEnd();
    if (bOld) pPair->Kill(pPair->old);
    if (bNext) pPair->Kill(pPair->next);
    if (nEnd == 2) { // state that a killed sender had still to remove belongs to a collection that is over
        pPair->Compare(false);
        ++pPair->pTally->notes["killed after the end was told"];
    } else {
        pPair->Complete(false);
    }
}

static void Outage(Pair *pPair, RunPlace *p)
{
    const auto nSeconds = Pick(p, 1, 60); // of the machines' time
    const auto nEnd     = Pick(p, 0, 4);  // reset, close, half-close, going on, a trickle
    Proxy     *pProxy   = pPair->proxy.get();
    if (!Disturb(pPair, p, [pProxy, nEnd] { (nEnd == 4 ? pProxy->bTrickle : pProxy->bHold) = true; })) return;
    Pause(static_cast<unsigned>(nSeconds * 100)); // their clocks run ten times as fast
    if (nEnd < 3) pProxy->End(static_cast<LineEnd>(nEnd));
    pProxy->bHold    = false;
    pProxy->bTrickle = false;
    pPair->Complete(true);
}

// True when a request has ended with nothing left to ask for. A failed item is told by a record, which the eight behind
// it push out of the service's queue when all come at once; what failed is then known to the old machine alone.
static bool IsWhole(Pair *pPair, int nEnd, size_t nFailedBefore)
{
    if (nEnd != 2 || Heard(pPair->next, FAILED_ITEM, 1) != nFailedBefore) return false;
    if (pPair->IsStateGone()) return true;
    ++pPair->pTally->notes["a failed item's record was pushed out of the service's queue"];
    return false;
}

static void CallFails(Pair *pPair, RunPlace *p)
{
    static const auto CALLS =
        Words("CreateFileW:5 CreateFileW:32 ReadFile:30 WriteFile:29 SetFilePointerEx:25 GetFileSizeEx:5 "
              "GetFileAttributesW:5 GetFileAttributesExW:5 SetFileAttributesW:5 FindFirstFileW:5 "
              "FindNextFileW:23 MoveFileExW:5 DeleteFileW:32 CreateDirectoryW:5 CreateDirectoryWithParents:5 "
              "SHGetKnownFolderPath:2147500037 GetPrivateProfileStringW:5 WritePrivateProfileStringW:5 "
              "CreateThread:8 CreateEventW:8 WaitForSingleObject:6 SetEvent:6 send:10054 recv:10054 send:10060 "
              "BCryptOpenAlgorithmProvider:3221225473 BCryptGenerateSymmetricKey:3221225473 "
              "BCryptImportKey:3221225473 BCryptExportKey:3221225473 BCryptEncrypt:3221225473 "
              "BCryptDecrypt:3221225473 GetDriveTypeW:1 GetLogicalDrives:5 CreateEveryoneSecurity:8",
              ' ');
    const std::string sCall = CALLS[static_cast<size_t>(p->nRun / 4) % CALLS.size()]; // with its error
    const bool        bOld = p->nRun % 2 == 0, bOn = p->nRun / 2 % 2 != 0;
    const unsigned    nRound = static_cast<unsigned>(p->nRun) / static_cast<unsigned>(4 * CALLS.size());
    const uint64_t    nTh    = nRound == 0 ? Pick(p, 1, 12) : nRound == 1 ? Pick(p, 13, 80) : Pick(p, 81, 600);
    const std::string sName  = sCall.substr(0, sCall.find(':'));
    const Environment faults = {
        {"VORN_FAULTS", sName + ":" + std::to_string(nTh) + sCall.substr(sName.size()) + (bOn ? ":on" : "")}};
    const MachinePtr &victim = bOld ? pPair->old : pPair->next;
    pPair->sRun += " " + std::string(bOld ? "old " : "new ") + faults.at("VORN_FAULTS");
    if (!pPair->Prepare(p->nRun / 8 % 2 != 0)) return;
    pPair->Stop(victim);
    const unsigned nBefore = pPair->pTally->Faults();
    // Whatever it does with the fault, it ends or says so; and the next process completes it.
    bool bWent = pPair->Start(victim, faults);
    if (bWent) bWent = pPair->Link(1);
    const size_t nFailed = Heard(pPair->next, FAILED_ITEM, 1);
    if (bWent) bWent = pPair->Request(false);
    const int nEnd = bWent ? pPair->AwaitEnd(30000) : 0;
    ++pPair->pTally->notes[!bWent       ? "no link or request with it"
                           : nEnd == 2  ? "complete in spite of it"
                           : nEnd == -2 ? "answered with -2"
                                        : "link or agent ended"];
    // The target's agent hears its service and speaks to it through these calls too.
    static const std::string SPEECH = " CreateFileW ReadFile WriteFile CreateEventW SetEvent WaitForSingleObject ";
    const bool               bMute  = !bOld && bOn && SPEECH.find(" " + sName + " ") != std::string::npos;
    if (nEnd == -100 && bMute) ++pPair->pTally->notes["could not tell its service"];
    else if (nEnd == -100) pPair->Fault(&Tally::nHang, "no end was told");
    if (pPair->pTally->Faults() != nBefore) return;
    const bool bWhole = IsWhole(pPair, nEnd, nFailed);
    pPair->Kill(victim); // it may not hear the order to end
    if (bWhole) return pPair->Compare(false);
    pPair->Complete(false);
}

static void DiskFull(Pair *pPair, RunPlace *p)
{
    const bool bOld = p->nRun % 4 == 3;
    if (!pPair->Prepare(p->nRun / 2 % 2 != 0)) return;
    const auto cb = bOld ? Pick(p, 0, 6000) : static_cast<uint64_t>(p->At() * static_cast<double>(pPair->cbItems));
    const MachinePtr &victim = bOld ? pPair->old : pPair->next;
    pPair->sRun += " " + std::string(bOld ? "old C:" : "new C:") + std::to_string(cb);
    pPair->Stop(victim);
    const bool bWent =
        pPair->Start(victim, {{"VORN_DRIVE_FULL", "C:" + std::to_string(cb + (bOld ? 0 : 40000))}}) && pPair->Link(1);
    const size_t nFailed = Heard(pPair->next, FAILED_ITEM, 1);
    const int    nEnd    = bWent && pPair->Request(false) ? pPair->AwaitEnd() : 0;
    ++pPair->pTally->notes[nEnd == 2 ? "first answer 2" : nEnd == -2 ? "first answer -2" : "no link with it"];
    if (nEnd == -100) pPair->Fault(&Tally::nHang, "no end was told");
    const bool bWhole = IsWhole(pPair, nEnd, nFailed);
    pPair->Stop(victim);
    if (bWhole) return pPair->Compare(false);
    pPair->Complete(false); // there is space again
}

static void FlippedBit(Pair *pPair, RunPlace *p)
{
    // From the mark of an exchange: word, path, type, attributes, flag, size, key length, key, chunk length, chunk.
    static const struct {
        bool        bFromServer;
        const char *pszMark;
        unsigned    nFrom, nTo;
    } FIELDS[]        = {{true, "SendFile", 0, 9},       {true, "SendFile", 10, 90},     {true, "SendFile", 91, 2059},
                         {true, "SendFile", 2060, 2063}, {true, "SendFile", 2064, 2067}, {true, "SendFile", 2068, 2068},
                         {true, "SendFile", 2069, 2076}, {true, "SendFile", 2077, 2080}, {true, "SendFile", 2081, 2150},
                         {true, "SendFile", 2150, 2400}, {true, "SendData", 0, 9},       {true, "SendData", 10, 40},
                         {true, "SendData", 41, 1593},   {false, "SendData", 0, 40},     {false, "SendData", 41, 1593},
                         {false, "SendFile", 0, 2400},   {false, "FileDone", 0, 9}};
    const auto &field = FIELDS[static_cast<size_t>(p->nRun) % std::size(FIELDS)];
    const bool bFew = !field.bFromServer && std::strcmp(field.pszMark, "FileDone") != 0; // the list file and one record
    if (!pPair->Prepare(p->nRun / 17 % 2 != 0)) return;
    const auto nTh     = static_cast<unsigned>(bFew ? 1 : Pick(p, 1, 30)),
               nOffset = static_cast<unsigned>(Pick(p, field.nFrom, field.nTo)),
               nBit    = static_cast<unsigned>(Pick(p, 0, 7));
    pPair->sRun += " " + std::string(field.pszMark) +
                   (field.bFromServer ? " of the old machine, no. " : " of the new machine, no. ") +
                   std::to_string(nTh) + ", byte " + std::to_string(nOffset) + ", bit " + std::to_string(nBit);
    pPair->proxy->Flip(field.bFromServer, field.pszMark, nTh, nOffset, nBit);
    const int nEnd  = pPair->Request(false) ? pPair->AwaitEnd(20000) : 0;
    auto     &notes = pPair->pTally->notes;
    ++notes[!pPair->proxy->bFlipped ? "not reached"
            : nEnd == 2             ? "answered with 2"
            : nEnd == -2            ? "answered with -2"
                                    : "link ended"];
    if (nEnd == -100 && field.bFromServer) ++notes["end not told (its own record was hit, or the request's)"];
    for (const MachinePtr &machine : {pPair->old, pPair->next})
        if (!IsChildRunning(machine->agent))
            pPair->Fault(&Tally::nCrash, machine->plan.sComputer + " has ended by itself");
    for (const MachinePtr &machine :
         {pPair->old, pPair->next}) { // nothing beside the drives, the state and the user's places
        for (const auto &entry : fs::directory_iterator(machine->plan.sFolder)) {
            const std::string sName = entry.path().filename().string();
            if (sName.find("drive_") != 0 && sName != "run" && sName != "trace" &&
                sName.find(".ini") == std::string::npos)
                pPair->Fault(&Tally::nOther, "outside the drives: " + entry.path().string());
        }
        pPair->Stop(machine);
    }
    pPair->Compare(true);
}

static void JunkInState(Pair *pPair, RunPlace *p)
{
    if (!pPair->Prepare(p->Single())) return;
    static const char *const FILES[] = {"recordinfo.ini", "completeinfo.ini", "collectioninfo.ini", "progressinfo.ini",
                                        "localinfo.ini",  "targetinfo.ini",   "Socket.dat"};
    const std::string        sFile   = FILES[static_cast<size_t>(p->nRun) % std::size(FILES)];
    const MachinePtr        &machine = p->nRun / 7 % 2 == 0 ? pPair->old : pPair->next;
    for (const MachinePtr &each : {pPair->old, pPair->next}) pPair->Stop(each);
    const std::string sPath  = sFile == "Socket.dat" ? "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat"
                                                     : KnownFolder(machine, "Progress") + "\\" + sFile;
    std::string       sBytes = Junk(p->random, Pick(p, 1, 70000));
    if (p->nRun % 3 == 0) sBytes = "\xFF\xFE" + sBytes;
    if (p->nRun % 3 == 1) { // half sense
        std::ifstream     file(HostPathOf(machine, sPath), std::ios::binary);
        const std::string sOld((std::istreambuf_iterator<char>(file)), {});
        sBytes = sOld.substr(0, sOld.size() / 2) + sBytes;
    }
    WriteBytes(HostPathOf(machine, sPath), sBytes);
    pPair->sRun += " " + machine->plan.sComputer + " " + sFile;
    pPair->Complete(false);
}

static void JunkOnThePipe(Pair *pPair, RunPlace *p)
{
    if (!pPair->Prepare(p->Single())) return;
    for (int i = 0; i < 100; i++) {
        const MachinePtr     &machine = p->random() % 2 != 0 ? pPair->old : pPair->next;
        static const unsigned CODES[] = {0x1120, 0x1121, 0x1131, 0x1320, 0x1430, 0x2020, 0x2120,
                                         0x2330, 0x2430, 0x344,  0x336,  0x820,  0x3021};
        uint32_t              nCode =
            p->random() % 2 != 0 ? CODES[p->random() % std::size(CODES)] : static_cast<uint32_t>(p->random());
        if (nCode == 545) nCode++; // that one ends it
        if (i % 4 == 3) {          // no record at all
            if (IsChildRunning(machine->agent)) Command(machine, "send-bytes " + std::to_string(Pick(p, 0, 9000)));
            continue;
        }
        static const char *const TEXTS[]  = {"\"\"",
                                             "C:\\\\",
                                             "\"C:\\\\..\\\\..\\\\x\"",
                                             "\"\\\\\\\\?\\\\C:\\\\NUL\"",
                                             "%s%n",
                                             "C:\\\\Users\\\\anna\\\\nothing\\\\"};
        std::string              sCommand = "send " + std::to_string(nCode);
        for (int k = 0; k < 3; k++)
            sCommand +=
                " " + std::to_string(static_cast<int32_t>(p->random() % 3 != 0 ? p->random() % 5 : p->random()));
        for (int k = 0; k < 3; k++) sCommand += std::string(" ") + TEXTS[p->random() % std::size(TEXTS)];
        if (IsChildRunning(machine->agent)) Command(machine, sCommand);
    }
    for (const MachinePtr &machine : {pPair->old, pPair->next}) pPair->Stop(machine);
    pPair->Complete(false);
}

// A peer of ours on the server's port: with the PIN or without, and then whatever comes to mind.
static void JunkFromAPeer(Pair *pPair, RunPlace *p)
{
    const bool bPin = p->nRun % 2 != 0;
    if (!pPair->Prepare(false)) return;
    if (!Command(pPair->old, "send STON_NETWORKCONNECTION 3")) return;
    const size_t nShown = Heard(pPair->old, 2336, 3);
    if (!Command(pPair->old, "send STON_GETPINCODE 1") ||
        !Await([&] { return Heard(pPair->old, 2336, 3) > nShown; }, 30000))
        return pPair->Fault(&Tally::nOther, "no PIN was shown");
    std::string sPin;
    for (const auto &record : ReceivedRecords(pPair->old))
        if (record.value("code", 0U) == 2336 && record.value("p1", 0) == 3)
            sPin = std::to_string(record.value("p2", 0));
    for (int i = 0; i < 6; i++) {
        const int   fd          = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address     = {};
        address.sin_family      = AF_INET;
        address.sin_port        = htons(pPair->proxy->nServerPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) {
            std::string sSay(bPin ? 0 : p->random() % 3000, '\0');
            if (bPin) {
                sSay                             = sPin + std::string(50 - sPin.size(), '\0'); // the handshake's field
                static const char *const WORDS[] = {"SendFile", "SendData", "FileDone", "KeepAlive",
                                                    "FILERRDF", "AckAlive", "TypeWrong"};
                for (int k = 0; k < 20; k++) {
                    std::string sWord = WORDS[p->random() % std::size(WORDS)];
                    sWord.resize(10);
                    sSay += sWord + Junk(p->random, p->random() % 3000);
                }
            } else {
                sSay = Junk(p->random, sSay.size());
            }
            send(fd, sSay.data(), sSay.size(), MSG_NOSIGNAL);
            Pause(static_cast<unsigned>(Pick(p, 1, 120)));
        }
        close(fd);
    }
    pPair->Compare(true);
    for (const MachinePtr &machine : {pPair->old, pPair->next}) pPair->Stop(machine);
    pPair->Complete(false);
}

// One process for all runs: what it holds is level after the tenth.
static void Session(Pair *pPair, RunPlace *p)
{
    static const struct {
        const char *pszWhat;
        double      dMay; // grow by, beside a few
    } HELD[] = {{"VmRSS:", 1.15}, {"fd", 1.0}, {"Threads:", 1.0}};
    static long s_aTenth[2][3];
    if (!pPair->Prepare(p->Single())) return;
    pPair->Complete(pPair->Request(false));
    pPair->Unlink(p->nRun % 4 < 2 ? pPair->next : pPair->old);
    if (!pPair->Link()) return pPair->Fault(&Tally::nOther, "no further session");
    Pause(p->nRun % 10 == 9 || p->nRun == p->nRuns - 1 ? 1500 : 0); // what ends in its own time has ended
    for (int m = 0; m < 2; m++) {
        for (int i = 0; i < 3; i++) {
            const long n = OfProcess(m == 0 ? pPair->old : pPair->next, HELD[i].pszWhat);
            if (p->nRun == 9) s_aTenth[m][i] = n;
            if (p->nRun != p->nRuns - 1 || p->nRuns <= 10) continue;
            const std::string sText = std::string(m == 0 ? "old " : "new ") + HELD[i].pszWhat + " " +
                                      std::to_string(s_aTenth[m][i]) + " -> " + std::to_string(n);
            ++pPair->pTally->notes[sText];
            if (static_cast<double>(n) > static_cast<double>(s_aTenth[m][i]) * HELD[i].dMay + (i == 0 ? 20000 : 3))
                pPair->Fault(&Tally::nOther, "grows: " + sText);
        }
    }
}

static void CancelOrDisconnect(Pair *pPair, RunPlace *p)
{
    static const char *const HOWS[] = {"cancelled", "disconnected by the target", "disconnected by the source"};
    if (!Disturb(pPair, p, [] {})) return;
    const uint64_t nHow = Pick(p, 0, 2);
    pPair->sRun += std::string(" ") + HOWS[nHow];
    ++pPair->pTally->notes[HOWS[nHow]];
    if (nHow == 0) {
        if (!Command(pPair->next, "send STON_SETPROGRESS 3"))
            pPair->Fault(&Tally::nOther, "the order could not be given");
        return pPair->Complete(true);
    }
    pPair->Unlink(nHow == 1 ? pPair->next : pPair->old);
    if (pPair->AwaitEnd(500) == 2) return pPair->Compare(false); // it was over before
    pPair->Complete(false);
}

struct Experiment {
    const char *pszName;
    int         nRuns, nShort;
    const char *pszWhat;
    void (*pRun)(Pair *, RunPlace *);
};
static const Experiment EXPERIMENTS[] = {
    {"kill-sender", 170, 8, "the sender is killed", [](Pair *a, RunPlace *p) { KillRun(a, p, true, false); }},
    {"kill-receiver", 170, 8, "the receiver is killed", [](Pair *a, RunPlace *p) { KillRun(a, p, false, true); }},
    {"kill-both", 160, 4, "both are killed", [](Pair *a, RunPlace *p) { KillRun(a, p, true, true); }},
    {"outage", 200, 8, "the line is dead, then ends or goes on", Outage},
    {"calls", 408, 16, "a platform call fails", CallFails},
    {"disk-full", 100, 6, "a full disk, then space again", DiskFull},
    {"bits", 510, 17, "a flipped bit on the line", FlippedBit},
    {"state-junk", 140, 4, "junk in a state file", JunkInState},
    {"pipe-junk", 60, 1, "junk records on both pipes", JunkOnThePipe},
    {"peer-junk", 60, 2, "junk from a peer with and without the PIN", JunkFromAPeer},
    {"sessions", 200, 12, "sessions in one process", Session},
    {"cancel", 100, 6, "cancelled or disconnected", CancelOrDisconnect},
    {"pressure", 200, 5, "requests that overlap, then one link", [](Pair *a, RunPlace *p) { Pressure(a, &p->random); }},
};

static void PrintTable(const std::vector<std::pair<const Experiment *, Tally>> &tallies)
{
    std::printf("| experiment | runs | requests | missing | different | twice | left | progress | hang | crash | other "
                "|\n|---|---|---|---|---|---|---|---|---|---|---|\n");
    for (const auto &[pExperiment, t] : tallies)
        std::printf("| %s: %s | %u | %u | %u | %u | %u | %u | %u | %u | %u | %u |\n", pExperiment->pszName,
                    pExperiment->pszWhat, t.nRuns, t.nRequests, t.nMissing, t.nDifferent, t.nTwice, t.nLeftover,
                    t.nProgress, t.nHang, t.nCrash, t.nOther);
    for (const auto &[pExperiment, t] : tallies)
        for (const auto &[sNote, n] : t.notes) std::printf("%s: %s: %u\n", pExperiment->pszName, sNote.c_str(), n);
}

int main(int argc, char **argv)
{
    std::vector<std::string> names;
    uint64_t                 nSeed = 1;
    int                      nRuns = 0, nFirst = 0;
    bool                     bShort = false;
    for (int i = 1; i < argc; i++) {
        const std::string sArg  = argv[i];
        const bool        bMore = i + 1 < argc;
        if (sArg == "--seed" && bMore) nSeed = std::strtoull(argv[++i], nullptr, 10);
        else if (sArg == "--runs" && bMore) nRuns = std::atoi(argv[++i]);
        else if (sArg == "--first" && bMore) nFirst = std::atoi(argv[++i]);
        else if (sArg == "--short") bShort = true;
        else if (std::any_of(std::begin(EXPERIMENTS), std::end(EXPERIMENTS),
                             [&](const Experiment &e) { return sArg == e.pszName; }))
            names.push_back(sArg);
        else {
            std::fprintf(stderr,
                         "usage: torture [EXPERIMENT]... [--seed N] [--runs N] [--first N] [--short]\nexperiments:");
            for (const Experiment &e : EXPERIMENTS) std::fprintf(stderr, " %s", e.pszName);
            std::fprintf(stderr, "\n");
            return 2;
        }
    }
    const char *pszPrograms = std::getenv("VORN_E2E_PROGRAMS"), *pszFolder = std::getenv("TMPDIR");
    std::string sWork = std::string(pszFolder != nullptr ? pszFolder : "/tmp") + "/vorn-torture-XXXXXX";
    if (pszPrograms == nullptr || mkdtemp(sWork.data()) == nullptr) return 2;
    std::vector<std::pair<const Experiment *, Tally>> tallies;
    unsigned                                          nFailed = 0, nPassed = 0;
    for (const Experiment &e : EXPERIMENTS) {
        if (!names.empty() && std::find(names.begin(), names.end(), e.pszName) == names.end()) continue;
        Tally     tally;
        const int nOf  = nRuns > 0 && nFirst == 0 ? nRuns : bShort ? e.nShort : e.nRuns;
        const int nEnd = nFirst + (nRuns > 0 ? nRuns : nOf);
        {
            Pair pair(sWork + "/" + e.pszName, pszPrograms, e.pszName == std::string("pressure"));
            pair.pTally = &tally;
            for (int i = nFirst; i < nEnd; i++) {
                std::seed_seq  seed{nSeed, static_cast<uint64_t>(&e - EXPERIMENTS), static_cast<uint64_t>(i)};
                RunPlace       place   = {Random(seed), i, std::max(nOf, nEnd), nSeed};
                const unsigned nBefore = tally.Faults();
                pair.sRun =
                    std::string(e.pszName) + " --seed " + std::to_string(nSeed) + " --first " + std::to_string(i);
                tally.nRuns++;
                e.pRun(&pair, &place);
                if (tally.Faults() == nBefore) {
                    nPassed++;
                    continue;
                }
                nFailed++; // from here on with machines that nothing has happened to
                for (const MachinePtr &machine : {pair.old, pair.next}) pair.Kill(machine);
            }
            pair.sRun              = std::string(e.pszName) + " at its end";
            const unsigned nBefore = tally.Faults();
            for (const MachinePtr &machine : {pair.old, pair.next}) pair.Stop(machine);
            if (tally.Faults() != nBefore) nFailed++;
        }
        tallies.emplace_back(&e, std::move(tally));
        std::printf("%s: %u runs, %u faults\n", e.pszName, tallies.back().second.nRuns, tallies.back().second.Faults());
        std::fflush(stdout);
    }
    PrintTable(tallies);
    std::printf("torture tests: %u passed, %u failed\n", nPassed, nFailed);
    std::error_code error;
    if (nFailed == 0) fs::remove_all(sWork, error);
    else std::printf("the machines are kept in %s\n", sWork.c_str());
    return nFailed == 0 ? 0 : 1;
}
