// dns_message.h: DNS messages as multicast DNS carries them: bytes to records and back.
// What arrives was written by anybody on the network: reading is bounded in every direction, and a message that breaks
// a rule is refused whole. No I/O, no state; any thread.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr uint16_t DNS_TYPE_A = 1, DNS_TYPE_PTR = 12, DNS_TYPE_TXT = 16, DNS_TYPE_AAAA = 28, DNS_TYPE_SRV = 33,
                   DNS_TYPE_NSEC = 47, DNS_TYPE_ANY = 255;
constexpr uint16_t DNS_CLASS_IN = 1, DNS_CLASS_ANY = 255;
constexpr size_t   DNS_MAX_PACKET  = 9000; // with its headers the largest that multicast DNS allows
constexpr size_t   DNS_SENT_PACKET = 1440; // what is sent fits into one frame
constexpr size_t   DNS_MAX_LABEL = 63, DNS_MAX_NAME = 255;
constexpr size_t   DNS_MAX_QUESTIONS = 64, DNS_MAX_RECORDS = 256; // of one message

// Labels without the root; each of 1 to 63 bytes, any bytes, and all of them at most 255 with their lengths.
using DnsName = std::vector<std::string>;

struct DnsQuestion {
    DnsName  name;
    uint16_t nType    = DNS_TYPE_ANY;
    uint16_t nClass   = DNS_CLASS_IN;
    bool     bUnicast = false; // the asker wants its answer sent to itself
};

struct DnsRecord {
    DnsName     name;
    uint16_t    nType  = 0;
    uint16_t    nClass = DNS_CLASS_IN;
    bool        bFlush = false;                        // unique: these are all records of this name and type
    uint32_t    dwTtl  = 0;                            // seconds
    DnsName     target;                                // PTR, SRV, NSEC (the next name)
    uint16_t    nPriority = 0, nWeight = 0, nPort = 0; // SRV
    uint32_t    dwAddress = 0;                         // A: the bytes as they lie on the wire
    std::string sData;                                 // NSEC: the type map; of every type not named above: all of it
};

struct DnsMessage {
    uint16_t                 nId        = 0;
    bool                     bResponse  = false;
    bool                     bTruncated = false; // more known answers follow in another packet
    std::vector<DnsQuestion> aQuestions;
    std::vector<DnsRecord>   aAnswers, aAuthorities, aAdditionals;
};

// True with *pMessage filled. False: no whole message by the bounds above, a query or response of another kind than the
// standard one, or one with an error code (multicast DNS ignores both).
bool DecodeDnsMessage(const void *pBytes, size_t cb, DnsMessage *pMessage);
// The bytes of a message, names compressed. What does not fit into cbMost is left out from its end on, with the
// truncated mark when it was an answer of a query (known answers) or the records of a response.
std::string EncodeDnsMessage(const DnsMessage &message, size_t cbMost = DNS_SENT_PACKET);

// Names compare without regard to the case of ASCII letters.
bool IsSameDnsName(const DnsName &a, const DnsName &b);
// The same name, type, class and content; not its TTL and mark.
bool IsSameDnsRecord(const DnsRecord &a, const DnsRecord &b);
// The content as bytes without compression: what simultaneous claims of a name are compared by.
std::string DnsRecordContent(const DnsRecord &record);
