// program.h: the program's own file and command line.
#pragma once
#include <string>

namespace hosted {

// The command line as GetCommandLineW gives it: the program quoted, every argument quoted as CommandLineToArgvW undoes
// it.
const std::u16string &ProgramCommandLine();
// The program's own file on the host.
const std::string &ProgramFile();

} // namespace hosted
