// transfer_run.cpp: the request, the progress, the outcome.
#include "tools/migrate/transfer_run.h"
#include "migration/state_files.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "tools/migrate/conversation.h"
#include "tools/migrate/machine_text.h"
#include "tools/migrate/show.h"
#include "tools/record_text.h"
#include <algorithm>
#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

constexpr char     LIST_FILE[]    = "collection.txt";
constexpr uint32_t LOOK_MS        = 200;
constexpr uint32_t CANCEL_MS      = 20000;
constexpr double   TELL_SECONDS   = 0.5;
constexpr double   RATE_SECONDS   = 10; // over which the shown rate is taken
constexpr char     CAUSE_FULL[]   = "no room on this PC";
constexpr char     CAUSE_FAILED[] = "could not be read on the other PC, or not be stored on this one";

bool WriteProgressInfo(uint64_t cbTotal, uint64_t cbDone)
{
    char16_t szFile[STATE_PATH_UNITS];
    if (!GetProgressFile(PROGRESS_INFO_FILE, szFile) || !CreateStateFile(szFile)) return false;
    const std::u16string sTotal = ToWide(std::to_string(cbTotal)), sDone = ToWide(std::to_string(cbDone));
    return platform::WritePrivateProfileStringW(COLLECTION_SECTION, TOTAL_SIZE_KEY, sTotal.c_str(), szFile) &&
           platform::WritePrivateProfileStringW(COLLECTION_SECTION, PROGRESS_SIZE_KEY, sDone.c_str(), szFile);
}

double RateOf(const TransferRun &run)
{
    if (run.samples.size() < 2) return 0;
    const auto &last = run.samples.back();
    auto        it   = run.samples.end() - 2;
    while (it != run.samples.begin() && last.first - it->first < RATE_SECONDS) --it;
    return last.first - it->first > 0.01 ? static_cast<double>(last.second - it->second) / (last.first - it->first) : 0;
}

void Look(const Plan &plan, TransferRun *pRun, Clock::time_point begin, double *pdTold)
{
    const double   dNow   = std::chrono::duration<double>(Clock::now() - begin).count();
    const uint64_t cbRead = GetProgressSize(0); // 0 while the file is being replaced
    pRun->cbAfter         = std::max(pRun->cbAfter, std::min(cbRead, std::max(plan.cb, pRun->cbBefore)));
    pRun->dSeconds        = dNow;
    if (dNow - *pdTold < TELL_SECONDS) return;
    *pdTold = dNow;
    pRun->samples.emplace_back(dNow, pRun->cbAfter - pRun->cbBefore);
    const PlanPosition position = PositionAt(plan, pRun->cbAfter);
    const ProgressView view = {pRun->cbAfter, plan.cb, position.nFiles, plan.nFiles, RateOf(*pRun), position.sFolder};
    Tell({{"event", "progress"},
          {"bytes", view.cbDone},
          {"of", view.cbTotal},
          {"files", view.nFiles},
          {"rate", static_cast<uint64_t>(view.dRate)},
          {"folder", view.sFolder}});
    ShowProgress(view);
}

// True at the end.
bool Take(const IpcMessage &record, TransferRun *pRun)
{
    if (record.dwCommand == NTOS_ERRORCONTROL && record.dwParam1 == 107) pRun->bFull = true;
    if (record.dwCommand == STON_MIGRATIONCOLLECTION) {
        pRun->nOutcome = static_cast<int32_t>(record.dwParam1);
        return true;
    }
    if (record.dwCommand == NTOS_FAILITEMS) {
        const std::string sPath = Text1Of(record);
        const bool        bFile = !sPath.empty() && sPath.back() != '\\';
        if (bFile && record.dwParam1 == 1) pRun->failed[sPath] = CAUSE_FAILED;
        else pRun->failed.erase(sPath);
    }
    return IsLinkLost(record);
}

// The agents end the file under way, and the other one tells where the collection stands.
void Cancel(TransferRun *pRun)
{
    IpcMessage record;
    pRun->bStopped = true;
    Say("Stopping after the file under way ...");
    SendRecord(STON_SETPROGRESS, 3);
    AwaitRecord(
        CANCEL_MS, [pRun](const IpcMessage &heard) { return Take(heard, pRun); }, &record, false);
}

} // namespace

TransferRun RunTransfer(const Plan &plan, bool bResume)
{
    TransferRun       run;
    const std::string sList = JoinPath(ParentOf(ProgressFolder()), LIST_FILE);
    run.cbBefore = run.cbAfter = bResume ? std::min(GetProgressSize(0), plan.cb) : 0;
    if (!WriteProgressInfo(plan.cb, run.cbBefore) || !WriteLines(sList, RequestLines(plan)) ||
        !SendRecord(STON_MIGRATIONCOLLECTION, 1, 0, sList))
        return run;
    const auto begin = Clock::now();
    double     dTold = -1;
    IpcMessage record;
    for (bool bEnd = false; !bEnd;) {
        if (NextRecord(LOOK_MS, &record)) bEnd = Take(record, &run);
        Look(plan, &run, begin, &dTold);
        if (!StopAsked() || bEnd) continue;
        Cancel(&run);
        bEnd = true;
    }
    dTold = -1;
    Look(plan, &run, begin, &dTold);
    EndProgress();
    if (run.nOutcome == 2)
        for (const std::string &sMissing : MissingFiles(plan)) run.failed.emplace(sMissing, CAUSE_FAILED);
    if (run.bFull)
        for (auto &[sPath, sCause] : run.failed) sCause = CAUSE_FULL;
    return run;
}
