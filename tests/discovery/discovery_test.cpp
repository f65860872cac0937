// discovery_test.cpp: messages, the announcing and the searching side, driven by packets and a clock of the test's own.
#include "tools/discovery/browser.h"
#include "tools/discovery/responder.h"
#include <algorithm>
#include <gtest/gtest.h>

namespace {

constexpr uint32_t   HERE = 0x01004D0A, THERE = 0x02004D0A; // 10.77.0.1 and .2
constexpr OwnAddress OWN = {HERE, 0x00FFFFFF};

DnsMessage Decoded(const std::string &sBytes)
{
    DnsMessage message;
    EXPECT_TRUE(DecodeDnsMessage(sBytes.data(), sBytes.size(), &message));
    return message;
}

DnsName Named(const std::string &sInstance)
{
    return {sInstance, SERVICE_TYPE[0], SERVICE_TYPE[1], SERVICE_TYPE[2]};
}

DnsRecord Pointer(const std::string &sInstance, uint32_t dwTtl = 4500)
{
    DnsRecord record;
    record.name   = SERVICE_TYPE;
    record.nType  = DNS_TYPE_PTR;
    record.dwTtl  = dwTtl;
    record.target = Named(sInstance);
    return record;
}

DnsRecord Service(const std::string &sInstance, uint16_t nPort, uint32_t dwTtl = 120)
{
    DnsRecord record;
    record.name   = Named(sInstance);
    record.nType  = DNS_TYPE_SRV;
    record.bFlush = true;
    record.dwTtl  = dwTtl;
    record.nPort  = nPort;
    record.target = {"host", "local"};
    return record;
}

DnsRecord Host(uint32_t dwAddress, uint32_t dwTtl = 120)
{
    DnsRecord record;
    record.name      = {"host", "local"};
    record.nType     = DNS_TYPE_A;
    record.dwTtl     = dwTtl;
    record.dwAddress = dwAddress;
    return record;
}

DnsMessage Response(std::vector<DnsRecord> aAnswers)
{
    DnsMessage message;
    message.bResponse = true;
    message.aAnswers  = std::move(aAnswers);
    return message;
}

DnsMessage Query(const DnsName &name, uint16_t nType, bool bUnicast = false)
{
    DnsMessage message;
    message.aQuestions = {{name, nType, DNS_CLASS_IN, bUnicast}};
    return message;
}

// ---- the announcing side, with everything it said and when ----

struct Said {
    uint64_t   ullWhen;
    OutPacket  packet;
    DnsMessage message;
};

struct Announcer {
    Responder         responder;
    uint64_t          ullNow = 1000;
    std::vector<Said> aSaid;

    explicit Announcer(const std::string &sComputer = "OLD-PC", uint16_t nPort = 40000)
    {
        StartResponder(&responder, sComputer, nPort, ullNow, 7);
        SetResponderAddresses(&responder, {OWN}, {HERE}, ullNow);
    }
    void Pass(uint64_t ullFor)
    {
        for (const uint64_t ullEnd = ullNow + ullFor; ullNow < ullEnd; ullNow += 10) {
            if (ullNow < ResponderDue(responder)) continue; // what is due is said to be due
            for (const OutPacket &packet : ResponderTick(&responder, ullNow))
                aSaid.push_back({ullNow, packet, Decoded(packet.sBytes)});
        }
    }
    void Hear(const DnsMessage &message, uint16_t nPort = MDNS_PORT, uint32_t dwFrom = THERE)
    {
        ResponderHears(&responder, message, dwFrom, nPort, ullNow);
    }
    // Announced, and everything said so far forgotten.
    void Settle()
    {
        Pass(5000);
        EXPECT_EQ(RESPONDER_RUNNING, responder.state);
        aSaid.clear();
    }
    std::vector<Said> Take()
    {
        std::vector<Said> aTaken;
        aTaken.swap(aSaid);
        return aTaken;
    }
};

bool Has(const std::vector<DnsRecord> &aRecords, uint16_t nType)
{
    return std::any_of(aRecords.begin(), aRecords.end(),
                       [nType](const DnsRecord &record) { return record.nType == nType; });
}

} // namespace

