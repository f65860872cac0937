// main.cpp: the discovery program beside the agent (VornTramsaNetMDNS).
//   server "SOCKET.DAT"  announces this machine: its listening port, read from [ServerMDNS] Port of that file
//   client "SOCKET.DAT"  writes the servers found to [ServerEnum] of that file, again and again until it is stopped
//   stop                 ends the running one
// By multicast DNS and DNS-SD, unless VORN_RENDEZVOUS names a folder (rendezvous.h).
#include "platform/kernel.h"
#include "platform/sockets.h"
#include "tools/discovery/announce.h"
#include "tools/discovery/rendezvous.h"
#include "tools/discovery/search.h"
#include "tools/discovery/stop_request.h"
#include <cstdio>

using namespace platform;

int main(int argc, char **argv)
{
    const std::string sVerb = argc > 1 ? argv[1] : "";
    if (sVerb == "stop" && argc == 2) {
        SendStopRequest();
        return 0;
    }
    WSADATA data;
    if ((sVerb != "server" && sVerb != "client") || argc != 3) {
        std::fprintf(stderr, "usage: VornTramsaNetMDNS server \"SOCKET.DAT\" | client \"SOCKET.DAT\" | stop\n");
        return 2;
    }
    if (WSAStartup(0x0202, &data) != 0) return 1;
    const HANDLE hStop = OpenStopRequest();
    if (hStop == nullptr) return 1;
    const std::string sFolder = RendezvousFolder();
    const bool        bServer = sVerb == "server";
    int               nResult;
    if (!sFolder.empty())
        nResult = bServer ? RunRendezvousServer(sFolder, argv[2], hStop) : RunRendezvousClient(sFolder, argv[2], hStop);
    else nResult = bServer ? RunAnnouncement(argv[2], hStop) : RunSearch(argv[2], hStop);
    CloseHandle(hStop);
    return nResult;
}
