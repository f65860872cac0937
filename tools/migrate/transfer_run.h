// transfer_run.h: the transfer itself, seen from the new PC.
#pragma once
#include "tools/migrate/plan.h"
#include <map>
#include <string>
#include <vector>

struct TransferRun {
    int                                      nOutcome = 0; // 8480: 2 or -2; 0: the link was lost, or nothing more came
    bool                                     bFull = false, bStopped = false;
    std::map<std::string, std::string>       failed;  // path on the old PC and why
    std::vector<std::pair<double, uint64_t>> samples; // seconds and bytes since the start
    double                                   dSeconds = 0;
    uint64_t                                 cbBefore = 0, cbAfter = 0;
};
// Asks for everything in the plan and follows it to its end. bResume: what was counted before is kept.
TransferRun RunTransfer(const Plan &plan, bool bResume);
