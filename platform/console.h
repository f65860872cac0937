// console.h: the console of a tool that people read, and the programs that lie beside a tool: nothing in the product
// includes this.
// A console is a screen with somebody before it. A file, a pipe and the null device are none.
#pragma once
#include "platform/types.h"

namespace platform {

enum class Standard { Input, Output, Error };
bool IsConsole(Standard eStream);
// The width of the console that eStream is, 0 when it is none.
uint32_t ConsoleColumns(Standard eStream);
// Writes UTF-8 text at once, after what stdio still holds: as characters to a console, whatever code page it has; as
// bytes to anything else. False when not all of it could be written. Any thread.
bool WriteStandard(Standard eStream, const char *pszText);

// Has pHandler called when the person stops the program (Ctrl-C, Ctrl-Break, the window's close button, end of the
// session), as often as that happens; the program goes on, after a closed window for the few seconds that the system
// grants. pHandler runs on a thread of the system's or inside a signal: it may set atomic variables and nothing else.
bool WatchConsoleStop(void (*pHandler)());

// Starts a program of this program's own folder, without a window, detached from this console and its streams. The
// folder may have any name. *pszPath (MAX_PATH units, cut) gets the program's full path, also on failure. FALSE with
// GetLastError.
BOOL StartProgramBeside(const char16_t *pszName, char16_t *pszPath);

} // namespace platform
