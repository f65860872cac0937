// main.cpp: migrate, the migration service for two people who have none. It plays the service of its own PC's agent;
// everything that moves, the agents move.
#include "tools/migrate/exit_codes.h"
#include "tools/migrate/give.h"
#include "tools/migrate/show.h"
#include "tools/migrate/take.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

static int Usage(const std::string &sWhy)
{
    std::fprintf(
        stderr,
        "migrate: %s\n"
        "usage: migrate give [--resume] [--json]            on the old PC: shows a PIN and waits\n"
        "       migrate take PIN [ITEM...] [OPTIONS]        on the new PC: ITEM is Documents, D:\\Photos, ...\n"
        "       migrate take --resume [OPTIONS]             goes on with what was broken off\n"
        "  --preview   only shows what would come, and where\n"
        "  --yes       does not ask\n"
        "  --json      one JSON object a line\n"
        "ends with 0 all there, 1 some items failed, 2 wrong usage, 3 not linked, 4 broken off and resumable\n",
        sWhy.c_str());
    return EXIT_USAGE;
}

static bool IsPin(const std::string &sWord)
{
    return !sWord.empty() && sWord.size() <= 6 &&
           std::all_of(sWord.begin(), sWord.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
}

static int RunCommandLine(int argc, char **argv)
{
    TakeOptions       options;
    const std::string sVerb = argc > 1 ? argv[1] : "";
    const bool        bTake = sVerb == "take";
    if (!bTake && sVerb != "give") return Usage("say give or take");
    for (int i = 2; i < argc; i++) {
        const std::string sArg = argv[i];
        if (sArg == "--json") UseJson();
        else if (sArg == "--resume") options.bResume = true;
        else if (bTake && sArg == "--preview") options.bPreview = true;
        else if (bTake && sArg == "--yes") options.bYes = true;
        else if (sArg.rfind("--", 0) == 0 || !bTake) return Usage("wrong option: " + sArg);
        else if (options.sPin.empty() && options.items.empty() && IsPin(sArg)) options.sPin = sArg;
        else options.items.push_back(sArg);
    }
    if (!bTake) return Give(options.bResume);
    if (options.sPin.empty() && !options.bResume) return Usage("the PIN that the old PC shows is missing");
    if (!options.bYes && !options.bPreview && (IsJson() || !isatty(0)))
        return Usage("nobody can be asked here: say --yes or --preview");
    return Take(options);
}

int main(int argc, char **argv)
{
    PrepareConsole();
    const int nExit = RunCommandLine(argc, argv);
    std::fflush(stdout);
    std::_Exit(nExit); // a peer that keeps its connection open would keep a pipe thread reading for ever
}
