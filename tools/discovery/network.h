// network.h: the interfaces of this machine that take part in multicast DNS, one socket for each.
// A hosted machine has the interfaces of its process (its network namespace), not the adapters that it says it has.
#pragma once
#include "platform/datagrams.h"
#include "tools/discovery/browser.h"

struct NetworkInterface {
    LinkView         link;
    platform::SOCKET hSocket = platform::INVALID_SOCKET;
};

struct Network {
    std::vector<NetworkInterface> aInterfaces;
    std::string                   sTrouble; // what was told last, so that it is told once
};

struct InPacket {
    uint32_t   nIndex    = 0; // of the interface
    uint32_t   dwFrom    = 0;
    uint16_t   nFromPort = 0; // host order
    DnsMessage message;
};

// A line for people: on the console, and to a debugger-output viewer.
void Tell(const std::string &sLine);

// Looks at the interfaces again: those that came have a socket, those that went or have other addresses have none or a
// new one. True when anything changed.
bool RefreshNetwork(Network *pNetwork);
void CloseNetwork(Network *pNetwork);
void SendPacket(const NetworkInterface &networkInterface, const OutPacket &packet);
// What has arrived, after a wait of at most nWaitMs for the first. Only whole messages of senders on the interface's
// own subnets (a multicast name service says nothing about other networks); at most MAX_PACKETS of one call.
std::vector<InPacket> ReceivePackets(const Network &network, uint32_t nWaitMs);
