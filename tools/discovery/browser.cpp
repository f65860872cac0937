// browser.cpp: see the header. Section numbers are RFC 6762's.
#include "tools/discovery/browser.h"
#include <algorithm>
#include <cstring>
#include <set>

namespace {

constexpr uint32_t FIRST_DELAY_MS = 20, FIRST_SPREAD_MS = 100; // 5.2
constexpr uint32_t FIRST_GAP_MS = 1000, MAX_GAP_MS = 60000;
constexpr uint32_t GOODBYE_MS = 1000; // 10.1, 10.2: what was taken back lives so long yet
constexpr uint32_t MAX_TTL_S  = 75 * 60;
constexpr size_t   MAX_KNOWN  = 16; // answers told with a question: it stays one packet
constexpr size_t   MAX_ASKED  = 16; // questions of one packet
constexpr uint32_t REFRESHES  = 4;  // at 80, 85, 90 and 95 % of a life (5.2)
constexpr uint64_t NEVER      = UINT64_MAX;

uint64_t Life(const CachedRecord &cached)
{
    return cached.ullExpires - cached.ullHeard;
}

// When it is asked for once more; NEVER when it was often enough, or dies anyway.
uint64_t RefreshDue(const CachedRecord &cached)
{
    if (cached.nRefreshes >= REFRESHES || Life(cached) <= GOODBYE_MS) return NEVER;
    return cached.ullHeard + Life(cached) * (80 + 5 * cached.nRefreshes) / 100;
}

void DropExpired(Browser *pBrowser, uint64_t ullNow)
{
    std::erase_if(pBrowser->aCache, [ullNow](const CachedRecord &cached) { return cached.ullExpires <= ullNow; });
}

bool IsInstance(const DnsName &name)
{
    return name.size() == SERVICE_TYPE.size() + 1 && IsSameDnsName(DnsName(name.begin() + 1, name.end()), SERVICE_TYPE);
}

// Records that a search has use for. Addresses are kept for hosts that a server named alone.
bool IsOfUse(const Browser &browser, const DnsMessage &message, const DnsRecord &record)
{
    if (record.nClass != DNS_CLASS_IN) return false;
    if (record.nType == DNS_TYPE_PTR) return IsSameDnsName(record.name, SERVICE_TYPE) && IsInstance(record.target);
    if (record.nType == DNS_TYPE_SRV) return IsInstance(record.name) && record.nPort != 0 && !record.target.empty();
    if (record.nType != DNS_TYPE_A) return false;
    const auto names = [&](const DnsRecord &other) {
        return other.nType == DNS_TYPE_SRV && IsInstance(other.name) && IsSameDnsName(other.target, record.name);
    };
    return std::any_of(browser.aCache.begin(), browser.aCache.end(),
                       [&](const CachedRecord &cached) { return names(cached.record); }) ||
           std::any_of(message.aAnswers.begin(), message.aAnswers.end(), names) ||
           std::any_of(message.aAdditionals.begin(), message.aAdditionals.end(), names);
}

// An address that a machine of the neighbourhood can have.
bool IsHostAddress(uint32_t dwAddress)
{
    uint8_t aBytes[4];
    std::memcpy(aBytes, &dwAddress, sizeof(aBytes));
    return aBytes[0] != 0 && aBytes[0] != 127 && aBytes[0] < 224;
}

void Keep(Browser *pBrowser, const DnsRecord &record, uint32_t nLink, uint32_t dwFrom, uint64_t ullNow)
{
    const uint64_t ullLife   = record.dwTtl == 0 ? GOODBYE_MS : std::min(record.dwTtl, MAX_TTL_S) * uint64_t{1000};
    size_t         nOfSender = 0;
    bool           bKnown    = false;
    for (CachedRecord &cached : pBrowser->aCache) {
        nOfSender += cached.dwFrom == dwFrom;
        if (cached.nLink != nLink) continue;
        if (IsSameDnsRecord(cached.record, record)) {
            bKnown            = true;
            cached.record     = record;
            cached.ullHeard   = ullNow;
            cached.ullExpires = record.dwTtl == 0 ? std::min(cached.ullExpires, ullNow + ullLife) : ullNow + ullLife;
            cached.nRefreshes = 0;
        } else if (record.bFlush && cached.record.nType == record.nType && ullNow - cached.ullHeard > GOODBYE_MS &&
                   IsSameDnsName(cached.record.name, record.name)) {
            cached.ullExpires = std::min(cached.ullExpires, ullNow + GOODBYE_MS);
        }
    }
    if (bKnown || record.dwTtl == 0 || nOfSender >= MAX_CACHED_OF_SENDER || pBrowser->aCache.size() >= MAX_CACHED)
        return;
    pBrowser->aCache.push_back({record, nLink, dwFrom, ullNow, ullNow + ullLife, 0});
}

std::string Key(const DnsName &name, uint16_t nType)
{
    DnsRecord key;
    key.nType        = DNS_TYPE_PTR;
    key.target       = name;
    std::string sKey = DnsRecordContent(key) + std::to_string(nType);
    for (char &ch : sKey)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch + ('a' - 'A'));
    return sKey;
}

