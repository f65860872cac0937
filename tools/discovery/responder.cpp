// responder.cpp: see the header. Section numbers are RFC 6762's.
#include "tools/discovery/responder.h"
#include <algorithm>

namespace {

constexpr uint32_t TTL_HOST_S = 120, TTL_OTHER_S = 4500, TTL_LEGACY_S = 10; // 10, 6.7
constexpr uint32_t PROBES = 3, PROBE_GAP_MS = 250, PROBE_LOST_MS = 1000;    // 8.1, 8.2
constexpr uint32_t ANNOUNCEMENTS = 2, ANNOUNCE_GAP_MS = 1000;               // 8.3
constexpr uint32_t MANY_CONFLICTS = 15, CONFLICT_SPAN_MS = 10000, CONFLICT_WAIT_MS = 5000;
constexpr uint32_t RATE_MS = 1000, RATE_DEFENCE_MS = 250;               // 6: of one record by multicast
constexpr uint32_t SHARED_DELAY_MS = 20, SHARED_SPREAD_MS = 100;        // 6
constexpr uint32_t TRUNCATED_DELAY_MS = 400, TRUNCATED_SPREAD_MS = 100; // 7.2
constexpr size_t   MAX_TRUNCATED = 16, MAX_KNOWN = 256;
constexpr uint32_t MAX_REPLIES = 20; // to single askers, a second: a sender's address is easily forged
constexpr uint64_t NEVER       = UINT64_MAX;
constexpr uint32_t NOT_FLUSHED = 1u << RECORD_META | 1u << RECORD_PTR; // shared with other machines

uint32_t Bit(int nRecord)
{
    return 1u << nRecord;
}

DnsName InstanceName(const Responder &responder)
{
    return {ResponderInstance(responder), SERVICE_TYPE[0], SERVICE_TYPE[1], SERVICE_TYPE[2]};
}

DnsName HostName(const Responder &responder)
{
    const std::string sNumber = responder.nNumber == 1 ? "" : "-" + std::to_string(responder.nNumber);
    return {responder.sHost + sNumber, "local"};
}

uint32_t Random(Responder *pResponder, uint32_t nBelow)
{
    return static_cast<uint32_t>(pResponder->random() % nBelow);
}

// A map of the types below 256 that a name has.
std::string TypeMap(std::initializer_list<uint16_t> types)
{
    std::string sBits;
    for (const uint16_t nType : types) {
        if (sBits.size() <= nType / 8u) sBits.resize(nType / 8u + 1);
        sBits[nType / 8u] = static_cast<char>(sBits[nType / 8u] | 0x80 >> nType % 8);
    }
    return std::string{'\0', static_cast<char>(sBits.size())} + sBits;
}

void AddRecords(const Responder &responder, uint32_t nSet, std::vector<DnsRecord> *paRecords)
{
    const DnsName instance = InstanceName(responder), host = HostName(responder);
    for (int n = 0; n < RECORD_KINDS; n++) {
        if ((nSet & Bit(n)) == 0) continue;
        DnsRecord record;
        record.bFlush = (NOT_FLUSHED & Bit(n)) == 0;
        record.dwTtl  = n == RECORD_SRV || n == RECORD_ADDRESS || n == RECORD_NSEC_HOST ? TTL_HOST_S : TTL_OTHER_S;
        record.name   = n == RECORD_META                               ? SERVICE_META
                        : n == RECORD_PTR                              ? SERVICE_TYPE
                        : n == RECORD_ADDRESS || n == RECORD_NSEC_HOST ? host
                                                                       : instance;
        switch (n) {
        case RECORD_META:
            record.nType  = DNS_TYPE_PTR;
            record.target = SERVICE_TYPE;
            break;
        case RECORD_PTR:
            record.nType  = DNS_TYPE_PTR;
            record.target = instance;
            break;
        case RECORD_SRV:
            record.nType  = DNS_TYPE_SRV;
            record.target = host;
            record.nPort  = responder.nPort;
            break;
        case RECORD_TXT:
            record.nType = DNS_TYPE_TXT;
            record.sData = std::string("\x09txtvers=1", 10);
            break;
        case RECORD_NSEC_INSTANCE:
            record.nType  = DNS_TYPE_NSEC;
            record.target = instance;
            record.sData  = TypeMap({DNS_TYPE_TXT, DNS_TYPE_SRV});
            break;
        case RECORD_NSEC_HOST:
            record.nType  = DNS_TYPE_NSEC;
            record.target = host;
            record.sData  = TypeMap({DNS_TYPE_A});
            break;
        default:
            record.nType = DNS_TYPE_A;
            for (const OwnAddress &own : responder.aAddresses) {
                record.dwAddress = own.dwAddress;
                paRecords->push_back(record);
            }
            continue;
        }
        paRecords->push_back(record);
    }
}

std::vector<DnsRecord> Records(const Responder &responder, uint32_t nSet)
{
    std::vector<DnsRecord> aRecords;
    AddRecords(responder, nSet, &aRecords);
    return aRecords;
}

constexpr uint32_t UNIQUE = 1u << RECORD_SRV | 1u << RECORD_TXT | 1u << RECORD_ADDRESS;
constexpr uint32_t ALL    = UNIQUE | 1u << RECORD_META | 1u << RECORD_PTR;

void BeginProbing(Responder *pResponder, uint64_t ullWhen)
{
    pResponder->state   = RESPONDER_PROBING;
    pResponder->nSteps  = 0;
    pResponder->ullNext = ullWhen;
    pResponder->pending = PendingAnswer();
    pResponder->truncated.clear();
}

void Conflict(Responder *pResponder, bool bRename, uint64_t ullNow)
{
    if (ullNow - pResponder->ullConflictsSince > CONFLICT_SPAN_MS) {
        pResponder->nConflicts        = 0;
        pResponder->ullConflictsSince = ullNow;
    }
    pResponder->nConflicts++;
    if (bRename) pResponder->nNumber++;
    BeginProbing(pResponder, ullNow + (pResponder->nConflicts > MANY_CONFLICTS ? CONFLICT_WAIT_MS : 0));
}

// A record of a response about one of our names: is it another machine's claim? A second responder of this machine and
// of the same port says the same as this one.
bool IsConflicting(const Responder &responder, const DnsRecord &record)
{
    if (record.dwTtl == 0 || record.nClass != DNS_CLASS_IN) return false;
    if (record.nType == DNS_TYPE_A && IsSameDnsName(record.name, HostName(responder)))
        return std::find(responder.aAllAddresses.begin(), responder.aAllAddresses.end(), record.dwAddress) ==
               responder.aAllAddresses.end();
    if ((record.nType != DNS_TYPE_SRV && record.nType != DNS_TYPE_TXT) ||
        !IsSameDnsName(record.name, InstanceName(responder)))
        return false;
    const std::vector<DnsRecord> aOwn = Records(responder, Bit(record.nType == DNS_TYPE_SRV ? RECORD_SRV : RECORD_TXT));
    return !IsSameDnsRecord(aOwn[0], record);
}

void HearResponse(Responder *pResponder, const DnsMessage &message, uint64_t ullNow)
{
    const std::vector<DnsRecord> aOwn = Records(*pResponder, UNIQUE | Bit(RECORD_PTR));
    for (const auto *paRecords : {&message.aAnswers, &message.aAdditionals}) {
        for (const DnsRecord &record : *paRecords) {
            if (IsConflicting(*pResponder, record)) {
                // a name that is ours already is asked for once more before it is given up (9)
                Conflict(pResponder, pResponder->state == RESPONDER_PROBING, ullNow);
                return;
            }
            // A predecessor on this machine says goodbye to what is announced here now: said again (as after 8.3).
            if (record.dwTtl != 0 || pResponder->state != RESPONDER_RUNNING) continue;
            const auto isSame = [&](const DnsRecord &own) { return IsSameDnsRecord(own, record); };
            if (std::any_of(aOwn.begin(), aOwn.end(), isSame)) {
                pResponder->state   = RESPONDER_ANNOUNCING;
                pResponder->nSteps  = ANNOUNCEMENTS - 1;
                pResponder->ullNext = ullNow + RATE_DEFENCE_MS;
            }
        }
    }
}

// Two that ask for a name at once: the one whose records come later in byte order has it (8.2).
void CompareClaims(Responder *pResponder, const DnsMessage &message, uint64_t ullNow)
{
    using Claim = std::vector<std::pair<uint16_t, std::string>>;
    for (const DnsName &name : {InstanceName(*pResponder), HostName(*pResponder)}) {
        Claim aOurs, aTheirs;
        for (const DnsRecord &record : Records(*pResponder, UNIQUE))
            if (IsSameDnsName(record.name, name)) aOurs.emplace_back(record.nType, DnsRecordContent(record));
        for (const DnsRecord &record : message.aAuthorities)
            if (IsSameDnsName(record.name, name)) aTheirs.emplace_back(record.nType, DnsRecordContent(record));
        std::sort(aOurs.begin(), aOurs.end());
        std::sort(aTheirs.begin(), aTheirs.end());
        const auto isOwn = [&](const DnsRecord &record) {
            return record.nType == DNS_TYPE_A &&
                   std::find(pResponder->aAllAddresses.begin(), pResponder->aAllAddresses.end(), record.dwAddress) !=
                       pResponder->aAllAddresses.end();
        };
        if (std::any_of(message.aAuthorities.begin(), message.aAuthorities.end(), isOwn)) continue; // this machine's
        if (!aTheirs.empty() && aOurs < aTheirs) {
            BeginProbing(pResponder, ullNow + PROBE_LOST_MS);
            return;
        }
    }
}

// The sets of records that answer a question, and that save the asker the next one.
void Match(const Responder &responder, const DnsQuestion &question, uint32_t *pnWanted, uint32_t *pnExtra)
{
    const bool bAny = question.nType == DNS_TYPE_ANY;
    if (question.nClass != DNS_CLASS_IN && question.nClass != DNS_CLASS_ANY) return;
    if (bAny || question.nType == DNS_TYPE_PTR) {
        if (IsSameDnsName(question.name, SERVICE_META)) *pnWanted |= Bit(RECORD_META);
        if (IsSameDnsName(question.name, SERVICE_TYPE)) {
            *pnWanted |= Bit(RECORD_PTR);
            *pnExtra |= UNIQUE;
        }
    }
    if (IsSameDnsName(question.name, InstanceName(responder))) {
        if (bAny || question.nType == DNS_TYPE_SRV) *pnWanted |= Bit(RECORD_SRV);
        if (bAny || question.nType == DNS_TYPE_TXT) *pnWanted |= Bit(RECORD_TXT);
        if (bAny || question.nType == DNS_TYPE_SRV) *pnExtra |= Bit(RECORD_ADDRESS);
        if (!bAny && question.nType != DNS_TYPE_SRV && question.nType != DNS_TYPE_TXT)
            *pnWanted |= Bit(RECORD_NSEC_INSTANCE);
    }
    if (IsSameDnsName(question.name, HostName(responder)))
        *pnWanted |= Bit(bAny || question.nType == DNS_TYPE_A ? RECORD_ADDRESS : RECORD_NSEC_HOST);
}

// Takes out what the asker knows and will know for half its time yet (7.1).
void LeaveOutKnown(const Responder &responder, const std::vector<DnsRecord> &aKnown, PendingAnswer *pAnswer)
{
    for (int n = 0; n < RECORD_KINDS; n++) {
        const std::vector<DnsRecord> aOwn    = Records(responder, pAnswer->nWanted & Bit(n));
        const auto                   isKnown = [&](const DnsRecord &own) {
            return std::any_of(aKnown.begin(), aKnown.end(), [&](const DnsRecord &known) {
                return known.dwTtl >= own.dwTtl / 2 && IsSameDnsRecord(known, own);
            });
        };
        if (!aOwn.empty() && std::all_of(aOwn.begin(), aOwn.end(), isKnown)) pAnswer->nWanted &= ~Bit(n);
    }
    if (pAnswer->nWanted == 0) pAnswer->nExtra = 0;
}

void ReplyTo(Responder *pResponder, const DnsMessage &reply, uint32_t dwTo, uint16_t nPort, uint64_t ullNow)
{
    if (ullNow / 1000 != pResponder->ullSecond) pResponder->nReplies = 0;
    pResponder->ullSecond = ullNow / 1000;
    if (pResponder->nReplies++ < MAX_REPLIES) pResponder->aReplies.push_back({dwTo, nPort, EncodeDnsMessage(reply)});
}

// An asker that is no multicast DNS program: it gets a plain answer with its question and number, kept only briefly
// (6.7).
void AnswerLegacy(Responder *pResponder, const DnsMessage &query, const PendingAnswer &answer, uint32_t dwFrom,
                  uint16_t nFromPort, uint64_t ullNow)
{
    DnsMessage reply;
    reply.nId          = query.nId;
    reply.bResponse    = true;
    reply.aQuestions   = query.aQuestions;
    reply.aAnswers     = Records(*pResponder, answer.nWanted);
    reply.aAdditionals = Records(*pResponder, answer.nExtra & ~answer.nWanted);
    for (DnsQuestion &question : reply.aQuestions) question.bUnicast = false;
    for (auto *paRecords : {&reply.aAnswers, &reply.aAdditionals}) {
        for (DnsRecord &record : *paRecords) {
            record.bFlush = false;
            record.dwTtl  = std::min(record.dwTtl, TTL_LEGACY_S);
        }
    }
    ReplyTo(pResponder, reply, dwFrom, nFromPort, ullNow);
}

// True when every record of the set went to all within a quarter of its time (5.4).
bool IsFresh(const Responder &responder, uint32_t nSet, uint64_t ullNow)
{
    for (int n = 0; n < RECORD_KINDS; n++) {
        if ((nSet & Bit(n)) == 0) continue;
        const uint64_t ullQuarter = (n == RECORD_SRV || n == RECORD_ADDRESS ? TTL_HOST_S : TTL_OTHER_S) * 1000 / 4;
        if (responder.aLastSent[static_cast<size_t>(n)] == 0 ||
            ullNow - responder.aLastSent[static_cast<size_t>(n)] > ullQuarter)
            return false;
    }
    return true;
}

void AddToPending(PendingAnswer *pPending, const PendingAnswer &answer, uint64_t ullDue)
{
    if (pPending->nWanted == 0 || ullDue < pPending->ullDue) pPending->ullDue = ullDue;
    pPending->nWanted |= answer.nWanted;
    pPending->nExtra |= answer.nExtra;
}

void HearQuery(Responder *pResponder, const DnsMessage &message, uint32_t dwFrom, uint16_t nFromPort, uint64_t ullNow)
{
    PendingAnswer  answer;
    bool           bUnicast = true, bShared = false;
    const uint64_t ullSender = static_cast<uint64_t>(dwFrom) << 16 | nFromPort;
    const auto     itRest    = pResponder->truncated.find(ullSender);
    if (message.aQuestions.empty()) { // the rest of what a truncated question's asker knows
        if (itRest == pResponder->truncated.end() || itRest->second.aKnown.size() > MAX_KNOWN) return;
        auto &aKnown = itRest->second.aKnown;
        aKnown.insert(aKnown.end(), message.aAnswers.begin(), message.aAnswers.end());
        return;
    }
    if (!message.aAuthorities.empty() && pResponder->state == RESPONDER_PROBING)
        CompareClaims(pResponder, message, ullNow);
    if (pResponder->state == RESPONDER_PROBING) return; // nothing is ours yet
    for (const DnsQuestion &question : message.aQuestions) {
        const uint32_t nBefore = answer.nWanted;
        Match(*pResponder, question, &answer.nWanted, &answer.nExtra);
        if (answer.nWanted == nBefore) continue;
        bUnicast = bUnicast && question.bUnicast;
        bShared  = bShared || (answer.nWanted & NOT_FLUSHED) != 0;
    }
    if (answer.nWanted == 0) return;
    if (nFromPort != MDNS_PORT) {
        AnswerLegacy(pResponder, message, answer, dwFrom, nFromPort, ullNow);
        return;
    }
    if (message.bTruncated && pResponder->truncated.size() < MAX_TRUNCATED) {
        answer.aKnown                    = message.aAnswers;
        answer.ullDue                    = ullNow + TRUNCATED_DELAY_MS + Random(pResponder, TRUNCATED_SPREAD_MS);
        pResponder->truncated[ullSender] = std::move(answer);
        return;
    }
    LeaveOutKnown(*pResponder, message.aAnswers, &answer);
    if (answer.nWanted == 0) return;
    const bool bProbe = !message.aAuthorities.empty();
    if (bUnicast && (bProbe || IsFresh(*pResponder, answer.nWanted, ullNow))) {
        DnsMessage reply;
        reply.bResponse    = true;
        reply.aAnswers     = Records(*pResponder, answer.nWanted);
        reply.aAdditionals = Records(*pResponder, answer.nExtra & ~answer.nWanted);
        ReplyTo(pResponder, reply, dwFrom, nFromPort, ullNow);
        if (!bProbe) return; // a reply to a shared port may not reach who asked: who wants our name learns it twice
    }
    const uint32_t nDelay = bShared && !bProbe ? SHARED_DELAY_MS + Random(pResponder, SHARED_SPREAD_MS) : 0;
    AddToPending(&pResponder->pending, answer, ullNow + nDelay);
}

// A response to all, with what may go out again by the rate of each record.
void SendToAll(Responder *pResponder, uint32_t nWanted, uint32_t nExtra, uint32_t nRateMs, uint64_t ullNow,
               std::vector<OutPacket> *paPackets)
{
    DnsMessage response;
    uint32_t   aSets[2] = {nWanted, nExtra & ~nWanted};
    for (uint32_t &nSet : aSets) {
        for (int n = 0; n < RECORD_KINDS; n++) {
            uint64_t &ullLast = pResponder->aLastSent[static_cast<size_t>(n)];
            if ((nSet & Bit(n)) == 0) continue;
            if (ullLast != 0 && ullNow - ullLast < nRateMs) nSet &= ~Bit(n);
        }
    }
    if (aSets[0] == 0) return;
    for (int n = 0; n < RECORD_KINDS; n++)
        if (((aSets[0] | aSets[1]) & Bit(n)) != 0) pResponder->aLastSent[static_cast<size_t>(n)] = ullNow;
    response.bResponse    = true;
    response.aAnswers     = Records(*pResponder, aSets[0]);
    response.aAdditionals = Records(*pResponder, aSets[1]);
    paPackets->push_back({MDNS_GROUP, MDNS_PORT, EncodeDnsMessage(response)});
}

void TakeStep(Responder *pResponder, uint64_t ullNow, std::vector<OutPacket> *paPackets)
{
    if (pResponder->state == RESPONDER_PROBING && pResponder->nSteps < PROBES) {
        DnsMessage probe;
        probe.aQuestions   = {{InstanceName(*pResponder), DNS_TYPE_ANY, DNS_CLASS_IN, false},
                              {HostName(*pResponder), DNS_TYPE_ANY, DNS_CLASS_IN, false}};
        probe.aAuthorities = Records(*pResponder, UNIQUE);
        for (DnsRecord &record : probe.aAuthorities) record.bFlush = false;
        paPackets->push_back({MDNS_GROUP, MDNS_PORT, EncodeDnsMessage(probe)});
        pResponder->nSteps++;
        pResponder->ullNext = ullNow + PROBE_GAP_MS;
        return;
    }
    if (pResponder->state == RESPONDER_PROBING) {
        pResponder->state  = RESPONDER_ANNOUNCING;
        pResponder->nSteps = 0;
    }
    SendToAll(pResponder, ALL, 0, 0, ullNow, paPackets);
    pResponder->nSteps++;
    pResponder->ullNext = ullNow + ANNOUNCE_GAP_MS;
    if (pResponder->nSteps >= ANNOUNCEMENTS) {
        pResponder->state   = RESPONDER_RUNNING;
        pResponder->ullNext = NEVER;
    }
}

} // namespace

