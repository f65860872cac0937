// entry.cpp: the start-up code of a hosted program that has a WinMain.
#include "platform/entry.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/program.h"
#include "platform/hosted/machine/utf.h"
#include <cstdio>

int main()
{
    if (*hosted::MachineFolder() == '\0') { // reads the environment
        std::fputs("VORN_MACHINE is not set: it names the folder of the machine that this program runs on.\n", stderr);
        return 2;
    }
    // WinMain's command line lacks the program's name, which is always quoted here.
    const std::string sWhole = hosted::ToUtf8(hosted::ProgramCommandLine());
    const size_t      nEnd   = sWhole.find('"', 1);
    std::string       sRest  = nEnd == std::string::npos ? "" : sWhole.substr(nEnd + 1);
    while (!sRest.empty() && sRest[0] == ' ') sRest.erase(0, 1);
    static char s_chModule; // a module handle that is not null
    return WinMain(&s_chModule, nullptr, sRest.data(), 0);
}
