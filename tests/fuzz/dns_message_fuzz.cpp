// dns_message_fuzz.cpp: a packet of any bytes is read, and when it is whole: written and read again it says the same,
// and both sides of discovery hear it, at every sender and time, without growing beyond their bounds.
#include "tools/discovery/browser.h"
#include "tools/discovery/responder.h"
#include <cstdlib>

namespace {

void Require(bool bTrue)
{
    if (!bTrue) std::abort();
}

bool IsSame(const std::vector<DnsRecord> &a, const std::vector<DnsRecord> &b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++)
        if (!IsSameDnsRecord(a[i], b[i]) || a[i].dwTtl != b[i].dwTtl || a[i].bFlush != b[i].bFlush) return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t cb)
{
    DnsMessage message, again;
    if (!DecodeDnsMessage(pData, cb, &message)) return 0;
    const std::string sBytes = EncodeDnsMessage(message, 65535);
    if (sBytes.size() <= DNS_MAX_PACKET) {
        Require(DecodeDnsMessage(sBytes.data(), sBytes.size(), &again));
        Require(again.aQuestions.size() == message.aQuestions.size() && IsSame(message.aAnswers, again.aAnswers) &&
                IsSame(message.aAuthorities, again.aAuthorities) && IsSame(message.aAdditionals, again.aAdditionals));
    }
    const OwnAddress own = {0x01004D0A, 0x00FFFFFF};
    Browser          browser;
    Responder        responder;
    StartBrowser(&browser, 0, 1);
    StartResponder(&responder, "PC", 80, 0, 1);
    SetResponderAddresses(&responder, {own}, {own.dwAddress}, 0);
    for (uint64_t ullNow = 0; ullNow < 3000; ullNow += 200) {
        const uint16_t nPort = ullNow % 400 == 0 ? MDNS_PORT : uint16_t{1000};
        BrowserHears(&browser, message, 1, 0x02004D0A, ullNow);
        ResponderHears(&responder, message, 0x02004D0A, nPort, ullNow);
        for (const OutPacket &packet : ResponderTick(&responder, ullNow)) {
            DnsMessage said;
            Require(DecodeDnsMessage(packet.sBytes.data(), packet.sBytes.size(), &said));
        }
        BrowserTick(&browser, ullNow);
        Require(browser.aCache.size() <= MAX_CACHED_OF_SENDER);
        Require(BrowserServers(browser, {}, ullNow).size() <= MAX_FOUND);
        Require(BrowserDue(browser, ullNow) >= ullNow && ResponderInstance(responder).size() <= DNS_MAX_LABEL);
    }
    return 0;
}
