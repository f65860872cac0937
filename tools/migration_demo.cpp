// migration_demo.cpp: one migration as a person would see it: two machines, two agents, two services, and every file
// compared at the end.
#include "tools/driver/profile.h"
#include "tools/driver/scenario.h"
#include "tools/driver/special_data.h"
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using Clock  = std::chrono::steady_clock;

namespace {

struct DemoOptions {
    bool        bInterrupt = false, bWine = false, bKeep = false;
    std::string sFolder, sPrograms, sWork;
};

int Usage(const std::string &sWhy)
{
    std::fprintf(stderr,
                 "migration-demo: %s\nusage: migration-demo --programs BUILD --work FOLDER [--interrupt] [--windows] "
                 "[--keep] [FOLDER]\n",
                 sWhy.c_str());
    return 2;
}

std::string Bytes(uint64_t cb)
{
    char szText[32];
    if (cb < 10000) std::snprintf(szText, sizeof(szText), "%llu B", static_cast<unsigned long long>(cb));
    else if (cb < 10000000) std::snprintf(szText, sizeof(szText), "%.1f KB", static_cast<double>(cb) / 1e3);
    else std::snprintf(szText, sizeof(szText), "%.1f MB", static_cast<double>(cb) / 1e6);
    return szText;
}

void Step(const std::string &sText)
{
    std::printf("  %s\n", sText.c_str());
    std::fflush(stdout);
}

// One line that grows on a terminal, a line each tenth elsewhere.
void ShowProgress(uint64_t cbDone, uint64_t cbBefore, uint64_t cbTotal, double dSeconds, bool bLast)
{
    static int   s_nLastTenth = -1;
    const double dPart = cbTotal == 0 ? 1.0 : std::min(1.0, static_cast<double>(cbDone) / static_cast<double>(cbTotal));
    const double dRate = dSeconds > 0.05 ? static_cast<double>(cbDone - cbBefore) / dSeconds : 0;
    const double dLeft = dRate > 0 ? (static_cast<double>(cbTotal) - static_cast<double>(cbDone)) / dRate : 0;
    char         szText[160];
    std::snprintf(szText, sizeof(szText), "%3.0f %%  %s of %s  %s/s  %.0f s left", dPart * 100, Bytes(cbDone).c_str(),
                  Bytes(cbTotal).c_str(), Bytes(static_cast<uint64_t>(dRate)).c_str(), std::max(0.0, dLeft));
    if (isatty(1)) {
        const int nFull = static_cast<int>(dPart * 30);
        std::printf("\r  [%s%s] %s   %s", std::string(static_cast<size_t>(nFull), '#').c_str(),
                    std::string(static_cast<size_t>(30 - nFull), ' ').c_str(), szText, bLast ? "\n" : "");
    } else if (const int nTenth = static_cast<int>(dPart * 10); nTenth != s_nLastTenth) {
        s_nLastTenth = nTenth;
        std::printf("  %s\n", szText);
    }
    std::fflush(stdout);
}

// Waits for the collection's end and shows progress meanwhile; with bInterrupt kills the old machine's agent half-way.
// The outcome of WaitForCollection, or 1 when the agent was killed.
int WatchCollection(const MachinePtr &old, const MachinePtr &next, uint64_t cbTotal, bool bInterrupt,
                    Clock::time_point begin)
{
    std::atomic<int> nOutcome{100};
    std::thread      waiter;
    bool             bKilled  = false;
    const auto       Elapsed  = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    const uint64_t   cbBefore = CollectedBytes(next); // of an attempt that was interrupted
    uint64_t         cbShown  = cbBefore;
    if (!bInterrupt) waiter = std::thread([&] { nOutcome = WaitForCollection(next, std::chrono::seconds(1800)); });
    while (nOutcome == 100 && !bKilled) {
        cbShown = std::max(cbShown, CollectedBytes(next)); // a read while the file is replaced shows nothing
        ShowProgress(cbShown, cbBefore, cbTotal, Elapsed(), false);
        if (bInterrupt && (cbShown >= cbTotal / 2 || CountRecords(next, 8480) > 0)) {
            KillAgent(old);
            bKilled = true;
        }
        if (!IsChildRunning(old->agent) && !bKilled) break;
        if (!IsChildRunning(next->agent)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(bInterrupt ? 2 : 100));
    }
    if (waiter.joinable()) waiter.join();
    ShowProgress(std::max(cbShown, CollectedBytes(next)), cbBefore, cbTotal, Elapsed(), true);
    return bKilled ? 1 : nOutcome.load();
}

void PrintSpecialData(const std::vector<SpecialData> &all)
{
    std::printf("\n  %-46s %7s %11s  %s\n", "beside the files", "files", "bytes", "on the new machine");
    for (const SpecialData &data : all) {
        std::string sWhat = std::string(SpecialKindText(data.eKind)) + ": " + data.sName;
        if (data.nReports > 0) sWhat += " (" + std::to_string(data.nReports) + " progress reports)";
        std::printf("  %-46s %7zu %11s  %s\n", sWhat.c_str(), data.files.size(), Bytes(data.cb).c_str(),
                    data.sPlace.c_str());
    }
    std::printf("  byte for byte there as well; the caches are gone from the old machine\n");
}

void PrintTable(const MachinePtr &old, const MachinePtr &next, const Profile &profile)
{
    std::printf("\n  %-46s %7s %11s  %s\n", "on the old machine", "files", "bytes", "on the new machine");
    for (const ProfileItem &item : profile.items) {
        const std::string sTo =
            ExpectedPath(old, next, item.sRequest.substr(0, item.sRequest.size() - (item.sRequest.back() == '\\')));
        std::printf("  %-46s %7llu %11s  %s\n", item.sRequest.c_str(), static_cast<unsigned long long>(item.nFiles),
                    Bytes(item.cb).c_str(), sTo.c_str());
    }
    for (const ProfileItem &item : profile.items) {
        for (const ProfileEntry &entry : item.entries) {
            if (!entry.sLeftOut.empty() && !entry.bFolder)
                std::printf("  left out: %s (%s)\n", entry.sSource.c_str(), entry.sLeftOut.c_str());
        }
    }
    for (const auto &record : ReceivedRecords(next)) {
        const std::string sText = record.value("text", "");
        const bool        bFile = !sText.empty() && sText.back() != '\\';
        if (record.value("code", 0) == 819 && record.value("p1", 0) == 1 && bFile)
            std::printf("  not moved: %s (the agent reported it)\n", sText.c_str());
    }
}

// The files that were complete when the agent was killed, by their place on the new machine, with what must not change.
std::map<std::string, std::pair<uint64_t, fs::file_time_type>> FinishedFiles(const MachinePtr &next,
                                                                             const Profile    &profile)
{
    std::map<std::string, std::pair<uint64_t, fs::file_time_type>> finished;
    std::error_code                                                error;
    for (const ProfileItem &item : profile.items) {
        for (const ProfileEntry &entry : item.entries) {
            const fs::path path = entry.bFolder || entry.sExpected.empty() ? "" : HostPathOf(next, entry.sExpected);
            if (!path.empty() && fs::file_size(path, error) == entry.cb && !error)
                finished[path] = {entry.cb, fs::last_write_time(path)};
            error.clear();
        }
    }
    return finished;
}

bool RunMigration(const DemoOptions &options, const MachinePtr &old, const MachinePtr &next, std::string *psError)
{
    Profile                  profile;
    std::vector<std::string> skipped;
    const bool               bFilled = options.sFolder.empty()
                                           ? GenerateProfile(old, next, {}, &profile, psError)
                                           : ProfileFromFolder(old, next, options.sFolder, &profile, &skipped, psError);
    if (!bFilled) return false;
    for (const std::string &sSkipped : skipped) Step("not copied to the old machine: " + sSkipped);
    Step("old machine: " + old->plan.sComputer + ", user " + old->plan.sUser + ", " + std::to_string(profile.nFiles) +
         " files, " + Bytes(profile.cb));
    Step("new machine: " + next->plan.sComputer + ", user " + next->plan.sUser);
    if (!StartMachine(old) || !StartMachine(next)) {
        *psError = "an agent did not announce itself: " + old->sLastError + next->sLastError;
        return false;
    }
    Step("both agents run and have announced themselves to their services");
    std::string sPin;
    if (!LinkByPin(old, next, &sPin)) {
        *psError = "no link: " + old->sLastError + " " + next->sLastError;
        return false;
    }
    Step("the old machine shows PIN " + sPin + "; it was typed on the new one; the machines are linked");
    if (!TellRoleAndOptions(next, old, 77)) {
        *psError = "the options did not arrive: " + old->sLastError + next->sLastError;
        return false;
    }
    std::vector<SpecialData> special = UsualSpecialData();
    for (SpecialData &data : special) {
        if (PlaySpecialData(old, next, &data, psError)) continue;
        *psError = std::string(SpecialKindText(data.eKind)) + " " + data.sName + ": " + *psError;
        return false;
    }
    Step("the services have told options, asked what is supported, and moved settings and an application in caches");
    auto begin = Clock::now();
    if (!RequestCollection(next, RequestLines(profile), profile.cb, false)) {
        *psError = "the collection cannot be asked for: " + next->sLastError;
        return false;
    }
    int nOutcome = WatchCollection(old, next, profile.cb, options.bInterrupt, begin);
    if (options.bInterrupt) {
        if (nOutcome != 1) {
            *psError = "the migration was over before it could be interrupted";
            return false;
        }
        Step("the old machine's agent was killed");
        if (!WaitForBrokenLink(next)) {
            *psError = "the new machine's service was not told of the broken link";
            return false;
        }
        Step("the new machine's service was told that the link broke");
        const auto finished = FinishedFiles(next, profile);
        if (!StartMachine(old) || !LinkAgain(old, next) ||
            !RequestCollection(next, RequestLines(profile), profile.cb, true)) {
            *psError = "the migration cannot be resumed: " + old->sLastError + " " + next->sLastError;
            return false;
        }
        Step("agent started again, machines linked again without a PIN, " + std::to_string(finished.size()) +
             " files were already there");
        begin    = Clock::now();
        nOutcome = WatchCollection(old, next, profile.cb, false, begin);
        for (const auto &[sPath, state] : finished) {
            std::error_code error;
            if (fs::last_write_time(sPath, error) != state.second) *psError += "sent a second time: " + sPath + "\n  ";
        }
        if (!psError->empty()) return false;
        Step("none of them was sent a second time");
    }
    const double dSeconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (nOutcome != 2) {
        *psError = "the collection did not complete (outcome " + std::to_string(nOutcome) + ")";
        return false;
    }
    uint64_t   nSame = 0, cbSame = 0;
    const auto faults = CompareProfile(old, next, profile, &nSame, &cbSame);
    PrintTable(old, next, profile);
    PrintSpecialData(special);
    for (const std::string &sFault : faults) std::printf("  FAULT: %s\n", sFault.c_str());
    std::printf("\n  %llu of %llu files, %s, are byte for byte where they belong.",
                static_cast<unsigned long long>(nSame), static_cast<unsigned long long>(profile.nFiles),
                Bytes(cbSame).c_str());
    if (!options.bInterrupt)
        std::printf(" %.1f s, %s/s.", dSeconds,
                    Bytes(static_cast<uint64_t>(static_cast<double>(cbSame) / dSeconds)).c_str());
    std::printf(" Peak memory: %ld KB (old), %ld KB (new).\n", PeakMemoryKiB(old->agent), PeakMemoryKiB(next->agent));
    if (!faults.empty()) *psError = std::to_string(faults.size()) + " files or folders are not as they should be";
    return faults.empty();
}

} // namespace