TEST(DnsMessages, BrokenAndHostileOnesAreRefused)
{
    const std::string sHead(6, '\0'), sQuestion = std::string("\0\x01\0\0\0\0\0\0", 8),
                                      sAnswer = std::string("\0\0\0\x01\0\0\0\0", 8);
    const std::string sFlags("\0\0\x84\0", 4), sQuery("\0\0\0\0", 4), sAny("\0\xFF\0\x01", 4),
        sA("\0\x01\0\x01\0\0\0\x78", 8);
    const std::string aBroken[] = {
        "",
        "short",
        sQuery + sQuestion,                                     // a question that is not there
        sQuery + sQuestion + std::string("\xC0\x0C", 2) + sAny, // a name that is itself
        sQuery + sQuestion +
            std::string("\x01"
                        "a\xC0\x0C",
                        4) +
            sAny,                                                            // and one that ends in itself
        sQuery + sQuestion + std::string("\xC0\x40", 2) + sAny,              // a pointer ahead
        sQuery + sQuestion + std::string("\xC0\x01", 2) + sAny,              // into the header
        sQuery + sQuestion + std::string("\x80", 1) + std::string(200, 'x'), // no kind of label
        sQuery + sQuestion +
            [] {
                std::string s;
                for (int n = 0; n < 5; n++) s += '\x3F' + std::string(63, 'x');
                return s;
            }() +
            std::string(1, '\0') + sAny, // 320 bytes of name
        // an address of five bytes
        sFlags + sAnswer + std::string(1, '\0') + sA + std::string("\0\x05\x0A\0\0\x01\0", 7),
        sFlags + sAnswer + std::string(1, '\0') + sA + std::string("\0\x40\x0A\0\0\x01", 6), // data beyond the end
        sFlags + std::string("\0\0\xFF\xFF\0\0\0\0", 8),                                     // records without number
        std::string("\0\0\x84\x03", 4) + std::string(8, '\0'),                               // an error
        std::string("\0\0\x28\0", 4) + std::string(8, '\0'),                                 // not a standard query
        std::string(DNS_MAX_PACKET + 1, '\0'),
    };
    for (const std::string &sBytes : aBroken) {
        DnsMessage message;
        EXPECT_FALSE(DecodeDnsMessage(sBytes.data(), sBytes.size(), &message)) << testing::PrintToString(sBytes);
    }
}

TEST(DnsMessages, WhatIsWrittenIsReadAgainAndFitsWhereItShould)
{
    DnsMessage message       = Response({Pointer("a"), Pointer("b"), Service("a", 80), Host(HERE)});
    message.nId              = 0x1234;
    message.aQuestions       = {{Named("\xC3\xA4.b"), DNS_TYPE_SRV, DNS_CLASS_IN, true}};
    const std::string sBytes = EncodeDnsMessage(message);
    const DnsMessage  again  = Decoded(sBytes);
    ASSERT_EQ(4u, again.aAnswers.size());
    for (size_t n = 0; n < 4; n++) {
        EXPECT_TRUE(IsSameDnsRecord(message.aAnswers[n], again.aAnswers[n])) << n;
        EXPECT_EQ(message.aAnswers[n].dwTtl, again.aAnswers[n].dwTtl);
        EXPECT_EQ(message.aAnswers[n].bFlush, again.aAnswers[n].bFlush);
    }
    EXPECT_EQ(0x1234, again.nId);
    EXPECT_TRUE(again.aQuestions[0].bUnicast);
    EXPECT_TRUE(IsSameDnsName(Named("\xC3\xA4.B"), again.aQuestions[0].name));
    EXPECT_LT(sBytes.size(), 160u) << "names are compressed";

    for (int n = 0; n < 100; n++) message.aAnswers.push_back(Pointer("instance " + std::to_string(n)));
    const std::string sCut = EncodeDnsMessage(message);
    EXPECT_LE(sCut.size(), DNS_SENT_PACKET);
    EXPECT_TRUE(Decoded(sCut).bTruncated);
    EXPECT_GT(Decoded(sCut).aAnswers.size(), 30u);
}

