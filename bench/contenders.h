// contenders.h: what is measured on one data set: two linked agents, and the copy programs beside them. Each can go
// over loopback directly or through a proxy that delays.
#pragma once
#include "bench/data_sets.h"
#include "tools/driver/scenario.h"
#include <string>

constexpr std::chrono::microseconds ONE_WAY_DELAY(1000);
constexpr int                       WINDOW_FILES = 64;

struct BenchOptions {
    std::string sPrograms, sWork, sSsh, sSshPort, sDaemonPort, sSets = "LSM", sPaths = "direct,delayed";
    uint64_t    nDivisor = 1;
    int         nRuns = 5, nDelayedRuns = 3;
};

// How the bytes go.
enum class Path { Direct, Delayed };

// The two machines; the old one sends.
struct AgentPair {
    MachinePtr  old, next;
    std::string sWork;
    uint16_t    nPort = 0, nProxyPort = 0; // of the old machine's agent, and of the way round
};
// Creates and links them. False with the reason in *psError.
bool StartPair(const BenchOptions &options, AgentPair *pPair, std::string *psError);
void StopPair(const AgentPair &pair);
// Links them anew over a path, with that many files unanswered at most (1: one at a time). False when they do not link.
bool Relink(const AgentPair &pair, Path ePath, int nWindow);
// Moves the data set. Seconds, or negative when it failed: the target is empty before and is checked by count
// afterwards.
double RunAgents(const AgentPair &pair, const std::string &sSource, const DataSet &set);
// Files per second of the first and the last tenth of a run, from the target's progress; false when it failed.
bool RunFlatness(const AgentPair &pair, const std::string &sSource, const DataSet &set);

enum class Tool { Scp, RsyncSsh, RsyncDaemon };
struct CopyPorts {
    std::string sSsh, sDaemon;
};
// Copies the data set's folder into sWork/copy, which is made anew and removed. Seconds, or negative.
double RunCopy(Tool eTool, const BenchOptions &options, const CopyPorts &ports, const std::string &sSource);
