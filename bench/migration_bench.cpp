// migration_bench.cpp: how fast the agents move data, with a window of files on the way and one file at a time, beside
// scp, rsync over ssh and an rsync daemon without encryption, on the same data and medium, in one run: over loopback
// directly, and behind a delay each way. The runs are interleaved, so that what else the machine does meets them alike;
// the figures are medians.
#include "bench/contenders.h"
#include "bench/delay_proxy.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace fs = std::filesystem;

namespace {

int Usage(const std::string &sWhy)
{
    std::fprintf(
        stderr,
        "migration-bench: %s\nusage: migration-bench --programs BUILD --work FOLDER --ssh WRAPPER --ssh-port N "
        "--daemon-port N\n"
        "       [--sets LSMN] [--paths direct,delayed] [--runs N] [--delayed-runs N] [--divisor N]\n",
        sWhy.c_str());
    return 2;
}

bool TakeOption(const std::string &sName, const std::string &sValue, BenchOptions *pOptions)
{
    const int nValue = std::atoi(sValue.c_str());
    if (sName == "--programs") pOptions->sPrograms = sValue;
    else if (sName == "--work") pOptions->sWork = sValue;
    else if (sName == "--ssh") pOptions->sSsh = sValue;
    else if (sName == "--ssh-port" && nValue > 0) pOptions->sSshPort = sValue;
    else if (sName == "--daemon-port" && nValue > 0) pOptions->sDaemonPort = sValue;
    else if (sName == "--sets" && sValue.find_first_not_of("LSMN") == std::string::npos) pOptions->sSets = sValue;
    else if (sName == "--paths" && (sValue == "direct" || sValue == "delayed" || sValue == "direct,delayed"))
        pOptions->sPaths = sValue;
    else if (sName == "--runs" && nValue > 0) pOptions->nRuns = nValue;
    else if (sName == "--delayed-runs" && nValue > 0) pOptions->nDelayedRuns = nValue;
    else if (sName == "--divisor" && nValue > 0) pOptions->nDivisor = static_cast<uint64_t>(nValue);
    else return false;
    return true;
}

double Median(std::vector<double> values)
{
    if (values.empty() || *std::min_element(values.begin(), values.end()) < 0) return -1;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string Rate(const DataSet &set, double dSeconds)
{
    char szText[48];
    if (dSeconds <= 0) return "failed";
    if (set.cb / set.nFiles < 100000)
        std::snprintf(szText, sizeof(szText), "%.0f files/s", static_cast<double>(set.nFiles) / dSeconds);
    else std::snprintf(szText, sizeof(szText), "%.0f MB/s", static_cast<double>(set.cb) / dSeconds / 1e6);
    return szText;
}

std::string Times(double dOther, double dWindow)
{
    char szText[32];
    if (dOther <= 0 || dWindow <= 0) return "-";
    std::snprintf(szText, sizeof(szText), "%.2f", dOther / dWindow);
    return szText;
}

// All contenders on one data set and path. False when an agent's run failed.
bool Compare(const BenchOptions &options, const AgentPair &pair, const CopyPorts &ports, Path ePath,
             const std::string &sSource, const DataSet &set)
{
    constexpr Tool      TOOLS[]     = {Tool::Scp, Tool::RsyncSsh, Tool::RsyncDaemon};
    const std::string   sHostSource = HostPathOf(pair.old, sSource);
    std::vector<double> window, single, copies[std::size(TOOLS)];
    const int           nRuns = ePath == Path::Direct ? options.nRuns : options.nDelayedRuns;
    for (int i = 0; i < nRuns; i++) {
        window.push_back(Relink(pair, ePath, WINDOW_FILES) ? RunAgents(pair, sSource, set) : -1);
        single.push_back(Relink(pair, ePath, 1) ? RunAgents(pair, sSource, set) : -1);
        for (size_t nTool = 0; nTool < std::size(TOOLS); nTool++)
            copies[nTool].push_back(RunCopy(TOOLS[nTool], options, ports, sHostSource));
    }
    const double dWindow = Median(window), dSingle = Median(single), dScp = Median(copies[0]), dSsh = Median(copies[1]),
                 dDaemon = Median(copies[2]);
    std::printf("  %s  %-8s %14s %14s %14s %14s %14s   %7s %7s %7s %7s\n", set.pszName,
                ePath == Path::Direct ? "direct" : "1 ms", Rate(set, dWindow).c_str(), Rate(set, dSingle).c_str(),
                Rate(set, dScp).c_str(), Rate(set, dSsh).c_str(), Rate(set, dDaemon).c_str(),
                Times(dSingle, dWindow).c_str(), Times(dScp, dWindow).c_str(), Times(dSsh, dWindow).c_str(),
                Times(dDaemon, dWindow).c_str());
    std::fflush(stdout);
    return dWindow > 0 && dSingle > 0;
}

// One data set over the paths that are wanted.
bool MeasureSet(const BenchOptions &options, const AgentPair &pair, const CopyPorts &direct, const CopyPorts &delayed,
                char chSet)
{
    const std::string sSource = std::string("D:\\Set") + chSet;
    const DataSet     set     = MakeDataSet(chSet, HostPathOf(pair.old, sSource), options.nDivisor);
    bool              bOk     = true;
    if (chSet == 'N') {
        bOk = Relink(pair, Path::Direct, WINDOW_FILES) && RunFlatness(pair, sSource, set);
    } else {
        if (options.sPaths.find("direct") != std::string::npos)
            bOk = Compare(options, pair, direct, Path::Direct, sSource, set) && bOk;
        if (options.sPaths.find("delayed") != std::string::npos)
            bOk = Compare(options, pair, delayed, Path::Delayed, sSource, set) && bOk;
    }
    std::error_code error;
    fs::remove_all(HostPathOf(pair.old, sSource), error);
    ForgetRetired(options.sWork);
    return bOk;
}

std::string ProxyPort(const std::string &sPort)
{
    return std::to_string(StartDelayProxy(static_cast<uint16_t>(std::atoi(sPort.c_str())), ONE_WAY_DELAY));
}

} // namespace

int main(int argc, char **argv)
{
    BenchOptions options;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) return Usage(std::string("a value is missing: ") + argv[i]);
        if (!TakeOption(argv[i], argv[i + 1], &options))
            return Usage(std::string("wrong option: ") + argv[i] + " " + argv[i + 1]);
    }
    if (options.sPrograms.empty() || options.sWork.empty() || options.sSsh.empty() || options.sSshPort.empty() ||
        options.sDaemonPort.empty())
        return Usage("an option is missing");
    AgentPair   pair;
    std::string sError;
    if (!StartPair(options, &pair, &sError)) {
        std::fprintf(stderr, "migration-bench: %s\n", sError.c_str());
        return 1;
    }
    const CopyPorts direct  = {options.sSshPort, options.sDaemonPort};
    const CopyPorts delayed = {ProxyPort(options.sSshPort), ProxyPort(options.sDaemonPort)};
    std::printf("     %-8s %14s %14s %14s %14s %14s   %s\n", "path", "window", "one at a time", "scp", "rsync ssh",
                "rsync daemon", "window against:  one,    scp,    ssh,  daemon");
    bool bOk = true;
    for (const char chSet : options.sSets) {
        if (!MeasureSet(options, pair, direct, delayed, chSet)) {
            std::printf("  %c  failed\n", chSet);
            bOk = false;
        }
    }
    std::printf("  peak memory: %.1f MiB (sending agent), %.1f MiB (receiving agent)\n",
                static_cast<double>(PeakMemoryKiB(pair.old->agent)) / 1024,
                static_cast<double>(PeakMemoryKiB(pair.next->agent)) / 1024);
    StopPair(pair);
    return bOk ? 0 : 1;
}
