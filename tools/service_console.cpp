// service_console.cpp: plays the migration service for one agent: holds the service's mutex and pipe, prints every
// record that the agent sends, and plays what a scenario file, the command line's -c options or the standard input say.
#include "platform/kernel.h"
#include "tools/console_session.h"
#include "tools/record_text.h"
#include "tools/service_pipes.h"
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

static int Usage(const std::string &sWhy)
{
    std::fprintf(stderr,
                 "service-console: %s\n"
                 "usage: service-console [--json] [--session N] [--wait SECONDS] [-c COMMAND]... [SCENARIO | -]\n"
                 "  --json       one JSON object a line instead of readable lines\n"
                 "  --session N  the session of the agent (this process's own unless told)\n"
                 "  --wait N     seconds that a wait lasts when it names no time (30)\n"
                 "  -c COMMAND   one command; with neither -c nor SCENARIO commands come from standard input\n"
                 "ends with 0, 1 when a command of a scenario failed, 2 for a wrong option or command\ncommands:\n%s",
                 sWhy.c_str(), CommandHelp());
    return 2;
}

// The commands of a stream, one a line. A scenario stops at its first failure; a person at the keyboard goes on.
static int RunStream(std::istream &stream, bool bStopAtFailure)
{
    std::string sLine;
    int         nResult = 0;
    while (std::getline(stream, sLine)) {
        const CommandResult eResult = RunCommand(sLine);
        if (eResult == CommandResult::Quit) break;
        if (eResult == CommandResult::Done) continue;
        nResult = eResult == CommandResult::Usage ? 2 : 1;
        if (bStopAtFailure) break;
    }
    return nResult;
}

int main(int argc, char **argv)
{
    ConsoleOptions           options;
    std::vector<std::string> commands;
    std::string              sScenario;
    uint32_t                 dwOwn = 0;
    if (platform::ProcessIdToSessionId(platform::GetCurrentProcessId(), &dwOwn)) options.dwSession = dwOwn;
    for (int i = 1; i < argc; i++) {
        const std::string sArg  = argv[i];
        const bool        bMore = i + 1 < argc;
        if (sArg == "--json") options.bJson = true;
        else if (sArg == "--session" && bMore && ParseNumber(argv[i + 1], &options.dwSession)) i++;
        else if (sArg == "--wait" && bMore && ParseNumber(argv[i + 1], &options.dwWaitSeconds)) i++;
        else if (sArg == "-c" && bMore) commands.emplace_back(argv[++i]);
        else if ((sArg == "-" || sArg.rfind('-', 0) != 0) && sScenario.empty() && !sArg.empty()) sScenario = sArg;
        else return Usage("wrong option or value: " + sArg);
    }
    SetConsoleOptions(options);
    std::string sError;
    if (!StartServicePipe(PrintReceived, PrintNote, &sError)) {
        std::fprintf(stderr, "service-console: %s\n", sError.c_str());
        return 1;
    }
    int nResult = 0;
    for (const std::string &sCommand : commands) {
        const CommandResult eResult = RunCommand(sCommand);
        if (eResult == CommandResult::Done) continue;
        nResult = eResult == CommandResult::Quit ? 0 : eResult == CommandResult::Usage ? 2 : 1;
        break;
    }
    if (nResult == 0 && (commands.empty() || !sScenario.empty())) {
        if (sScenario.empty() || sScenario == "-") {
            nResult = RunStream(std::cin, false);
        } else {
            std::ifstream file(sScenario);
            if (!file) {
                std::fprintf(stderr, "service-console: %s cannot be opened\n", sScenario.c_str());
                std::_Exit(1);
            }
            nResult = RunStream(file, true);
        }
    }
    // A client that keeps its connection open would keep a pipe thread reading for ever: the process just ends.
    std::fflush(stdout);
    std::_Exit(nResult);
}
