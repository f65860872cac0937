// trace_viewer.cpp: switches trace sessions and the debugger output of a hosted machine, and shows what they recorded.
// Programs of the machine notice a session at once, whether it is switched on before they start or while they run. The
// lines are rendered by the programs that write them, so this tool needs to know no message.
#include "platform/hosted/trace/trace_sessions.h"
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

namespace {

constexpr int     EXIT_USAGE      = 2;
constexpr uint8_t LEVEL_ALL       = 5; // verbose, the highest level that tracing knows
constexpr auto    FOLLOW_INTERVAL = std::chrono::milliseconds(100);

int Usage()
{
    std::fputs("usage: trace-viewer start MACHINE SESSION [--flags N] [--level N]   record until stopped\n"
               "       trace-viewer stop  MACHINE SESSION\n"
               "       trace-viewer show  MACHINE SESSION [--follow]               print what was recorded\n"
               "       trace-viewer debug MACHINE on|off|show                      the debugger output\n"
               "MACHINE is a machine's folder; N is decimal or 0x...; flags are all and level is 5 when not given.\n",
               stderr);
    return EXIT_USAGE;
}

int Failed(const std::string &sWhat)
{
    std::fprintf(stderr, "trace-viewer: %s: %s\n", sWhat.c_str(), std::strerror(errno));
    return 1;
}

bool ReadNumber(const char *pszText, uint32_t nMax, uint32_t *pnValue)
{
    const bool  bHex   = std::strncmp(pszText, "0x", 2) == 0 || std::strncmp(pszText, "0X", 2) == 0;
    const char *pszEnd = pszText + std::strlen(pszText);
    const auto  result = std::from_chars(pszText + (bHex ? 2 : 0), pszEnd, *pnValue, bHex ? 16 : 10);
    return result.ec == std::errc() && result.ptr == pszEnd && *pnValue <= nMax;
}

// Prints the file; with bFollow goes on with what is appended, for ever.
int Show(const std::string &sFile, bool bFollow)
{
    std::FILE *pFile = std::fopen(sFile.c_str(), "rb");
    while (pFile == nullptr && bFollow && errno == ENOENT) { // nothing recorded yet
        std::this_thread::sleep_for(FOLLOW_INTERVAL);
        pFile = std::fopen(sFile.c_str(), "rb");
    }
    if (pFile == nullptr) return Failed(sFile);
    char aBuffer[16384];
    for (;;) {
        const size_t cb = std::fread(aBuffer, 1, sizeof(aBuffer), pFile);
        if (cb > 0) {
            if (std::fwrite(aBuffer, 1, cb, stdout) != cb) break; // the reader of our output has gone
            continue;
        }
        if (std::fflush(stdout) != 0 || std::ferror(pFile) != 0 || !bFollow) break;
        std::clearerr(pFile);
        std::this_thread::sleep_for(FOLLOW_INTERVAL);
    }
    const bool bRead = std::ferror(pFile) == 0;
    std::fclose(pFile);
    return bRead && std::ferror(stdout) == 0 ? 0 : Failed(sFile);
}

} // namespace

int main(int nArgs, char **ppszArgs)
{
    if (nArgs < 4) return Usage();
    const std::string sCommand = ppszArgs[1], sThird = ppszArgs[3];
    const char       *pszMachine = ppszArgs[2];
    uint32_t          dwFlags = 0xFFFFFFFF, dwLevel = LEVEL_ALL;
    bool              bFollow = false;

    for (int i = 4; i < nArgs; i++) {
        const std::string sOption    = ppszArgs[i];
        const bool        bHasNumber = sCommand == "start" && i + 1 < nArgs;
        if (sOption == "--flags" && bHasNumber && ReadNumber(ppszArgs[i + 1], UINT32_MAX, &dwFlags)) i++;
        else if (sOption == "--level" && bHasNumber && ReadNumber(ppszArgs[i + 1], UINT8_MAX, &dwLevel)) i++;
        else if (sOption == "--follow" && sCommand == "show") bFollow = true;
        else return Usage();
    }
    const bool bDebug = sCommand == "debug";
    if (!bDebug && sCommand != "start" && sCommand != "stop" && sCommand != "show") return Usage();
    if (bDebug && sThird != "on" && sThird != "off" && sThird != "show") return Usage();
    if (!bDebug && hosted::TraceSessionFile(pszMachine, sThird.c_str()).empty()) {
        std::fprintf(stderr, "trace-viewer: a session's name has letters, digits, '.', '-' and '_': %s\n",
                     sThird.c_str());
        return Usage();
    }
    if (!std::filesystem::exists(std::filesystem::path(pszMachine) / "machine.ini")) {
        std::fprintf(stderr, "trace-viewer: %s is not a machine's folder\n", pszMachine);
        return 1;
    }

    if (bDebug && sThird == "show") return Show(hosted::DebugLogFile(pszMachine), false);
    if (bDebug) return hosted::SwitchDebugOutput(pszMachine, sThird == "on") ? 0 : Failed("debug " + sThird);
    if (sCommand == "show") return Show(hosted::TraceLogFile(pszMachine, sThird.c_str()), bFollow);
    if (sCommand == "stop") return hosted::StopTraceSession(pszMachine, sThird.c_str()) ? 0 : Failed("stop " + sThird);
    return hosted::StartTraceSession(pszMachine, sThird.c_str(), static_cast<uint8_t>(dwLevel), dwFlags)
               ? 0
               : Failed("start " + sThird);
}
