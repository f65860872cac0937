// discovery_standin.cpp: stands in for the discovery program beside the agent (VornTramsaNetMDNS).
//   server "SOCKET.DAT"  announces this machine: its listening port, read from [ServerMDNS] Port of that file
//   client "SOCKET.DAT"  writes the servers found to [ServerEnum] of that file, again and again until it is stopped
//   stop                 ends the running one
// Machines meet in a rendezvous folder that the variable VORN_RENDEZVOUS names. A server puts a file ADDRESS_PORT there
// and takes it away when it ends; a client lists them. Without a folder nobody is found.
//
// The agent starts "stop" and then "server" or "client" without waiting in between, so a "stop" that was slow to start
// may arrive at the program that it was sent before. A stop in the first moments of a life therefore ends it only after
// a while, and a server only when its port is free: an announcement that stays a little longer harms nobody, one that
// vanishes while its server waits leaves two people waiting.
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/sockets.h"
#include "platform/text.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

using namespace platform;
namespace fs = std::filesystem;

namespace
{

constexpr char16_t STOP_EVENT[] = u"Global\\VORN discovery stop";
constexpr uint32_t REFRESH_MS = 100;
constexpr uint32_t MAX_SEARCH_MS = 10 * 60 * 1000; // a search whose agent was killed does not go on for ever
constexpr uint32_t EARLY_STOP_MS = 6000;         // a stop within this time may have been meant for the one before,
constexpr uint32_t LINGER_MS = 30000;            // and ends this one only so much later: longer than a search's rounds
constexpr uint32_t MAX_SERVERS = 256; // a torn count is any number
constexpr char     RENDEZVOUS_MARK[] = ".vorn-server";

struct Server {
    std::string sAddress, sPort;
    bool        operator==(const Server &other) const = default;
};

std::string RendezvousFolder()
{
    const char *pszFolder = std::getenv("VORN_RENDEZVOUS");
    return pszFolder != nullptr ? pszFolder : "";
}

// Servers whose announcements stand in the folder, in name order.
std::vector<Server> ListServers(const std::string &sFolder)
{
    std::vector<Server> servers;
    std::error_code     error;
    for (fs::directory_iterator it(sFolder, error), end; !error && it != end; it.increment(error)) {
        const std::string sName = it->path().filename().string();
        const size_t      nMark = sName.rfind(RENDEZVOUS_MARK), nLine = sName.find('_');
        if (nMark == std::string::npos || nLine == std::string::npos || nLine > nMark) continue;
        const Server server = {sName.substr(0, nLine), sName.substr(nLine + 1, nMark - nLine - 1)};
        if (std::find(servers.begin(), servers.end(), server) == servers.end()) servers.push_back(server);
    }
    return servers;
}

void WriteServers(const char *pszConfig, const std::vector<Server> &servers)
{
    for (size_t i = 0; i < servers.size(); i++) {
        const std::string sIndex = std::to_string(i + 1);
        WritePrivateProfileStringA("ServerEnum", sIndex.c_str(), servers[i].sAddress.c_str(), pszConfig);
        WritePrivateProfileStringA("ServerEnum", (sIndex + "_port").c_str(), servers[i].sPort.c_str(), pszConfig);
    }
    // last: a reader that sees the count finds every entry
    WritePrivateProfileStringA("ServerEnum", "Count", std::to_string(servers.size()).c_str(), pszConfig);
}

// Waits up to dwMilliseconds; true when the program shall end.
bool IsStopped(HANDLE hStop, uint64_t ullBegin, uint64_t *pullEnd, uint32_t dwMilliseconds)
{
    const uint64_t ullNow = GetTickCount64();
    const uint64_t ullLeft = *pullEnd > ullNow ? *pullEnd - ullNow : 0;
    if (ullLeft == 0) return true;
    if (WaitForSingleObject(hStop, ullLeft < dwMilliseconds ? static_cast<uint32_t>(ullLeft) : dwMilliseconds) !=
        WAIT_OBJECT_0) {
        return GetTickCount64() >= *pullEnd;
    }
    if (GetTickCount64() - ullBegin >= EARLY_STOP_MS) return true;
    *pullEnd = GetTickCount64() + LINGER_MS;
    Sleep(REFRESH_MS / 2); // the one that was meant sees it too
    ResetEvent(hStop);
    return false;
}

// True while the agent listens at the announced port, or still has a link of it. Asked without connecting: a connection
// that says nothing would keep the server from its peer.
bool IsPortTaken(const char *pszPort)
{
    const SOCKET hSocket = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (hSocket == INVALID_SOCKET) return false;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(pszPort)));
    const bool bTaken = bind(hSocket, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0;
    closesocket(hSocket);
    return bTaken;
}

