// agents.cpp: the two agents. Their discovery programs meet in folders; the new machine's folder is the benchmark's own
// from the second link on, so that it says where the old machine is to be reached: at its port, or round by the proxy.
#include "bench/contenders.h"
#include "bench/delay_proxy.h"
#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;
using Clock  = std::chrono::steady_clock;

constexpr char SOCKET_DAT[] = "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat";

static double Seconds(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Where a folder "D:\SetX" of the old machine ends up on the new one.
static fs::path TargetOf(const AgentPair &pair, const std::string &sSource)
{
    return HostPathOf(pair.next, "C:\\OLDPC_D\\" + sSource.substr(sSource.rfind('\\') + 1));
}

static void Announce(const AgentPair &pair, uint16_t nPort)
{
    const fs::path  folder = pair.sWork + "/next-rendezvous";
    std::error_code error;
    fs::remove_all(folder, error); // the folder itself, or the way to the old machine's
    fs::create_directories(folder);
    std::ofstream(folder / ("127.0.0.1_" + std::to_string(nPort) + ".vorn-server")).flush();
}

bool StartPair(const BenchOptions &options, AgentPair *pPair, std::string *psError)
{
    const std::string sMeeting = options.sWork + "/old-rendezvous", sNext = options.sWork + "/next-rendezvous";
    fs::create_directories(sMeeting);
    fs::create_directory_symlink(sMeeting, sNext);
    pPair->sWork = options.sWork;
    pPair->old   = CreateMachine(
          {MachineKind::Hosted, options.sWork + "/old", options.sPrograms, "OLDPC", "anna", {'D'}, {}, sMeeting},
          psError);
    if (!pPair->old) return false;
    pPair->next = CreateMachine(
        {MachineKind::Hosted, options.sWork + "/new", options.sPrograms, "NEWPC", "bernd", {}, {}, sNext}, psError);
    if (!pPair->next) return false;
    if (!StartMachine(pPair->old) || !StartMachine(pPair->next) || !LinkByPin(pPair->old, pPair->next, nullptr)) {
        *psError = "the machines cannot be linked";
        return false;
    }
    // The server keeps its port over sessions.
    pPair->nPort =
        static_cast<uint16_t>(std::atoi(IniValue(HostPathOf(pPair->old, SOCKET_DAT), "LastServer", "Port").c_str()));
    pPair->nProxyPort = StartDelayProxy(pPair->nPort, ONE_WAY_DELAY);
    if (pPair->nPort != 0 && pPair->nProxyPort != 0) return true;
    *psError = "no proxy";
    return false;
}

void StopPair(const AgentPair &pair)
{
    StopMachine(pair.old);
    StopMachine(pair.next);
}

// The section is written at the file's end, once; while the link is idle, nobody else writes the file.
static void SetOwnWindow(const MachinePtr &machine, int nWindow)
{
    const std::string sFile = HostPathOf(machine, SOCKET_DAT);
    std::string       sText, sLine;
    std::ifstream     in(sFile, std::ios::binary);
    for (bool bOwn = false; std::getline(in, sLine);) {
        if (sLine.starts_with("[")) bOwn = sLine.starts_with("[Link]");
        if (!bOwn) sText += sLine + "\n";
    }
    sText += "[Link]\r\nSendWindow=" + std::to_string(nWindow) + "\r\n";
    std::ofstream(sFile, std::ios::binary | std::ios::trunc) << sText;
}

bool Relink(const AgentPair &pair, Path ePath, int nWindow)
{
    SetOwnWindow(pair.old, nWindow);
    SetOwnWindow(pair.next, nWindow);
    Announce(pair, ePath == Path::Direct ? pair.nPort : pair.nProxyPort);
    return Unlink(pair.next) && Unlink(pair.old) && LinkAgain(pair.old, pair.next);
}

double RunAgents(const AgentPair &pair, const std::string &sSource, const DataSet &set)
{
    const fs::path target = TargetOf(pair, sSource);
    RetireFolder(target, pair.sWork);
    const auto begin = Clock::now();
    if (!RequestCollection(pair.next, {sSource + "\\"}, set.cb, false) ||
        WaitForCollection(pair.next, std::chrono::seconds(1800)) != 2)
        return -1;
    const double dSeconds = Seconds(begin);
    uint64_t     nFiles   = 0;
    for (const auto &entry : fs::recursive_directory_iterator(target)) nFiles += entry.is_regular_file();
    RetireFolder(target, pair.sWork);
    return nFiles == set.nFiles ? dSeconds : -1;
}

bool RunFlatness(const AgentPair &pair, const std::string &sSource, const DataSet &set)
{
    std::vector<std::pair<double, uint64_t>> samples;
    std::atomic<int>                         nOutcome{100};
    const fs::path                           target = TargetOf(pair, sSource);
    RetireFolder(target, pair.sWork);
    if (!RequestCollection(pair.next, {sSource + "\\"}, set.cb, false)) return false;
    const auto  begin = Clock::now();
    std::thread waiter([&] { nOutcome = WaitForCollection(pair.next, std::chrono::seconds(1800)); });
    while (nOutcome == 100) {
        const uint64_t cb = CollectedBytes(pair.next);
        if (samples.empty() || cb > samples.back().second) samples.emplace_back(Seconds(begin), cb);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    RetireFolder(target, pair.sWork);
    if (nOutcome != 2 || samples.size() < 20 || samples.back().second < set.cb) return false;
    const auto At = [&](uint64_t cb) {
        return std::find_if(samples.begin(), samples.end(), [cb](const auto &s) { return s.second >= cb; })->first;
    };
    const double dTenth = static_cast<double>(set.nFiles) / 10;
    const double dFirst = dTenth / (At(set.cb / 10) - samples.front().first),
                 dLast  = dTenth / (At(set.cb) - At(set.cb / 10 * 9));
    std::printf("  N  %s: first tenth %.0f files/s, last tenth %.0f files/s, last/first %.2f\n", set.pszWhat, dFirst,
                dLast, dLast / dFirst);
    return true;
}
