// console_session.h: what the service console keeps of a conversation, and the commands that play it.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>
#include <string>

// How the console prints and whom it talks to.
struct ConsoleOptions {
    bool     bJson         = false;
    uint32_t dwSession     = 0;
    uint32_t dwWaitSeconds = 30; // bound of a wait that names none
};
void SetConsoleOptions(const ConsoleOptions &options);

void PrintReceived(const IpcMessage &record); // any thread; keeps the record for the waits
void PrintNote(const std::string &sText);     // any thread

enum class CommandResult { Done, Failed, Usage, Quit };
// One line of a scenario. Empty lines and lines that begin with '#' do nothing.
CommandResult RunCommand(const std::string &sLine);
// What RunCommand understands, a line each.
const char *CommandHelp();
