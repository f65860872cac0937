// network.cpp: see the header.
// Port 5353 is shared with other responders of the machine (Windows' own resolver, avahi, browsers): with SO_REUSEADDR
// on all of them each gets every multicast. A unicast reaches only one of them, which is why nothing here asks for one.
#include "tools/discovery/network.h"
#include "platform/adapters.h"
#include "platform/errors.h"
#include "platform/event_tracing.h"
#include "platform/kernel.h"
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

using namespace platform;

namespace {

constexpr uint32_t MAX_PACKETS   = 64;
constexpr uint32_t HOPS          = 255;
constexpr uint32_t TABLE_TRIES   = 4;
constexpr uint32_t RECV_LIMIT_MS = 500; // a packet that was announced and then dropped must not hold everything up
constexpr uint8_t  LOOPBACK_NET  = 127;

bool SetNumber(SOCKET s, int32_t nLevel, int32_t nOption, uint32_t dwValue)
{
    return setsockopt(s, nLevel, nOption, reinterpret_cast<const char *>(&dwValue), sizeof(dwValue)) == 0;
}

// A member of the group on the interface of that address; INVALID_SOCKET with WSAGetLastError.
SOCKET OpenSocket(uint32_t dwAddress)
{
    const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == INVALID_SOCKET) return s;
    const sockaddr_in address = {AF_INET, htons(MDNS_PORT), 0, {}};
    const ip_mreq     member  = {MDNS_GROUP, dwAddress};
    if (SetNumber(s, SOL_SOCKET, SO_REUSEADDR, 1) && SetNumber(s, SOL_SOCKET, SO_RCVTIMEO, RECV_LIMIT_MS) &&
        bind(s, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 &&
        setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, reinterpret_cast<const char *>(&member), sizeof(member)) == 0 &&
        SetNumber(s, IPPROTO_IP, IP_MULTICAST_IF, dwAddress) && SetNumber(s, IPPROTO_IP, IP_MULTICAST_TTL, HOPS))
        return s;
    const int32_t nError = WSAGetLastError();
    closesocket(s);
    WSASetLastError(nError);
    return INVALID_SOCKET;
}

std::vector<MIB_IPADDRROW> ReadAddresses()
{
    std::vector<uint8_t> aBytes;
    uint32_t             cb = 0, dwError = ERROR_INSUFFICIENT_BUFFER;
    for (uint32_t n = 0; n < TABLE_TRIES && dwError == ERROR_INSUFFICIENT_BUFFER; n++) {
        aBytes.resize(cb);
        dwError = GetIpAddrTable(cb == 0 ? nullptr : reinterpret_cast<MIB_IPADDRTABLE *>(aBytes.data()), &cb, TRUE);
    }
    if (dwError != ERROR_SUCCESS || aBytes.size() < sizeof(MIB_IPADDRTABLE)) return {};
    MIB_IPADDRTABLE head;
    std::memcpy(&head, aBytes.data(), sizeof(head));
    const size_t               nRoom = (aBytes.size() - offsetof(MIB_IPADDRTABLE, table)) / sizeof(MIB_IPADDRROW);
    std::vector<MIB_IPADDRROW> aRows(std::min<size_t>(head.dwNumEntries, nRoom));
    if (!aRows.empty())
        std::memcpy(aRows.data(), aBytes.data() + offsetof(MIB_IPADDRTABLE, table),
                    aRows.size() * sizeof(MIB_IPADDRROW));
    return aRows;
}

bool IsDown(int32_t nStatus)
{
    return nStatus == IfOperStatusDown || nStatus == IfOperStatusNotPresent || nStatus == IfOperStatusLowerLayerDown;
}

// The interfaces with addresses that work, by number.
std::map<uint32_t, LinkView> ReadInterfaces()
{
    constexpr uint16_t           UNUSABLE = MIB_IPADDR_DISCONNECTED | MIB_IPADDR_DELETED | MIB_IPADDR_TRANSIENT;
    std::map<uint32_t, LinkView> links;
    for (const MIB_IPADDRROW &row : ReadAddresses()) {
        uint8_t nFirst;
        std::memcpy(&nFirst, &row.dwAddr, sizeof(nFirst));
        if (nFirst == 0 || nFirst == LOOPBACK_NET || row.dwMask == 0 || (row.wType & UNUSABLE) != 0) continue;
        if (links.size() >= MAX_INTERFACES && links.count(row.dwIndex) == 0) continue;
        LinkView &link = links[row.dwIndex];
        link.nIndex    = row.dwIndex;
        if (link.aAddresses.size() < MAX_OWN_ADDRESSES) link.aAddresses.push_back({row.dwAddr, row.dwMask});
    }
    // An adapter without a connector is made of software: a virtual machine's network, a tunnel.
    MIB_IF_TABLE2 *pTable = nullptr;
    if (GetIfTable2(&pTable) != ERROR_SUCCESS) return links;
    for (uint32_t i = 0; i < pTable->NumEntries; i++) {
        const MIB_IF_ROW2 &row = pTable->Table[i];
        const auto         it  = links.find(row.InterfaceIndex);
        if (it == links.end()) continue;
        it->second.bVirtual = (row.InterfaceAndOperStatusFlags & IF_FLAG_CONNECTOR_PRESENT) == 0;
        if (IsDown(row.OperStatus)) links.erase(it); // Wine lists its addresses on
    }
    FreeMibTable(pTable);
    return links;
}