std::string ResponderInstance(const Responder &responder)
{
    if (responder.nNumber == 1) return responder.sName;
    const std::string sNumber = " (" + std::to_string(responder.nNumber) + ")";
    size_t            cb      = std::min(responder.sName.size(), DNS_MAX_LABEL - sNumber.size());
    while (cb > 0 && cb < responder.sName.size() && (responder.sName[cb] & 0xC0) == 0x80) cb--; // whole characters
    return responder.sName.substr(0, cb) + sNumber;
}

void StartResponder(Responder *pResponder, const std::string &sComputer, uint16_t nPort, uint64_t ullNow,
                    uint32_t nSeed)
{
    size_t cb = std::min(sComputer.size(), DNS_MAX_LABEL);
    while (cb > 0 && cb < sComputer.size() && (sComputer[cb] & 0xC0) == 0x80) cb--;
    pResponder->sName = sComputer.empty() ? "PC" : sComputer.substr(0, cb);
    pResponder->nPort = nPort;
    pResponder->random.seed(nSeed);
    // The same for every run on one machine and port, so that a predecessor that lingers there is no rival. Machines of
    // one name get different names by their conflict.
    uint32_t nHash = 2166136261u;
    for (const char ch : sComputer + ":" + std::to_string(nPort))
        nHash = (nHash ^ static_cast<uint8_t>(ch)) * 16777619u;
    pResponder->sHost = "vorn-tramsa-" + std::to_string(nHash);
    BeginProbing(pResponder, ullNow + Random(pResponder, PROBE_GAP_MS));
}

