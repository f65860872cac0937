// search.cpp: see the header.
#include "tools/discovery/search.h"
#include "platform/kernel.h"
#include "tools/discovery/network.h"
#include "tools/discovery/settings_file.h"
#include "tools/discovery/stop_request.h"
#include <algorithm>

using namespace platform;

namespace {

constexpr uint32_t MAX_WAIT_MS    = 100;
constexpr uint32_t LOOK_MS        = 2000;
constexpr uint32_t WRITE_MS       = 200; // between two looks at the file
constexpr uint32_t MAX_SEARCH_MS  = 10 * 60 * 1000;
constexpr uint16_t FROM_RESPONDER = MDNS_PORT; // a response from elsewhere is none of multicast DNS

// Drops what came by interfaces that went, or came back with other addresses, and asks again.
void FollowInterfaces(const Network &network, std::vector<LinkView> *paLinks, Browser *pBrowser)
{
    std::vector<LinkView> aLinks;
    for (const NetworkInterface &networkInterface : network.aInterfaces) aLinks.push_back(networkInterface.link);
    for (const LinkView &old : *paLinks) {
        const auto isSame = [&old](const LinkView &link) {
            return link.nIndex == old.nIndex && link.aAddresses == old.aAddresses;
        };
        if (std::none_of(aLinks.begin(), aLinks.end(), isSame)) BrowserLinkGone(pBrowser, old.nIndex);
    }
    paLinks->swap(aLinks);
    BrowserLinkChanged(pBrowser, GetTickCount64());
}

uint32_t TimeToNext(const Browser &browser)
{
    const uint64_t ullNow = GetTickCount64(), ullDue = std::min(BrowserDue(browser, ullNow), ullNow + MAX_WAIT_MS);
    return ullDue > ullNow ? static_cast<uint32_t>(ullDue - ullNow) : 0;
}

} // namespace

int RunSearch(const char *pszConfig, HANDLE hStop)
{
    Network               network;
    Browser               browser;
    std::vector<LinkView> aLinks;
    const uint64_t        ullBegin = GetTickCount64();
    uint64_t              ullEnd = ullBegin + MAX_SEARCH_MS, ullLook = ullBegin, ullWrite = ullBegin;
    uint32_t              nRoundsAmiss = 1; // the first list is written at once
    StopKind              stop         = STOP_NONE;
    MarkNewest(pszConfig, "client");
    StartBrowser(&browser, ullBegin, static_cast<uint32_t>(ullBegin) ^ GetCurrentProcessId());
    do {
        if (GetTickCount64() >= ullLook) {
            ullLook = GetTickCount64() + LOOK_MS;
            if (RefreshNetwork(&network)) FollowInterfaces(network, &aLinks, &browser);
        }
        for (const InPacket &packet : ReceivePackets(network, TimeToNext(browser)))
            if (packet.nFromPort == FROM_RESPONDER)
                BrowserHears(&browser, packet.message, packet.nIndex, packet.dwFrom, GetTickCount64());
        for (const OutPacket &packet : BrowserTick(&browser, GetTickCount64()))
            for (const NetworkInterface &networkInterface : network.aInterfaces) SendPacket(networkInterface, packet);
        if (GetTickCount64() >= ullWrite) {
            ullWrite = GetTickCount64() + WRITE_MS;
            KeepServerList(pszConfig, BrowserServers(browser, aLinks, GetTickCount64()), &nRoundsAmiss);
        }
        stop = AwaitStopRequest(hStop, ullBegin, 0);
        if (stop == STOP_EARLY) ullEnd = GetTickCount64() + LINGER_MS;
    } while (stop != STOP_NOW && GetTickCount64() < ullEnd && IsNewest(pszConfig, "client"));
    CloseNetwork(&network);
    return 0;
}