bool Has(const Browser &browser, const DnsName &name, uint16_t nType)
{
    return std::any_of(browser.aCache.begin(), browser.aCache.end(), [&](const CachedRecord &cached) {
        return cached.record.nType == nType && IsSameDnsName(cached.record.name, name);
    });
}

// The names that instances and their hosts lack yet: what was named and never told.
std::vector<std::pair<DnsName, uint16_t>> Missing(const Browser &browser)
{
    std::vector<std::pair<DnsName, uint16_t>> aMissing;
    for (const CachedRecord &cached : browser.aCache) {
        const bool     bInstance = cached.record.nType == DNS_TYPE_PTR;
        const uint16_t nType     = bInstance ? DNS_TYPE_SRV : DNS_TYPE_A;
        if (cached.record.nType == DNS_TYPE_A || Has(browser, cached.record.target, nType)) continue;
        aMissing.emplace_back(cached.record.target, nType);
    }
    return aMissing;
}

void Later(Question *pQuestion, uint64_t ullNow)
{
    pQuestion->nGapMs  = pQuestion->nGapMs == 0 ? FIRST_GAP_MS : std::min(pQuestion->nGapMs * 2, MAX_GAP_MS);
    pQuestion->ullNext = ullNow + pQuestion->nGapMs;
}

void AskForDetails(Browser *pBrowser, uint64_t ullNow, DnsMessage *pQuery)
{
    std::map<std::string, Question> details;
    for (const auto &missing : Missing(*pBrowser)) {
        const std::string sKey   = Key(missing.first, missing.second);
        const auto        itOld  = pBrowser->details.find(sKey);
        const auto        itPair = details.emplace(sKey, itOld != pBrowser->details.end() ? itOld->second : Question());
        Question         &question = itPair.first->second;
        if (!itPair.second || ullNow < question.ullNext || pQuery->aQuestions.size() >= MAX_ASKED) continue;
        pQuery->aQuestions.push_back({missing.first, missing.second, DNS_CLASS_IN, false});
        Later(&question, ullNow);
    }
    pBrowser->details.swap(details); // what is known now, or gone, is forgotten here
}

void AskForAging(Browser *pBrowser, uint64_t ullNow, DnsMessage *pQuery, bool *pbSearch)
{
    for (CachedRecord &cached : pBrowser->aCache) {
        if (ullNow < RefreshDue(cached) || pQuery->aQuestions.size() >= MAX_ASKED) continue;
        cached.nRefreshes++;
        if (cached.record.nType == DNS_TYPE_PTR) *pbSearch = true;
        else pQuery->aQuestions.push_back({cached.record.name, cached.record.nType, DNS_CLASS_IN, false});
    }
}

std::string Dotted(uint32_t dwAddress)
{
    uint8_t     aBytes[4];
    std::string sText;
    std::memcpy(aBytes, &dwAddress, sizeof(aBytes));
    for (const uint8_t n : aBytes) sText += (sText.empty() ? "" : ".") + std::to_string(n);
    return sText;
}

// 0 the most likely to be reached.
uint32_t Rank(uint32_t dwAddress, const std::vector<LinkView> &aLinks)
{
    uint32_t nRank = 2;
    for (const LinkView &link : aLinks) {
        for (const OwnAddress &own : link.aAddresses) {
            if (own.dwAddress == dwAddress) return 3;
            if (IsOnLink(dwAddress, own)) nRank = std::min(nRank, link.bVirtual ? 1u : 0u);
        }
    }
    return nRank;
}

} // namespace