TEST(Responders, AsksForItsNamesThenAnnouncesAndTakesBack)
{
    Announcer         announcer;
    std::vector<Said> aSaid;
    announcer.Pass(5000);
    aSaid = announcer.Take();
    ASSERT_EQ(5u, aSaid.size()) << "three probes, two announcements";
    for (size_t n = 0; n < 3; n++) {
        EXPECT_FALSE(aSaid[n].message.bResponse);
        EXPECT_EQ(DNS_TYPE_ANY, aSaid[n].message.aQuestions.at(0).nType);
        EXPECT_TRUE(Has(aSaid[n].message.aAuthorities, DNS_TYPE_SRV) && Has(aSaid[n].message.aAuthorities, DNS_TYPE_A));
        if (n > 0) {
            EXPECT_NEAR(250, static_cast<double>(aSaid[n].ullWhen - aSaid[n - 1].ullWhen), 10);
        }
    }
    EXPECT_NEAR(1000, static_cast<double>(aSaid[4].ullWhen - aSaid[3].ullWhen), 10);
    const DnsMessage &announced = aSaid[3].message;
    EXPECT_TRUE(announced.bResponse && Has(announced.aAnswers, DNS_TYPE_TXT));
    for (const DnsRecord &record : announced.aAnswers) {
        EXPECT_EQ(record.nType != DNS_TYPE_PTR, record.bFlush) << record.nType;
        if (record.nType == DNS_TYPE_SRV) {
            EXPECT_EQ(40000, record.nPort);
        }
        if (record.nType == DNS_TYPE_A) {
            EXPECT_EQ(HERE, record.dwAddress);
        }
        // nothing but the name for people tells whose machine it is
        EXPECT_EQ(std::string::npos, record.nType == DNS_TYPE_SRV ? record.target[0].find("OLD") : std::string::npos);
    }
    const std::vector<OutPacket> aBye = ResponderGoodbye(&announcer.responder);
    ASSERT_EQ(1u, aBye.size());
    for (const DnsRecord &record : Decoded(aBye[0].sBytes).aAnswers) EXPECT_EQ(0u, record.dwTtl);
    Announcer fresh;
    EXPECT_TRUE(ResponderGoodbye(&fresh.responder).empty()) << "nothing was announced yet";
}

TEST(Responders, AnswersWhoAsksAsHeAsks)
{
    Announcer announcer;
    announcer.Settle();
    const DnsName host = {announcer.responder.sHost, "local"};
    const struct {
        DnsMessage query;
        uint16_t   nPort, nAnswer, nExtra; // 0: none
        uint32_t   dwTo;                   // 0: no answer
    } aCases[] = {
        {Query(SERVICE_TYPE, DNS_TYPE_PTR), MDNS_PORT, DNS_TYPE_PTR, DNS_TYPE_A, MDNS_GROUP},
        {Query({"_VORN-tramsa", "_TCP", "Local"}, DNS_TYPE_ANY), MDNS_PORT, DNS_TYPE_PTR, DNS_TYPE_SRV, MDNS_GROUP},
        {Query(SERVICE_META, DNS_TYPE_PTR), MDNS_PORT, DNS_TYPE_PTR, 0, MDNS_GROUP},
        {Query(Named("old-pc"), DNS_TYPE_SRV), MDNS_PORT, DNS_TYPE_SRV, DNS_TYPE_A, MDNS_GROUP},
        {Query(host, DNS_TYPE_AAAA), MDNS_PORT, DNS_TYPE_NSEC, 0, MDNS_GROUP},
        {Query(host, DNS_TYPE_A, true), MDNS_PORT, DNS_TYPE_A, 0, THERE}, // told to all a moment ago
        {Query(SERVICE_TYPE, DNS_TYPE_PTR), 49152, DNS_TYPE_PTR, DNS_TYPE_A, THERE},
        {Query(Named("other"), DNS_TYPE_SRV), MDNS_PORT, 0, 0, 0},
        {Query({"_http", "_tcp", "local"}, DNS_TYPE_PTR), MDNS_PORT, 0, 0, 0},
    };
    for (const auto &c : aCases) {
        const std::string sCase = testing::PrintToString(c.query.aQuestions[0].name) + std::to_string(c.nPort);
        announcer.Pass(1500); // past the rate of each record
        announcer.Take();
        announcer.Hear(c.query, c.nPort);
        announcer.Pass(300);
        const std::vector<Said> aSaid = announcer.Take();
        ASSERT_EQ(c.dwTo == 0 ? 0u : 1u, aSaid.size()) << sCase;
        if (c.dwTo == 0) continue;
        EXPECT_EQ(c.dwTo, aSaid[0].packet.dwAddress) << sCase;
        EXPECT_EQ(c.nPort, aSaid[0].packet.nPort) << sCase;
        EXPECT_EQ(c.nAnswer, aSaid[0].message.aAnswers.at(0).nType) << sCase;
        if (c.nExtra != 0) {
            EXPECT_TRUE(Has(aSaid[0].message.aAdditionals, c.nExtra)) << sCase;
        }
        if (c.nPort == MDNS_PORT) continue;
        EXPECT_EQ(1u, aSaid[0].message.aQuestions.size()) << "a plain asker gets its question back";
        EXPECT_LE(aSaid[0].message.aAnswers[0].dwTtl, 10u);
        EXPECT_FALSE(aSaid[0].message.aAdditionals[0].bFlush);
    }
}

