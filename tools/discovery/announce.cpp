// announce.cpp: see the header.
#include "tools/discovery/announce.h"
#include "platform/kernel.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tools/discovery/network.h"
#include "tools/discovery/responder.h"
#include "tools/discovery/settings_file.h"
#include "tools/discovery/stop_request.h"
#include <algorithm>

using namespace platform;

namespace {

constexpr uint32_t MAX_WAIT_MS = 100;  // a stop is seen so soon
constexpr uint32_t LOOK_MS     = 2000; // at the interfaces, and whether the agent's port is free
constexpr uint32_t FREE_LOOKS  = 2;    // a port that a new agent takes up again is not free twice

using Responders = std::map<uint32_t, Responder>; // by interface

std::string ComputerName()
{
    char16_t aName[256];
    char     aUtf8[1024];
    uint32_t cch = 256;
    if (GetComputerNameW(aName, &cch) == 0) return "";
    const int32_t cb =
        WideCharToMultiByte(CP_UTF8, 0, aName, static_cast<int32_t>(cch), aUtf8, sizeof(aUtf8), nullptr, nullptr);
    return std::string(aUtf8, static_cast<size_t>(std::max(cb, 0)));
}

void FollowInterfaces(const Network &network, uint16_t nPort, Responders *pResponders)
{
    const uint64_t        ullNow = GetTickCount64();
    std::vector<uint32_t> aAll;
    Responders            kept;
    for (const NetworkInterface &networkInterface : network.aInterfaces)
        for (const OwnAddress &own : networkInterface.link.aAddresses) aAll.push_back(own.dwAddress);
    for (const NetworkInterface &networkInterface : network.aInterfaces) {
        const uint32_t nIndex    = networkInterface.link.nIndex;
        const auto     it        = pResponders->find(nIndex);
        Responder     &responder = kept[nIndex];
        if (it != pResponders->end()) responder = it->second;
        else
            StartResponder(&responder, ComputerName(), nPort, ullNow,
                           static_cast<uint32_t>(ullNow) ^ GetCurrentProcessId() ^ nIndex);
        SetResponderAddresses(&responder, networkInterface.link.aAddresses, aAll, ullNow);
    }
    pResponders->swap(kept);
}

void SendAll(const Network &network, uint32_t nIndex, const std::vector<OutPacket> &aPackets)
{
    for (const NetworkInterface &networkInterface : network.aInterfaces)
        if (networkInterface.link.nIndex == nIndex)
            for (const OutPacket &packet : aPackets) SendPacket(networkInterface, packet);
}

uint32_t TimeToNext(const Responders &responders)
{
    const uint64_t ullNow = GetTickCount64();
    uint64_t       ullDue = ullNow + MAX_WAIT_MS;
    for (const auto &entry : responders) ullDue = std::min(ullDue, ResponderDue(entry.second));
    return ullDue > ullNow ? static_cast<uint32_t>(ullDue - ullNow) : 0;
}

} // namespace

int RunAnnouncement(const char *pszConfig, HANDLE hStop)
{
    const uint16_t nPort = ReadServerPort(pszConfig);
    if (nPort == 0) return 1;
    Network        network;
    Responders     responders;
    const uint64_t ullBegin = GetTickCount64();
    uint64_t       ullLook  = ullBegin;
    uint32_t       nFree    = 0;
    // An early stop was meant for this announcement after all when a peer has been admitted since it began.
    const std::string sAdmission = ReadLastAdmission(pszConfig);
    bool              bEarly     = false;
    MarkNewest(pszConfig, "server");
    for (StopKind stop; (stop = AwaitStopRequest(hStop, ullBegin, 0)) != STOP_NOW;) {
        bEarly = bEarly || stop == STOP_EARLY;
        if (GetTickCount64() >= ullLook) {
            if (bEarly && ReadLastAdmission(pszConfig) != sAdmission) break;
            ullLook = GetTickCount64() + LOOK_MS;
            nFree   = IsPortTaken(nPort) ? 0 : nFree + 1;
            if (nFree >= FREE_LOOKS || !IsNewest(pszConfig, "server")) break;
            if (RefreshNetwork(&network)) FollowInterfaces(network, nPort, &responders);
        }
        for (const InPacket &packet : ReceivePackets(network, TimeToNext(responders))) {
            const auto it = responders.find(packet.nIndex);
            if (it != responders.end())
                ResponderHears(&it->second, packet.message, packet.dwFrom, packet.nFromPort, GetTickCount64());
        }
        for (auto &[nIndex, responder] : responders)
            SendAll(network, nIndex, ResponderTick(&responder, GetTickCount64()));
    }
    for (auto &[nIndex, responder] : responders) SendAll(network, nIndex, ResponderGoodbye(&responder));
    CloseNetwork(&network);
    return 0;
}