void SetResponderAddresses(Responder *pResponder, const std::vector<OwnAddress> &aAddresses,
                           const std::vector<uint32_t> &aAllAddresses, uint64_t ullNow)
{
    pResponder->aAllAddresses = aAllAddresses;
    if (pResponder->aAddresses == aAddresses) return;
    pResponder->aAddresses = aAddresses;
    BeginProbing(pResponder, ullNow + Random(pResponder, PROBE_GAP_MS));
}

void ResponderHears(Responder *pResponder, const DnsMessage &message, uint32_t dwFrom, uint16_t nFromPort,
                    uint64_t ullNow)
{
    if (!message.bResponse) HearQuery(pResponder, message, dwFrom, nFromPort, ullNow);
    else if (nFromPort == MDNS_PORT) HearResponse(pResponder, message, ullNow);
}

std::vector<OutPacket> ResponderTick(Responder *pResponder, uint64_t ullNow)
{
    std::vector<OutPacket> aPackets;
    aPackets.swap(pResponder->aReplies);
    if (ullNow >= pResponder->ullNext) TakeStep(pResponder, ullNow, &aPackets);
    for (auto it = pResponder->truncated.begin(); it != pResponder->truncated.end();) {
        PendingAnswer answer = it->second;
        if (ullNow < answer.ullDue) {
            ++it;
            continue;
        }
        LeaveOutKnown(*pResponder, answer.aKnown, &answer);
        if (answer.nWanted != 0) AddToPending(&pResponder->pending, answer, ullNow);
        it = pResponder->truncated.erase(it);
    }
    if (pResponder->pending.nWanted != 0 && ullNow >= pResponder->pending.ullDue) {
        const PendingAnswer answer = pResponder->pending;
        pResponder->pending        = PendingAnswer();
        SendToAll(pResponder, answer.nWanted, answer.nExtra, RATE_MS, ullNow, &aPackets);
    }
    return aPackets;
}

uint64_t ResponderDue(const Responder &responder)
{
    uint64_t ullDue = responder.aReplies.empty() ? responder.ullNext : 0;
    if (responder.pending.nWanted != 0) ullDue = std::min(ullDue, responder.pending.ullDue);
    for (const auto &entry : responder.truncated) ullDue = std::min(ullDue, entry.second.ullDue);
    return ullDue;
}

std::vector<OutPacket> ResponderGoodbye(Responder *pResponder)
{
    if (pResponder->state == RESPONDER_PROBING) return {};
    DnsMessage goodbye;
    goodbye.bResponse = true;
    goodbye.aAnswers  = Records(*pResponder, UNIQUE | Bit(RECORD_PTR));
    for (DnsRecord &record : goodbye.aAnswers) record.dwTtl = 0;
    return {{MDNS_GROUP, MDNS_PORT, EncodeDnsMessage(goodbye)}};
}
