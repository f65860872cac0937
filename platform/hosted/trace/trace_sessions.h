// trace_sessions.h: trace sessions and the debugger output of a hosted machine, as its trace viewer handles them.
// Session  <machine>/trace/NAME.session: one line "PROVIDER LEVEL FLAGS" for each provider, where PROVIDER is a control
//          GUID in braces or * for all, and numbers are decimal or 0x... It is on while the file is there; programs
//          notice its coming, change and going at once. A provider listens to one session: the first in name order that
//          names it.
// Log      <machine>/trace/NAME.log, kept from session to session: one line for each message,
//            DATE TIME PID.TID SEQUENCE CLASS/NUMBER: TEXT
//          in UTC; the sequence counts in each process, the class is the first part of the message GUID.
// Debug    <machine>/trace/debug.on switches it on (noticed within a second), debug.log takes it: DATE TIME PID.TID
//          TEXT
// Lines    UTF-8, one write each, so lines of many processes never mix; control characters in a text are written as \n,
//          \xNN.
#pragma once
#include <cstdint>
#include <string>

namespace hosted {

// <machine>/trace/NAME.session and .log; "" when the name is empty, longer than 64 bytes, or holds anything but
// letters, digits, '.', '-' and '_', or starts with '.'.
std::string TraceSessionFile(const char *pszMachine, const char *pszSession);
std::string TraceLogFile(const char *pszMachine, const char *pszSession);
std::string DebugLogFile(const char *pszMachine);

// Switches a session on for all providers, or changes a running one. False with errno set.
bool StartTraceSession(const char *pszMachine, const char *pszSession, uint8_t nLevel, uint32_t dwFlags);
// False with errno set; ENOENT when it was not on.
bool StopTraceSession(const char *pszMachine, const char *pszSession);
bool SwitchDebugOutput(const char *pszMachine, bool bOn);

} // namespace hosted
