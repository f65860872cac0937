// rendezvous.cpp: see the header.
#include "tools/discovery/rendezvous.h"
#include "platform/kernel.h"
#include "tools/discovery/settings_file.h"
#include "tools/discovery/stop_request.h"
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

using namespace platform;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t REFRESH_MS    = 100;
constexpr uint32_t MAX_SEARCH_MS = 10 * 60 * 1000; // a search whose agent was killed does not go on for ever
constexpr char     MARK[]        = ".vorn-server";

// Servers whose announcements stand in the folder, in name order.
std::vector<FoundServer> ListServers(const std::string &sFolder)
{
    std::vector<FoundServer> aServers;
    std::error_code          error;
    for (fs::directory_iterator it(sFolder, error), end; !error && it != end; it.increment(error)) {
        const std::string sName = it->path().filename().string();
        const size_t      nMark = sName.rfind(MARK), nLine = sName.find('_');
        if (nMark == std::string::npos || nLine == std::string::npos || nLine > nMark) continue;
        const int         nPort  = std::atoi(sName.substr(nLine + 1, nMark - nLine - 1).c_str());
        const FoundServer server = {sName.substr(0, nLine), static_cast<uint16_t>(nPort)};
        if (std::find(aServers.begin(), aServers.end(), server) == aServers.end()) aServers.push_back(server);
    }
    return aServers;
}

} // namespace

std::string RendezvousFolder()
{
    const char *pszFolder = std::getenv("VORN_RENDEZVOUS");
    return pszFolder != nullptr ? pszFolder : "";
}

int RunRendezvousServer(const std::string &sFolder, const char *pszConfig, HANDLE hStop)
{
    const uint16_t nPort = ReadServerPort(pszConfig);
    if (nPort == 0) return 1;
    // A predecessor that lingers announces the same port: each has a file of its own, so that its end takes nothing of
    // the other away.
    const fs::path file =
        fs::path(sFolder) / ("127.0.0.1_" + std::to_string(nPort) + MARK + "." + std::to_string(GetCurrentProcessId()));
    std::ofstream(file).flush();
    const uint64_t ullBegin = GetTickCount64();
    for (;;) {
        const StopKind stop = AwaitStopRequest(hStop, ullBegin, LINGER_MS);
        if (stop == STOP_NOW || (stop == STOP_NONE && !IsPortTaken(nPort))) break;
    }
    std::error_code error;
    fs::remove(file, error);
    return 0;
}

int RunRendezvousClient(const std::string &sFolder, const char *pszConfig, HANDLE hStop)
{
    const uint64_t ullBegin     = GetTickCount64();
    uint64_t       ullEnd       = ullBegin + MAX_SEARCH_MS;
    uint32_t       nRoundsAmiss = 1; // the first list is written at once
    StopKind       stop         = STOP_NONE;
    MarkNewest(pszConfig, "client");
    do {
        KeepServerList(pszConfig, ListServers(sFolder), &nRoundsAmiss);
        stop = AwaitStopRequest(hStop, ullBegin, REFRESH_MS);
        if (stop == STOP_EARLY) ullEnd = GetTickCount64() + LINGER_MS;
    } while (stop != STOP_NOW && GetTickCount64() < ullEnd && IsNewest(pszConfig, "client"));
    return 0;
}