TEST(Responders, SaysNothingTwiceThatIsKnown)
{
    Announcer  announcer;
    DnsMessage query = Query(SERVICE_TYPE, DNS_TYPE_PTR);
    announcer.Settle();
    for (const auto &[dwTtl, nExpected] : {std::pair{4000u, 0u}, std::pair{2000u, 1u}}) { // half of its life, and less
        announcer.Pass(1500);
        query.aAnswers = {Pointer("OLD-PC", dwTtl)};
        announcer.Hear(query);
        announcer.Pass(300);
        EXPECT_EQ(nExpected, announcer.Take().size()) << dwTtl;
    }
    // what the asker knows comes in a second packet
    for (const bool bKnown : {true, false}) {
        announcer.Pass(1500);
        query            = Query(SERVICE_TYPE, DNS_TYPE_PTR);
        query.bTruncated = true;
        announcer.Hear(query);
        announcer.Pass(100);
        EXPECT_TRUE(announcer.Take().empty());
        if (bKnown) {
            query          = DnsMessage();
            query.aAnswers = {Pointer("OLD-PC")};
            announcer.Hear(query);
        }
        announcer.Pass(600);
        EXPECT_EQ(bKnown ? 0u : 1u, announcer.Take().size());
    }
    // a thousand questions are one answer to all, and few to the single askers that a forger would name
    announcer.Pass(1500);
    for (int n = 0; n < 1000; n++) announcer.Hear(Query(SERVICE_TYPE, DNS_TYPE_PTR));
    for (int n = 0; n < 1000; n++) announcer.Hear(Query(SERVICE_TYPE, DNS_TYPE_PTR), 1234);
    announcer.Pass(900);
    EXPECT_LE(announcer.Take().size(), 21u);
}

TEST(Responders, GivesUpANameThatAnotherMachineHas)
{
    Announcer first;
    first.Pass(100);
    first.Hear(Response({Service("OLD-PC", 40000)})); // the same port on another host
    EXPECT_EQ("OLD-PC (2)", ResponderInstance(first.responder));
    first.Settle();
    first.Hear(Response({Service("old-pc (2)", 999)})); // once ours it is asked for again,
    EXPECT_EQ(RESPONDER_PROBING, first.responder.state);
    first.Settle();
    EXPECT_EQ("OLD-PC (2)", ResponderInstance(first.responder)); // and kept when nobody answers

    // its own records come back by multicast, and from a second interface of this machine
    const DnsName host = {first.responder.sHost + "-2", "local"};
    DnsRecord     own  = Host(HERE);
    own.name           = host;
    first.Hear(Response({own}), MDNS_PORT, HERE);
    EXPECT_EQ(RESPONDER_RUNNING, first.responder.state);
    own.dwAddress = THERE;
    first.Hear(Response({own}));
    EXPECT_EQ(RESPONDER_PROBING, first.responder.state) << "another machine's address at our host";

    // however often: more than fifteen at once are taken slowly
    Announcer harried;
    for (int n = 0; n < 40; n++) harried.Hear(Response({Service(ResponderInstance(harried.responder), 1)}));
    harried.Pass(4000);
    EXPECT_TRUE(harried.Take().empty());
    EXPECT_LE(ResponderInstance(harried.responder).size(), DNS_MAX_LABEL);

    Announcer longest(std::string(61, 'x') + "\xC3\xA4\xC3\xA4");
    EXPECT_EQ(std::string(61, 'x') + "\xC3\xA4", ResponderInstance(longest.responder));
    longest.Hear(Response({Service(ResponderInstance(longest.responder), 1)}));
    EXPECT_EQ(std::string(59, 'x') + " (2)", ResponderInstance(longest.responder));
}

