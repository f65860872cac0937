// migration_bench.cpp: how fast the agents move data, beside scp and rsync over ssh on the same data, medium and
// loopback, in one run. The runs of the three are interleaved, so that what else the machine does meets them alike; the
// figures are medians.
#include "bench/data_sets.h"
#include "tools/driver/scenario.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace
{

struct BenchOptions {
    std::string sPrograms, sWork, sSshPort, sSshKey, sSets = "LSM";
    uint64_t    nDivisor = 1;
    int         nRuns = 5;
};

int Usage(const std::string &sWhy)
{
    std::fprintf(stderr,
                 "migration-bench: %s\nusage: migration-bench --programs BUILD --work FOLDER --ssh-port N --ssh-key "
                 "FILE [--sets LSMN]\n"
                 "       [--runs N] [--divisor N]\n",
                 sWhy.c_str());
    return 2;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

double Seconds(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Negative when it failed. The target folder is empty before and is checked by count afterwards.
double RunAgents(const MachinePtr &next, const std::string &sSource, const fs::path &target, const DataSet &set)
{
    std::error_code error;
    fs::remove_all(target, error);
    const auto begin = Clock::now();
    if (!RequestCollection(next, {sSource + "\\"}, set.cb, false) ||
        WaitForCollection(next, std::chrono::seconds(1800)) != 2)
        return -1;
    const double dSeconds = Seconds(begin);
    uint64_t     nFiles = 0;
    for (const auto &entry : fs::recursive_directory_iterator(target))
        nFiles += entry.is_regular_file();
    return nFiles == set.nFiles ? dSeconds : -1;
}

double RunCopy(const std::vector<std::string> &command, const fs::path &target)
{
    std::error_code error;
    fs::remove_all(target, error);
    fs::create_directories(target, error);
    std::string sOutput;
    const auto  begin = Clock::now();
    const int   nExit = RunProgram(command, {}, &sOutput);
    if (nExit != 0) std::fprintf(stderr, "%s: %s\n", command[0].c_str(), sOutput.c_str());
    return nExit == 0 ? Seconds(begin) : -1;
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

// Files per second of the first and the last tenth of a run, from the target's progress; true when the last is not much
// slower.
bool RunFlatness(const MachinePtr &next, const std::string &sSource, const fs::path &target, const DataSet &set)
{
    std::vector<std::pair<double, uint64_t>> samples;
    std::atomic<int>                         nOutcome{100};
    std::error_code                          error;
    fs::remove_all(target, error);
    if (!RequestCollection(next, {sSource + "\\"}, set.cb, false)) return false;
    const auto  begin = Clock::now();
    std::thread waiter([&] { nOutcome = WaitForCollection(next, std::chrono::seconds(1800)); });
    while (nOutcome == 100) {
        const uint64_t cb = CollectedBytes(next);
        if (samples.empty() || cb > samples.back().second) samples.emplace_back(Seconds(begin), cb);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    waiter.join();
    if (nOutcome != 2 || samples.size() < 20) return false;
    const auto At = [&](uint64_t cb) {
        return std::find_if(samples.begin(), samples.end(), [cb](const auto &s) { return s.second >= cb; })->first;
    };
    const double dTenth = static_cast<double>(set.nFiles) / 10;
    const double dFirst = dTenth / (At(set.cb / 10) - samples.front().first),
                 dLast = dTenth / (At(set.cb) - At(set.cb / 10 * 9));
    std::printf("  N  %-40s first tenth %.0f files/s, last tenth %.0f files/s, last/first %.2f\n", set.pszWhat, dFirst,
                dLast, dLast / dFirst);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    BenchOptions options;
    for (int i = 1; i < argc; i++) {
        const std::string sArg = argv[i];
        if (i + 1 >= argc) return Usage("a value is missing: " + sArg);
        const std::string sValue = argv[++i];
        if (sArg == "--programs") options.sPrograms = sValue;
        else if (sArg == "--work") options.sWork = sValue;
        else if (sArg == "--ssh-port") options.sSshPort = sValue;
        else if (sArg == "--ssh-key") options.sSshKey = sValue;
        else if (sArg == "--sets" && sValue.find_first_not_of("LSMN") == std::string::npos) options.sSets = sValue;
        else if (sArg == "--runs" && std::atoi(sValue.c_str()) > 0) options.nRuns = std::atoi(sValue.c_str());
        else if (sArg == "--divisor" && std::atoi(sValue.c_str()) > 0)
            options.nDivisor = static_cast<uint64_t>(std::atoi(sValue.c_str()));
        else return Usage("wrong option: " + sArg + " " + sValue);
    }
    if (options.sPrograms.empty() || options.sWork.empty() || options.sSshPort.empty() || options.sSshKey.empty())
        return Usage("an option is missing");
    std::string      sError;
    const MachinePtr old = CreateMachine({MachineKind::Hosted,
                                          options.sWork + "/old",
                                          options.sPrograms,
                                          "OLDPC",
                                          "anna",
                                          {'D'},
                                          {},
                                          options.sWork + "/rendezvous"},
                                         &sError);
    const MachinePtr next = old ? CreateMachine({MachineKind::Hosted,
                                                 options.sWork + "/new",
                                                 options.sPrograms,
                                                 "NEWPC",
                                                 "bernd",
                                                 {},
                                                 {},
                                                 options.sWork + "/rendezvous"},
                                                &sError)
                                : nullptr;
    if (!next || !StartMachine(old) || !StartMachine(next) || !LinkByPin(old, next, nullptr)) {
        std::fprintf(stderr, "migration-bench: the machines cannot be linked: %s\n", sError.c_str());
        return 1;
    }
    const std::string sSsh =
        "ssh -p " + options.sSshPort + " -i " + options.sSshKey +
        " -c aes128-gcm@openssh.com -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR";
    bool bOk = true;
    std::printf("  %-43s %14s %14s %14s   %s\n", "data", "agents", "scp", "rsync", "agents/scp  agents/rsync");
    for (const char chSet : options.sSets) {
        const std::string sSource = std::string("D:\\Set") + chSet;
        const fs::path    source = HostPathOf(old, sSource),
                       target = HostPathOf(next, std::string("C:\\OLDPC_D\\Set") + chSet),
                       copy = fs::path(options.sWork) / "copy";
        const DataSet set = MakeDataSet(chSet, source, options.nDivisor);
        if (chSet == 'N') {
            bOk = RunFlatness(next, sSource, target, set) && bOk;
        } else {
            std::vector<double> agents, scp, rsync;
            for (int i = 0; i < options.nRuns; i++) {
                agents.push_back(RunAgents(next, sSource, target, set));
                scp.push_back(RunCopy({"/bin/sh", "-c", "exec scp -q -r -S \"$1\" \"$2\" 127.0.0.1:\"$3\"", "sh",
                                       options.sWork + "/ssh.sh", source.string(), copy.string()},
                                      copy));
                rsync.push_back(RunCopy(
                    {"rsync", "-a", "--whole-file", "-e", sSsh, source.string(), "127.0.0.1:" + copy.string()}, copy));
                std::error_code error;
                fs::remove_all(copy, error);
            }
            const double dAgents = Median(agents), dScp = Median(scp), dRsync = Median(rsync);
            bOk = bOk && *std::min_element(agents.begin(), agents.end()) > 0;
            std::printf("  %s  %-40s %14s %14s %14s   %10.2f  %12.2f\n", set.pszName, set.pszWhat,
                        Rate(set, dAgents).c_str(), Rate(set, dScp).c_str(), Rate(set, dRsync).c_str(), dScp / dAgents,
                        dRsync / dAgents);
        }
        std::fflush(stdout);
        std::error_code error;
        fs::remove_all(source, error);
        fs::remove_all(target, error);
    }
    std::printf("  peak memory: %.1f MiB (sending agent), %.1f MiB (receiving agent)\n",
                static_cast<double>(PeakMemoryKiB(old->agent)) / 1024,
                static_cast<double>(PeakMemoryKiB(next->agent)) / 1024);
    StopMachine(old);
    StopMachine(next);
    return bOk ? 0 : 1;
}