int main(int argc, char **argv)
{
    DemoOptions options;
    for (int i = 1; i < argc; i++) {
        const std::string sArg  = argv[i];
        const bool        bMore = i + 1 < argc;
        if (sArg == "--interrupt") options.bInterrupt = true;
        else if (sArg == "--windows") options.bWine = true;
        else if (sArg == "--keep") options.bKeep = true;
        else if (sArg == "--programs" && bMore) options.sPrograms = argv[++i];
        else if (sArg == "--work" && bMore) options.sWork = argv[++i];
        else if (!sArg.empty() && sArg[0] != '-' && options.sFolder.empty()) options.sFolder = sArg;
        else return Usage("wrong option: " + sArg);
    }
    if (options.sPrograms.empty() || options.sWork.empty()) return Usage("--programs and --work are needed");
    if (!options.sFolder.empty() && !fs::is_directory(options.sFolder)) return Usage(options.sFolder + " is no folder");
    const MachineKind eKind = options.bWine ? MachineKind::Wine : MachineKind::Hosted;
    std::printf("Migration from an old machine to a new one (%s)\n",
                options.bWine ? "two Wine prefixes" : "two hosted machines");
    std::string      sError;
    const MachinePtr old  = CreateMachine({eKind,
                                           options.sWork + "/old",
                                           options.sPrograms,
                                           "OLDPC",
                                           "anna",
                                           {'D'},
                                           {{"Desktop", "D:\\Anna\\Desktop"}},
                                           options.sWork + "/rendezvous"},
                                          &sError);
    const MachinePtr next = old ? CreateMachine({eKind,
                                                 options.sWork + "/new",
                                                 options.sPrograms,
                                                 "NEWPC",
                                                 "bernd",
                                                 {},
                                                 {},
                                                 options.sWork + "/rendezvous"},
                                                &sError)
                                : nullptr;
    if (!next) {
        std::fprintf(stderr, "migration-demo: a machine cannot be made: %s\n", sError.c_str());
        return 1;
    }
    const bool bDone = RunMigration(options, old, next, &sError);
    StopMachine(old);
    StopMachine(next);
    if (!bDone) std::printf("  FAILED: %s\n  the machines are kept in %s\n", sError.c_str(), options.sWork.c_str());
    else if (!options.bKeep) {
        std::error_code error;
        fs::remove_all(options.sWork, error);
    } else std::printf("  the machines are kept in %s\n", options.sWork.c_str());
    std::printf("%s\n", bDone ? "Migration complete: nothing lost." : "Migration NOT complete.");
    return bDone ? 0 : 1;
}