TEST(Responders, OfTwoThatAskAtOnceOneWaits)
{
    for (const uint16_t nTheirs : {uint16_t{39999}, uint16_t{40001}}) {
        Announcer  announcer;
        DnsMessage probe   = Query(Named("OLD-PC"), DNS_TYPE_ANY);
        probe.aAuthorities = {Service("OLD-PC", nTheirs)};
        DnsRecord txt;
        txt.name  = Named("OLD-PC");
        txt.nType = DNS_TYPE_TXT;
        txt.sData = "\x09txtvers=1";
        probe.aAuthorities.push_back(txt);
        announcer.Pass(500);
        announcer.Take();
        announcer.Hear(probe);
        announcer.Pass(700);
        EXPECT_EQ(nTheirs > 40000, announcer.Take().empty()) << "the later in byte order goes on";
    }
    Announcer  announcer;
    DnsMessage probe   = Query(Named("OLD-PC"), DNS_TYPE_ANY, true);
    probe.aAuthorities = {Service("OLD-PC", 1)};
    announcer.Settle();
    announcer.Hear(probe);
    announcer.Pass(50);
    EXPECT_GE(announcer.Take().size(), 1u) << "a name that is ours is defended at once";
    announcer.Pass(1500);
    announcer.Take();
    DnsRecord gone = Pointer("OLD-PC", 0);
    announcer.Hear(Response({gone}), MDNS_PORT, HERE);
    announcer.Pass(1000);
    EXPECT_EQ(1u, announcer.Take().size()) << "a predecessor's goodbye is put right";
}

TEST(Browsers, FindsServersAndForgetsThem)
{
    const std::vector<LinkView>    aLinks = {{1, false, {OWN}}};
    const std::vector<FoundServer> aOne   = {{"10.77.0.2", 40000}};
    Browser                        browser;
    StartBrowser(&browser, 0, 1);
    BrowserHears(&browser, Response({Pointer("A", 120), Service("A", 40000), Host(THERE)}), 1, THERE, 100);
    EXPECT_EQ(aOne, BrowserServers(browser, aLinks, 100));
    EXPECT_EQ(aOne, BrowserServers(browser, aLinks, 120000));
    EXPECT_TRUE(BrowserServers(browser, aLinks, 120200).empty()) << "past its time";

    BrowserHears(&browser, Response({Service("A", 41000)}), 1, THERE, 10000); // unique: the old port goes
    EXPECT_EQ(2u, BrowserServers(browser, aLinks, 10000).size());
    EXPECT_EQ((std::vector<FoundServer>{{"10.77.0.2", 41000}}), BrowserServers(browser, aLinks, 11100));
    BrowserHears(&browser, Response({Pointer("A", 0)}), 1, THERE, 12000); // goodbye
    EXPECT_EQ(1u, BrowserServers(browser, aLinks, 12500).size());
    EXPECT_TRUE(BrowserServers(browser, aLinks, 13100).empty());
    BrowserHears(&browser, Response({Pointer("A", 120)}), 1, THERE, 14000);
    EXPECT_EQ(1u, BrowserServers(browser, aLinks, 14000).size());
    BrowserLinkGone(&browser, 1);
    EXPECT_TRUE(BrowserServers(browser, aLinks, 14000).empty());
}

