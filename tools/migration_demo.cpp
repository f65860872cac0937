// migration_demo.cpp: one migration as two people do it: migrate give on an old machine, migrate take on a new one,
// what both say, and every file compared at the end.
#include "tools/driver/process.h"
#include "tools/driver/profile.h"
#include "tools/driver/scenario.h"
#include "tools/migrate/exit_codes.h"
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr auto SHOWN_TIME  = std::chrono::milliseconds(120000); // until a PIN is there, on a busy machine
constexpr auto LOOK_TIME   = std::chrono::milliseconds(200);
constexpr auto DONE_TIME   = std::chrono::minutes(60);
constexpr auto END_TIME    = std::chrono::seconds(60);
constexpr char PIN_WORDS[] = "migrate take ";

struct DemoOptions {
    bool        bInterrupt = false, bWine = false, bKeep = false;
    std::string sFolder, sPrograms, sWork;
    std::string sLan; // the two network namespaces sLan-1 and sLan-2 that the machines are in; else none
};

std::atomic<pid_t> g_aCommands[2]; // the two commands at work

// Ctrl-C is theirs: they end in order, and their agents with them.
void PassOn(int)
{
    for (const auto &command : g_aCommands)
        if (command > 0) kill(command, SIGINT);
}

// One of the two people: the command at work, and the PIN that it has shown.
struct Person {
    bool                    bOld = false;
    MachinePtr              machine;
    std::string             sNamespace;
    Child                   command;
    std::mutex              lock;
    std::condition_variable shown;
    std::string             sPin;
};

int Usage(const std::string &sWhy)
{
    std::fprintf(stderr,
                 "migration-demo: %s\nusage: migration-demo --programs BUILD --work FOLDER [--interrupt] [--windows] "
                 "[--lan NAME] [--keep] [FOLDER]\n",
                 sWhy.c_str());
    return 2;
}

std::string Bytes(uint64_t cb)
{
    char szText[32];
    std::snprintf(szText, sizeof(szText), "%.1f MB", static_cast<double>(cb) / 1e6);
    return szText;
}

void Step(const std::string &sText)
{
    std::printf("%s\n", sText.c_str());
    std::fflush(stdout);
}

// Two Wine prefixes have one name, the host's.
const char *Label(const Person &person)
{
    return person.bOld ? "OLDPC" : "NEWPC";
}

void Heard(Person *pPerson, const std::string &sLine)
{
    Step(std::string(Label(*pPerson)) + "   " + sLine);
    const size_t n = sLine.find(PIN_WORDS);
    if (n == std::string::npos) return;
    const std::string sPin = sLine.substr(n + sizeof(PIN_WORDS) - 1);
    if (sPin.empty() || sPin.find_first_not_of("0123456789") != std::string::npos) return;
    const std::lock_guard<std::mutex> guard(pPerson->lock);
    pPerson->sPin = sPin;
    pPerson->shown.notify_all();
}

// Types "migrate ..." on the person's machine.
bool Type(Person *pPerson, const std::vector<std::string> &arguments, std::string *psError)
{
    std::vector<std::string> command = InstalledCommand(pPerson->machine, "migrate");
    std::string              sTyped  = std::string("\n") + Label(*pPerson) + " > migrate";
    for (const std::string &sArgument : arguments) sTyped += " " + sArgument;
    Step(sTyped);
    command.insert(command.end(), arguments.begin(), arguments.end());
    if (!pPerson->sNamespace.empty()) {
        const std::vector<std::string> entry = {"ip",  "netns", "exec",           pPerson->sNamespace,
                                                "env", "-u",    "VORN_RENDEZVOUS"};
        command.insert(command.begin(), entry.begin(), entry.end());
    }
    pPerson->command = StartChild(
        command, pPerson->machine->environment, [pPerson](const std::string &sLine) { Heard(pPerson, sLine); },
        pPerson->machine->plan.sFolder + ".migrate.log");
    if (pPerson->command == nullptr) {
        *psError = "migrate does not start";
        return false;
    }
    g_aCommands[pPerson->bOld ? 0 : 1] = static_cast<pid_t>(ChildPid(pPerson->command));
    return true;
}

