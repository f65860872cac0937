// multicast.h: what the announcing and the searching side share: names, addresses of an interface, packets to send.
#pragma once
#include "tools/discovery/dns_message.h"

constexpr uint16_t MDNS_PORT         = 5353;
constexpr uint32_t MDNS_GROUP        = 0xFB0000E0; // 224.0.0.251, as it lies on the wire
constexpr size_t   MAX_INTERFACES    = 16;
constexpr size_t   MAX_OWN_ADDRESSES = 16; // of one interface

const DnsName SERVICE_TYPE = {"_vorn-tramsa", "_tcp", "local"};
const DnsName SERVICE_META = {"_services", "_dns-sd", "_udp", "local"}; // lists the types that exist

// Addresses and masks are as they lie on the wire.
struct OwnAddress {
    uint32_t dwAddress = 0, dwMask = 0;
    bool     operator==(const OwnAddress &other) const = default;
};

struct OutPacket {
    uint32_t    dwAddress = MDNS_GROUP;
    uint16_t    nPort     = MDNS_PORT; // host order
    std::string sBytes;
};

inline bool IsOnLink(uint32_t dwAddress, const OwnAddress &own)
{
    return ((dwAddress ^ own.dwAddress) & own.dwMask) == 0;
}