// Told once; "" makes the next trouble new.
void TellTrouble(Network *pNetwork, const std::string &sTrouble)
{
    if (!sTrouble.empty() && sTrouble != pNetwork->sTrouble) Tell(sTrouble);
    pNetwork->sTrouble = sTrouble;
}

bool IsFromLink(const LinkView &link, uint32_t dwFrom)
{
    return std::any_of(link.aAddresses.begin(), link.aAddresses.end(),
                       [dwFrom](const OwnAddress &own) { return IsOnLink(dwFrom, own); });
}

} // namespace

void Tell(const std::string &sLine)
{
    const std::string sWhole = "VornTramsaNetMDNS: " + sLine + "\n";
    OutputDebugStringA(sWhole.c_str());
    std::fputs(sWhole.c_str(), stderr);
    std::fflush(stderr);
}

bool RefreshNetwork(Network *pNetwork)
{
    std::map<uint32_t, LinkView> links    = ReadInterfaces();
    bool                         bChanged = false;
    std::string                  sTrouble;
    for (auto it = pNetwork->aInterfaces.begin(); it != pNetwork->aInterfaces.end();) {
        const auto found = links.find(it->link.nIndex);
        if (found != links.end() && found->second.aAddresses == it->link.aAddresses) {
            links.erase(found);
            ++it;
            continue;
        }
        closesocket(it->hSocket);
        it       = pNetwork->aInterfaces.erase(it);
        bChanged = true;
    }
    for (const auto &[nIndex, link] : links) {
        const SOCKET s = OpenSocket(link.aAddresses[0].dwAddress);
        if (s == INVALID_SOCKET) {
            sTrouble = "an interface takes no part in multicast (error " + std::to_string(WSAGetLastError()) + ")";
            continue;
        }
        pNetwork->aInterfaces.push_back({link, s});
        bChanged = true;
    }
    if (pNetwork->aInterfaces.empty())
        sTrouble = "no network that multicast works on; the agent can only try the PC it was linked with last" +
                   (sTrouble.empty() ? "" : ": " + sTrouble);
    TellTrouble(pNetwork, sTrouble);
    return bChanged;
}

void CloseNetwork(Network *pNetwork)
{
    for (const NetworkInterface &networkInterface : pNetwork->aInterfaces) closesocket(networkInterface.hSocket);
    pNetwork->aInterfaces.clear();
}

void SendPacket(const NetworkInterface &networkInterface, const OutPacket &packet)
{
    // a packet that cannot leave now is asked for, or sent, again: an interface that is gone is found by RefreshNetwork
    const sockaddr_in to = {AF_INET, htons(packet.nPort), packet.dwAddress, {}};
    sendto(networkInterface.hSocket, packet.sBytes.data(), static_cast<int32_t>(packet.sBytes.size()), 0,
           reinterpret_cast<const sockaddr *>(&to), sizeof(to));
}

std::vector<InPacket> ReceivePackets(const Network &network, uint32_t nWaitMs)
{
    std::vector<InPacket>  aPackets;
    std::vector<WSAPOLLFD> aWaits;
    for (const NetworkInterface &networkInterface : network.aInterfaces)
        aWaits.push_back({networkInterface.hSocket, POLLIN, 0});
    if (aWaits.empty()) {
        Sleep(nWaitMs);
        return aPackets;
    }
    for (uint32_t nTaken = 0; nTaken < MAX_PACKETS;) {
        const int32_t n = WSAPoll(aWaits.data(), static_cast<uint32_t>(aWaits.size()),
                                  static_cast<int32_t>(nTaken == 0 ? nWaitMs : 0));
        if (n <= 0) break;
        for (size_t i = 0; i < aWaits.size(); i++) {
            if (aWaits[i].revents == 0) continue;
            static char   aBytes[DNS_MAX_PACKET];
            sockaddr_in   from   = {};
            int32_t       cbFrom = sizeof(from);
            const int32_t cb =
                recvfrom(aWaits[i].fd, aBytes, sizeof(aBytes), 0, reinterpret_cast<sockaddr *>(&from), &cbFrom);
            const LinkView &link = network.aInterfaces[i].link;
            InPacket        packet;
            nTaken++;
            if (cb <= 0 || !IsFromLink(link, from.sin_addr) ||
                !DecodeDnsMessage(aBytes, static_cast<size_t>(cb), &packet.message))
                continue;
            packet.nIndex    = link.nIndex;
            packet.dwFrom    = from.sin_addr;
            packet.nFromPort = ntohs(from.sin_port);
            aPackets.push_back(std::move(packet));
        }
    }
    return aPackets;
}