int RunServer(const char *pszConfig, HANDLE hStop)
{
    const std::string sFolder = RendezvousFolder();
    char              szPort[16];
    GetPrivateProfileStringA("ServerMDNS", "Port", "", szPort, sizeof(szPort), pszConfig);
    if (sFolder.empty() || szPort[0] == '\0') return 1;
    // A predecessor that lingers announces the same port: each has a file of its own, so that its end takes nothing of
    // the other away.
    const fs::path file = fs::path(sFolder) / (std::string("127.0.0.1_") + szPort + RENDEZVOUS_MARK + "." +
                                               std::to_string(GetCurrentProcessId()));
    std::ofstream(file).flush();
    const uint64_t ullBegin = GetTickCount64();
    uint64_t       ullEnd = ullBegin + LINGER_MS;
    for (;;) {
        const bool bStopped = IsStopped(hStop, ullBegin, &ullEnd, LINGER_MS);
        if (bStopped && (GetTickCount64() < ullEnd || !IsPortTaken(szPort))) break;
        if (bStopped) ullEnd = GetTickCount64() + LINGER_MS;
    }
    std::error_code error;
    fs::remove(file, error);
    return 0;
}

// What the settings file holds now, as far as it is whole.
std::vector<Server> ReadServers(const char *pszConfig)
{
    std::vector<Server> servers(std::min(GetPrivateProfileIntA("ServerEnum", "Count", 0, pszConfig), MAX_SERVERS));
    char                szValue[64];
    for (size_t i = 0; i < servers.size(); i++) {
        const std::string sIndex = std::to_string(i + 1);
        GetPrivateProfileStringA("ServerEnum", sIndex.c_str(), "", szValue, sizeof(szValue), pszConfig);
        servers[i].sAddress = szValue;
        GetPrivateProfileStringA("ServerEnum", (sIndex + "_port").c_str(), "", szValue, sizeof(szValue), pszConfig);
        servers[i].sPort = szValue;
    }
    return servers;
}

// The newest client of this settings file writes its number beside it; an older one that lingers sees that and ends: two
// that write the same file at once tear it where the system does not lock profile files (Wine).
bool IsNewestClient(const std::string &sMark)
{
    const uint32_t dwNewest = GetPrivateProfileIntA("Client", "Process", 0, sMark.c_str());
    return dwNewest == 0 || dwNewest == GetCurrentProcessId();
}

int RunClient(const char *pszConfig, HANDLE hStop)
{
    const std::string sFolder = RendezvousFolder();
    const std::string sMark = std::string(pszConfig) + ".client";
    const uint64_t    ullBegin = GetTickCount64();
    uint64_t          ullEnd = ullBegin + MAX_SEARCH_MS;
    uint32_t          nRoundsAmiss = 1; // the first list is written at once
    WritePrivateProfileStringA("Client", "Process", std::to_string(GetCurrentProcessId()).c_str(), sMark.c_str());
    do {
        const std::vector<Server> servers = sFolder.empty() ? std::vector<Server>() : ListServers(sFolder);
        // One round may fall into a write of the agent's; a list that is amiss in two is new, or was torn.
        nRoundsAmiss = ReadServers(pszConfig) == servers ? 0 : nRoundsAmiss + 1;
        if (nRoundsAmiss >= 2) WriteServers(pszConfig, servers);
    } while (!IsStopped(hStop, ullBegin, &ullEnd, REFRESH_MS) && IsNewestClient(sMark));
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    const std::string sVerb = argc > 1 ? argv[1] : "";
    if (sVerb == "stop" && argc == 2) {
        const HANDLE hRunning = OpenEventW(EVENT_MODIFY_STATE, FALSE, STOP_EVENT);
        if (hRunning != nullptr) {
            SetEvent(hRunning);
            CloseHandle(hRunning);
        }
        return 0;
    }
    WSADATA data;
    if ((sVerb != "server" && sVerb != "client") || argc != 3) {
        std::fprintf(stderr, "usage: VornTramsaNetMDNS server \"SOCKET.DAT\" | client \"SOCKET.DAT\" | stop\n");
        return 2;
    }
    if (WSAStartup(0x0202, &data) != 0) return 1;
    // Manual-reset: a stop ends every stand-in that runs now. One that starts while the last is ending waits for it to
    // let go of the signalled event, so that a stop never reaches a later start.
    HANDLE hStop = nullptr;
    for (uint32_t nTry = 0; nTry < 1000; nTry++) {
        hStop = CreateEventW(nullptr, TRUE, FALSE, STOP_EVENT);
        if (hStop == nullptr || WaitForSingleObject(hStop, 0) != WAIT_OBJECT_0) break;
        CloseHandle(hStop);
        hStop = nullptr;
        Sleep(10);
    }
    if (hStop == nullptr) return 1;
    const int nResult = sVerb == "server" ? RunServer(argv[2], hStop) : RunClient(argv[2], hStop);
    CloseHandle(hStop);
    return nResult;
}