// A command that still runs is asked to end, so that its agent ends too.
void Leave(Person *pPerson)
{
    if (!pPerson->command) return;
    if (IsChildRunning(pPerson->command)) {
        kill(static_cast<pid_t>(ChildPid(pPerson->command)), SIGINT);
        WaitForChild(pPerson->command, END_TIME, nullptr);
    }
    g_aCommands[pPerson->bOld ? 0 : 1] = 0;
    pPerson->command                   = nullptr;
}

// The command's exit code, -1 when it does not end.
int End(Person *pPerson)
{
    int        nExit  = -1;
    const bool bEnded = WaitForChild(pPerson->command, DONE_TIME, &nExit);
    if (bEnded) g_aCommands[pPerson->bOld ? 0 : 1] = 0; // the number may soon be another process's
    return bEnded ? nExit : -1;
}

std::string AwaitPin(Person *pPerson)
{
    std::unique_lock<std::mutex> lock(pPerson->lock);
    for (auto left = SHOWN_TIME; pPerson->sPin.empty() && left > LOOK_TIME; left -= LOOK_TIME) {
        pPerson->shown.wait_for(lock, LOOK_TIME);
        if (!IsChildRunning(pPerson->command)) break;
    }
    return pPerson->sPin;
}

// The files that are complete, by their place on the new machine, with what must not change.
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

// Ctrl-C on the new machine half-way, and migrate take --resume.
bool InterruptAndResume(Person *pTaker, const Profile &profile, std::string *psError)
{
    const MachinePtr &next = pTaker->machine;
    while (IsChildRunning(pTaker->command) && CollectedBytes(next) < profile.cb / 2)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    Step(std::string(Label(*pTaker)) + " > Ctrl-C");
    kill(static_cast<pid_t>(ChildPid(pTaker->command)), SIGINT);
    if (const int nExit = End(pTaker); nExit != EXIT_BROKEN_OFF) {
        *psError = nExit == EXIT_ALL_THERE ? "the migration was over before it could be interrupted"
                                           : "the interrupted migrate take ended with " + std::to_string(nExit);
        return false;
    }
    const auto finished = FinishedFiles(next, profile);
    Step("\n" + std::to_string(finished.size()) + " files are complete on the new machine.");
    if (!Type(pTaker, {"take", "--resume", "--yes"}, psError)) return false;
    if (const int nExit = End(pTaker); nExit != EXIT_ALL_THERE) {
        *psError = "migrate take --resume ended with " + std::to_string(nExit);
        return false;
    }
    for (const auto &[sPath, state] : finished) {
        std::error_code error;
        if (fs::last_write_time(sPath, error) != state.second) *psError += "sent a second time: " + sPath + "\n";
    }
    if (psError->empty()) Step("\nNone of them was sent a second time.");
    return psError->empty();
}

bool Migrate(const DemoOptions &options, Person *pGiver, Person *pTaker, const Profile &profile, std::string *psError)
{
    if (!Type(pGiver, {"give"}, psError)) return false;
    const std::string sPin = AwaitPin(pGiver);
    if (sPin.empty()) {
        *psError = "migrate give shows no PIN";
        return false;
    }
    std::vector<std::string> arguments = {"take", sPin};
    for (const std::string &sItem : RequestLines(profile)) arguments.push_back(sItem);
    arguments.push_back("--yes");
    if (!Type(pTaker, arguments, psError)) return false;
    if (options.bInterrupt) {
        if (!InterruptAndResume(pTaker, profile, psError)) return false;
    } else if (const int nExit = End(pTaker); nExit != EXIT_ALL_THERE) {
        *psError = "migrate take ended with " + std::to_string(nExit);
        return false;
    }
    if (const int nExit = End(pGiver); nExit != EXIT_ALL_THERE) {
        *psError = "migrate give ended with " + std::to_string(nExit);
        return false;
    }
    return true;
}

