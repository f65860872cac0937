// main.cpp: migrate, the migration service for two people who have none. It plays the service of its own PC's agent;
// everything that moves, the agents move.
#include "platform/console.h"
#include "platform/errors.h"
#include "platform/shell.h"
#include "tools/migrate/exit_codes.h"
#include "tools/migrate/give.h"
#include "tools/migrate/show.h"
#include "tools/migrate/take.h"
#include "tools/record_text.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>

static int Usage(const std::string &sWhy)
{
    const std::string sText =
        "migrate: " + Harmless(sWhy) +
        "\n"
        "usage: migrate give [--resume] [--json]            on the old PC: shows a PIN and waits\n"
        "       migrate take PIN [ITEM...] [OPTIONS]        on the new PC: ITEM is Documents, D:\\Photos, ...\n"
        "       migrate take --resume [OPTIONS]             goes on with what was broken off\n"
        "  --preview   only shows what would come, and where\n"
        "  --yes       does not ask\n"
        "  --json      one JSON object a line\n"
        "ends with 0 all there, 1 some items failed, 2 wrong usage, 3 not linked, 4 broken off and resumable\n";
    platform::WriteStandard(platform::Standard::Error, sText.c_str());
    return EXIT_USAGE;
}

static bool IsPin(const std::string &sWord)
{
    return !sWord.empty() && sWord.size() <= 6 &&
           std::all_of(sWord.begin(), sWord.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
}

// What follows the program's name, whatever code page the system has.
static std::vector<std::string> Arguments()
{
    std::vector<std::string> arguments;
    int32_t                  nArguments = 0;
    char16_t               **ppsz       = platform::CommandLineToArgvW(platform::GetCommandLineW(), &nArguments);
    for (int32_t i = 1; ppsz != nullptr && i < nArguments; i++)
        arguments.push_back(ToUtf8(ppsz[i], std::char_traits<char16_t>::length(ppsz[i])));
    platform::LocalFree(ppsz);
    return arguments;
}

static int RunCommandLine(const std::vector<std::string> &arguments)
{
    TakeOptions       options;
    const std::string sVerb = arguments.empty() ? "" : arguments[0];
    const bool        bTake = sVerb == "take";
    if (!bTake && sVerb != "give") return Usage("say give or take");
    for (size_t i = 1; i < arguments.size(); i++) {
        const std::string &sArg = arguments[i];
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
    if (!options.bYes && !options.bPreview && (IsJson() || !platform::IsConsole(platform::Standard::Input)))
        return Usage("nobody can be asked here: say --yes or --preview");
    return Take(options);
}

int main()
{
    const int nExit = RunCommandLine(Arguments());
    std::fflush(stdout);
    std::_Exit(nExit); // a peer that keeps its connection open would keep a pipe thread reading for ever
}
