// browser.h: the searching side (RFC 6762, 6763), as functions over packets and a clock: questions with back-off, a
// cache by time to live, and the servers that it holds.
// All that arrives is untrusted: the cache is bounded, for all and for each sender, and holds only what a search needs.
// Times are milliseconds of any steady clock. One thread.
#pragma once
#include "tools/discovery/multicast.h"
#include <map>
#include <random>

constexpr size_t MAX_CACHED = 256, MAX_CACHED_OF_SENDER = 48, MAX_FOUND = 16;

// An interface as the order of what was found wants it.
struct LinkView {
    uint32_t                nIndex   = 0;
    bool                    bVirtual = false; // of a virtual machine, a tunnel and the like
    std::vector<OwnAddress> aAddresses;
};

struct CachedRecord {
    DnsRecord record;
    uint32_t  nLink = 0, dwFrom = 0; // the interface it came by, its sender
    uint64_t  ullHeard = 0, ullExpires = 0;
    uint32_t  nRefreshes = 0; // questions asked since it began to age
};

struct Question {
    uint64_t ullNext = 0;
    uint32_t nGapMs  = 0; // to the one after the next
};

struct Browser {
    std::vector<CachedRecord>       aCache;
    Question                        search;  // for instances of the service type
    std::map<std::string, Question> details; // by name and type: what instances lack
    std::minstd_rand                random;
};

struct FoundServer {
    std::string sAddress; // dotted decimal
    uint16_t    nPort                                      = 0;
    bool        operator==(const FoundServer &other) const = default;
};

void StartBrowser(Browser *pBrowser, uint64_t ullNow, uint32_t nSeed);
// An interface came or changed: the search begins anew. One that went takes what it brought with it.
void BrowserLinkChanged(Browser *pBrowser, uint64_t ullNow);
void BrowserLinkGone(Browser *pBrowser, uint32_t nLink);
// A message that arrived from the multicast DNS port of a sender on that interface.
void BrowserHears(Browser *pBrowser, const DnsMessage &message, uint32_t nLink, uint32_t dwFrom, uint64_t ullNow);
// The questions to be sent now, on every interface.
std::vector<OutPacket> BrowserTick(Browser *pBrowser, uint64_t ullNow);
uint64_t               BrowserDue(const Browser &browser, uint64_t ullNow);
// The servers known now, the most likely first: those on the subnet of an interface before others, those of real
// adapters before those of virtual ones, this machine's own last; at most MAX_FOUND, none twice.
std::vector<FoundServer> BrowserServers(const Browser &browser, const std::vector<LinkView> &aLinks, uint64_t ullNow);