bool Compare(const MachinePtr &old, const MachinePtr &next, const Profile &profile, std::string *psError)
{
    uint64_t   nSame = 0, cbSame = 0;
    const auto faults = CompareProfile(old, next, profile, &nSame, &cbSame);
    for (const std::string &sFault : faults) std::printf("FAULT: %s\n", sFault.c_str());
    std::printf("\n%llu of %llu files, %s, are byte for byte where they belong.\n",
                static_cast<unsigned long long>(nSame), static_cast<unsigned long long>(profile.nFiles),
                Bytes(cbSame).c_str());
    if (!faults.empty()) *psError = std::to_string(faults.size()) + " files or folders are not as they should be";
    return faults.empty();
}

bool RunDemo(const DemoOptions &options, const MachinePtr &old, const MachinePtr &next, std::string *psError)
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
    if (!options.sLan.empty()) Step("each in a network namespace of its own, joined by one cable");
    Person giver, taker;
    giver.bOld    = true;
    giver.machine = old;
    taker.machine = next;
    if (!options.sLan.empty()) {
        giver.sNamespace = options.sLan + "-1";
        taker.sNamespace = options.sLan + "-2";
    }
    signal(SIGINT, PassOn);
    signal(SIGTERM, PassOn);
    const bool bMoved = Migrate(options, &giver, &taker, profile, psError);
    Leave(&taker);
    Leave(&giver);
    return bMoved && Compare(old, next, profile, psError);
}

MachinePtr MakeOne(const DemoOptions &options, bool bOld, std::string *psError)
{
    MachinePlan plan;
    plan.eKind       = options.bWine ? MachineKind::Wine : MachineKind::Hosted;
    plan.sFolder     = options.sWork + (bOld ? "/old" : "/new");
    plan.sPrograms   = options.sPrograms;
    plan.sComputer   = bOld ? "OLDPC" : "NEWPC";
    plan.sUser       = bOld ? "anna" : "bernd";
    plan.sRendezvous = options.sWork + "/rendezvous";
    if (bOld) {
        plan.drives  = {'D'};
        plan.folders = {{"Desktop", "D:\\Anna\\Desktop"}};
    }
    return CreateMachine(plan, psError);
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
        else if (sArg == "--lan" && bMore) options.sLan = argv[++i];
        else if (sArg == "--programs" && bMore) options.sPrograms = argv[++i];
        else if (sArg == "--work" && bMore) options.sWork = argv[++i];
        else if (!sArg.empty() && sArg[0] != '-' && options.sFolder.empty()) options.sFolder = sArg;
        else return Usage("wrong option: " + sArg);
    }
    if (options.sPrograms.empty() || options.sWork.empty()) return Usage("--programs and --work are needed");
    if (!options.sFolder.empty() && !fs::is_directory(options.sFolder)) return Usage(options.sFolder + " is no folder");
    std::printf("Migration from an old machine to a new one (%s)\n",
                options.bWine ? "two Wine prefixes" : "two hosted machines");
    std::fflush(stdout);
    std::string      sError;
    const MachinePtr old  = MakeOne(options, true, &sError);
    const MachinePtr next = old ? MakeOne(options, false, &sError) : nullptr;
    if (!next) {
        std::fprintf(stderr, "migration-demo: a machine cannot be made: %s\n", sError.c_str());
        return 1;
    }
    const bool bDone = RunDemo(options, old, next, &sError);
    StopMachine(old);
    StopMachine(next);
    std::error_code error;
    if (!bDone) std::printf("FAILED: %s\n", sError.c_str());
    if (bDone && !options.bKeep) fs::remove_all(options.sWork, error);
    else std::printf("The machines are kept in %s\n", options.sWork.c_str());
    std::printf("%s\n", bDone ? "Migration complete: nothing lost." : "Migration NOT complete.");
    return bDone ? 0 : 1;
}
