// responder.h: the announcing side on one interface (RFC 6762, 6763), as functions over packets and a clock.
// A server announces an instance of the service type under a name for people, and its addresses under a host name that
// tells nothing about the machine. Both names are asked for first (probing) and given up for another when somebody
// else has them. Times are milliseconds of any steady clock; a caller calls ResponderTick when ResponderDue says, and
// after every packet heard. One thread.
#pragma once
#include "tools/discovery/multicast.h"
#include <array>
#include <map>
#include <random>

enum ResponderState { RESPONDER_PROBING, RESPONDER_ANNOUNCING, RESPONDER_RUNNING };

// The records of one responder; the numbers are bits of a set of them.
enum ResponderRecord {
    RECORD_META,
    RECORD_PTR,
    RECORD_SRV,
    RECORD_TXT,
    RECORD_ADDRESS,
    RECORD_NSEC_INSTANCE,
    RECORD_NSEC_HOST,
    RECORD_KINDS
};

struct PendingAnswer {
    uint64_t               ullDue  = 0;
    uint32_t               nWanted = 0, nExtra = 0; // sets of records: asked for, and worth knowing with them
    std::vector<DnsRecord> aKnown;                  // of a truncated question, whose rest may follow
    bool                   bAwaitsRest = false;
};

struct Responder {
    std::string             sName;       // for people, UTF-8
    std::string             sHost;       // first label of the host name
    uint32_t                nNumber = 1; // " (2)" and so on after conflicts
    uint16_t                nPort   = 0;
    std::vector<OwnAddress> aAddresses;    // of this interface
    std::vector<uint32_t>   aAllAddresses; // of all interfaces: records that name one are this machine's

    ResponderState                     state             = RESPONDER_PROBING;
    uint32_t                           nSteps            = 0; // probes or announcements sent
    uint64_t                           ullNext           = 0; // of the next one
    uint32_t                           nConflicts        = 0; // since ullConflictsSince
    uint64_t                           ullConflictsSince = 0;
    std::array<uint64_t, RECORD_KINDS> aLastSent{};   // by multicast; 0 never
    PendingAnswer                      pending;       // goes out to all
    std::map<uint64_t, PendingAnswer>  truncated;     // by sender
    uint64_t                           ullSecond = 0; // in which nReplies were sent to single askers
    uint32_t                           nReplies  = 0;
    std::vector<OutPacket>             aReplies; // to single askers, to be sent at the next tick
    std::minstd_rand                   random;
};

// sComputer is cut to what fits into a name. nPort is in host order.
void StartResponder(Responder *pResponder, const std::string &sComputer, uint16_t nPort, uint64_t ullNow,
                    uint32_t nSeed);
// The addresses of the interface have changed, or are told first: the names are asked for again.
void SetResponderAddresses(Responder *pResponder, const std::vector<OwnAddress> &aAddresses,
                           const std::vector<uint32_t> &aAllAddresses, uint64_t ullNow);
// A message that arrived at this interface. nFromPort is in host order.
void ResponderHears(Responder *pResponder, const DnsMessage &message, uint32_t dwFrom, uint16_t nFromPort,
                    uint64_t ullNow);
// What is to be sent now.
std::vector<OutPacket> ResponderTick(Responder *pResponder, uint64_t ullNow);
// When the next tick is due at the latest.
uint64_t ResponderDue(const Responder &responder);
// The last words: everything that was announced is gone. Empty when nothing was.
std::vector<OutPacket> ResponderGoodbye(Responder *pResponder);
// The name that people see now.
std::string ResponderInstance(const Responder &responder);