void StartBrowser(Browser *pBrowser, uint64_t ullNow, uint32_t nSeed)
{
    pBrowser->random.seed(nSeed);
    BrowserLinkChanged(pBrowser, ullNow);
}

void BrowserLinkChanged(Browser *pBrowser, uint64_t ullNow)
{
    pBrowser->search = {ullNow + FIRST_DELAY_MS + static_cast<uint32_t>(pBrowser->random() % FIRST_SPREAD_MS), 0};
}

void BrowserLinkGone(Browser *pBrowser, uint32_t nLink)
{
    std::erase_if(pBrowser->aCache, [nLink](const CachedRecord &cached) { return cached.nLink == nLink; });
}

void BrowserHears(Browser *pBrowser, const DnsMessage &message, uint32_t nLink, uint32_t dwFrom, uint64_t ullNow)
{
    if (!message.bResponse) return;
    DropExpired(pBrowser, ullNow);
    for (const auto *paRecords : {&message.aAnswers, &message.aAdditionals})
        for (const DnsRecord &record : *paRecords)
            if (IsOfUse(*pBrowser, message, record)) Keep(pBrowser, record, nLink, dwFrom, ullNow);
}

std::vector<OutPacket> BrowserTick(Browser *pBrowser, uint64_t ullNow)
{
    DnsMessage query;
    bool       bSearch = ullNow >= pBrowser->search.ullNext;
    DropExpired(pBrowser, ullNow);
    AskForDetails(pBrowser, ullNow, &query);
    AskForAging(pBrowser, ullNow, &query, &bSearch);
    if (ullNow >= pBrowser->search.ullNext) Later(&pBrowser->search, ullNow);
    if (bSearch) {
        // The answer is wanted by multicast: on a port that several programs share an answer to one may reach another.
        query.aQuestions.push_back({SERVICE_TYPE, DNS_TYPE_PTR, DNS_CLASS_IN, false});
        for (const CachedRecord &cached : pBrowser->aCache) {
            const uint64_t ullLeft = cached.ullExpires - ullNow;
            if (cached.record.nType != DNS_TYPE_PTR || ullLeft * 2 < Life(cached) || query.aAnswers.size() >= MAX_KNOWN)
                continue;
            query.aAnswers.push_back(cached.record);
            query.aAnswers.back().dwTtl = static_cast<uint32_t>(ullLeft / 1000);
        }
    }
    if (query.aQuestions.empty()) return {};
    return {{MDNS_GROUP, MDNS_PORT, EncodeDnsMessage(query)}};
}

uint64_t BrowserDue(const Browser &browser, uint64_t ullNow)
{
    uint64_t ullDue = browser.search.ullNext;
    for (const auto &missing : Missing(browser)) {
        const auto it = browser.details.find(Key(missing.first, missing.second));
        ullDue        = std::min(ullDue, it == browser.details.end() ? ullNow : it->second.ullNext);
    }
    for (const CachedRecord &cached : browser.aCache)
        ullDue = std::min({ullDue, cached.ullExpires, RefreshDue(cached)});
    return ullDue;
}

std::vector<FoundServer> BrowserServers(const Browser &browser, const std::vector<LinkView> &aLinks, uint64_t ullNow)
{
    std::set<std::tuple<uint32_t, uint32_t, uint16_t>> ranked; // the order stays while the servers do
    for (const CachedRecord &instance : browser.aCache) {
        if (instance.record.nType != DNS_TYPE_PTR || instance.ullExpires <= ullNow) continue;
        for (const CachedRecord &server : browser.aCache) {
            if (server.record.nType != DNS_TYPE_SRV || server.nLink != instance.nLink || server.ullExpires <= ullNow ||
                !IsSameDnsName(server.record.name, instance.record.target))
                continue;
            for (const CachedRecord &host : browser.aCache) {
                if (host.record.nType != DNS_TYPE_A || host.nLink != server.nLink || host.ullExpires <= ullNow ||
                    !IsHostAddress(host.record.dwAddress) || !IsSameDnsName(host.record.name, server.record.target))
                    continue;
                ranked.emplace(Rank(host.record.dwAddress, aLinks), host.record.dwAddress, server.record.nPort);
            }
        }
    }
    std::vector<FoundServer> aFound;
    for (const auto &[nRank, dwAddress, nPort] : ranked)
        if (aFound.size() < MAX_FOUND) aFound.push_back({Dotted(dwAddress), nPort});
    return aFound;
}
