// program.h: the program's own file and command line.
#pragma once
#include <string>
#include <vector>

namespace hosted {

// The command line as GetCommandLineW gives it: the program quoted, every argument quoted as CommandLineToArgvW undoes
// it.
const std::u16string &ProgramCommandLine();
// The arguments in a command line without its program, as CommandLineToArgvW takes them apart.
std::vector<std::u16string> SplitArguments(const char16_t *psz);
// The program's own file on the host.
const std::string &ProgramFile();

} // namespace hosted