TEST(Browsers, OrdersWhatItFoundByLikelihood)
{
    const OwnAddress            host   = {0x0138A8C0, 0x00FFFFFF}; // 192.168.56.1, of a virtual machine's network
    const std::vector<LinkView> aLinks = {{1, false, {OWN}}, {2, true, {host}}};
    Browser                     browser;
    StartBrowser(&browser, 0, 1);
    BrowserHears(&browser,
                 Response({Pointer("A"), Service("A", 1), Host(HERE), Host(0x0908070A), Host(0x0238A8C0), Host(THERE),
                           Host(0x0100007F), Host(0), Host(0xFB0000E0)}),
                 1, THERE, 0);
    std::string sOrder;
    for (const FoundServer &server : BrowserServers(browser, aLinks, 1)) sOrder += server.sAddress + " ";
    EXPECT_EQ("10.77.0.2 192.168.56.2 10.7.8.9 10.77.0.1 ", sOrder) << "loopback, none and multicast are nobody's";
}

TEST(Browsers, AsksLessAndLessAndForWhatIsMissing)
{
    Browser               browser;
    std::vector<uint64_t> aTimes;
    StartBrowser(&browser, 0, 1);
    for (uint64_t ullNow = 0; ullNow < 40000; ullNow += 10) {
        if (ullNow < BrowserDue(browser, ullNow)) continue;
        for (const OutPacket &packet : BrowserTick(&browser, ullNow)) {
            EXPECT_EQ(DNS_TYPE_PTR, Decoded(packet.sBytes).aQuestions.at(0).nType);
            aTimes.push_back(ullNow - (aTimes.empty() ? 0 : aTimes[0]));
        }
    }
    ASSERT_EQ(6u, aTimes.size());
    for (size_t n = 1; n < aTimes.size(); n++) EXPECT_NEAR((1 << n) - 1, static_cast<double>(aTimes[n]) / 1000, 0.1);

    // a name without its port, then a host without its address; what is known is said with the next question
    BrowserHears(&browser, Response({Pointer("A")}), 1, THERE, 40000);
    const auto asked = [&](uint64_t ullNow) {
        std::string sTypes;
        for (const OutPacket &packet : BrowserTick(&browser, ullNow))
            for (const DnsQuestion &question : Decoded(packet.sBytes).aQuestions)
                sTypes += std::to_string(question.nType) + " ";
        return sTypes;
    };
    EXPECT_EQ("33 ", asked(40000));
    EXPECT_EQ("", asked(40500)) << "not again at once";
    BrowserHears(&browser, Response({Service("A", 80)}), 1, THERE, 40600);
    EXPECT_EQ("1 ", asked(40600));
    BrowserHears(&browser, Response({Host(THERE)}), 1, THERE, 40700);
    EXPECT_EQ("", asked(41700));
    BrowserLinkChanged(&browser, 42000);
    const std::vector<OutPacket> aPackets = BrowserTick(&browser, 42200);
    ASSERT_EQ(1u, aPackets.size());
    EXPECT_EQ(1u, Decoded(aPackets[0].sBytes).aAnswers.size());
    EXPECT_EQ("33 1 12 ", asked(40700 + 120000 * 4 / 5)) << "old records are asked for before they die";
}

TEST(Browsers, AFloodFillsOnlyItsSendersShare)
{
    Browser browser;
    StartBrowser(&browser, 0, 1);
    for (uint32_t nSender = 0; nSender < 20; nSender++)
        for (uint32_t n = 0; n < 60; n++)
            BrowserHears(&browser, Response({Pointer(std::to_string(nSender * 1000 + n))}), 1, nSender, 0);
    EXPECT_LE(browser.aCache.size(), MAX_CACHED);
    Browser other;
    StartBrowser(&other, 0, 1);
    for (uint32_t n = 0; n < 200; n++)
        BrowserHears(&other, Response({Pointer(std::to_string(n)), Service(std::to_string(n), 80)}), 1, 66, 0);
    BrowserHears(&other, Response({Pointer("A"), Service("A", 80), Host(THERE)}), 1, THERE, 0);
    EXPECT_EQ(1u, BrowserServers(other, {{1, false, {OWN}}}, 1).size());
    for (const OutPacket &packet : BrowserTick(&other, 200)) EXPECT_LE(packet.sBytes.size(), DNS_SENT_PACKET);
    BrowserHears(&other, Query(SERVICE_TYPE, DNS_TYPE_PTR), 1, 67, 0); // and a question teaches nothing
}
