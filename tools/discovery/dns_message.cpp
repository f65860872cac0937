// dns_message.cpp: see the header. Every read goes through one reader that knows its end.
#include "tools/discovery/dns_message.h"
#include <algorithm>
#include <map>

namespace {

constexpr size_t   CB_HEADER     = 12;
constexpr uint16_t FLAG_RESPONSE = 0x8000, FLAG_AUTHORITY = 0x0400, FLAG_TRUNCATED = 0x0200;
constexpr uint16_t MASK_OPCODE = 0x7800, MASK_CODE = 0x000F;
constexpr uint16_t MARK_TOP_BIT = 0x8000; // of a class: unicast answer wanted, or cache flush
constexpr uint8_t  POINTER      = 0xC0;
constexpr size_t   MAX_POINTER  = 0x3FFF;

struct Reader {
    const uint8_t *pBytes;
    size_t         cb; // end of what may be read
    size_t         i   = 0;
    bool           bOk = true;
};

uint8_t ReadByte(Reader &reader)
{
    if (reader.i >= reader.cb) reader.bOk = false;
    return reader.bOk ? reader.pBytes[reader.i++] : uint8_t{0};
}

uint16_t ReadWord(Reader &reader)
{
    const uint16_t nHigh = ReadByte(reader);
    return static_cast<uint16_t>(nHigh << 8 | ReadByte(reader));
}

uint32_t ReadLong(Reader &reader)
{
    const uint32_t nHigh = ReadWord(reader);
    return nHigh << 16 | ReadWord(reader);
}

std::string ReadBytes(Reader &reader, size_t cb)
{
    if (cb > reader.cb - reader.i) reader.bOk = false;
    if (!reader.bOk) return "";
    reader.i += cb;
    return std::string(reinterpret_cast<const char *>(reader.pBytes) + reader.i - cb, cb);
}

// A pointer leads only to before the part that it ends, so that no name can run in a circle.
DnsName ReadName(Reader &reader)
{
    DnsName name;
    size_t  cbName = 1, iPartBegin = reader.i, iAfter = 0;
    bool    bJumped = false;
    while (reader.bOk) {
        const uint8_t nLength = ReadByte(reader);
        if (!reader.bOk || nLength == 0) break;
        if ((nLength & POINTER) == POINTER) {
            const size_t iTarget = static_cast<size_t>(nLength & ~POINTER) << 8 | ReadByte(reader);
            if (!bJumped) iAfter = reader.i;
            bJumped = true;
            if (iTarget >= iPartBegin || iTarget < CB_HEADER) reader.bOk = false;
            reader.i = iPartBegin = iTarget;
            continue;
        }
        cbName += nLength + size_t{1};
        if (nLength > DNS_MAX_LABEL || cbName > DNS_MAX_NAME) reader.bOk = false;
        if (reader.bOk) name.push_back(ReadBytes(reader, nLength));
    }
    if (bJumped && reader.bOk) reader.i = iAfter;
    return name;
}

DnsQuestion ReadQuestion(Reader &reader)
{
    DnsQuestion question;
    question.name         = ReadName(reader);
    question.nType        = ReadWord(reader);
    const uint16_t nClass = ReadWord(reader);
    question.nClass       = nClass & static_cast<uint16_t>(~MARK_TOP_BIT);
    question.bUnicast     = (nClass & MARK_TOP_BIT) != 0;
    return question;
}

DnsRecord ReadRecord(Reader &reader)
{
    DnsRecord record;
    record.name           = ReadName(reader);
    record.nType          = ReadWord(reader);
    const uint16_t nClass = ReadWord(reader);
    record.nClass         = nClass & static_cast<uint16_t>(~MARK_TOP_BIT);
    record.bFlush         = (nClass & MARK_TOP_BIT) != 0;
    record.dwTtl          = ReadLong(reader);
    const size_t cbData   = ReadWord(reader);
    if (cbData > reader.cb - reader.i) reader.bOk = false;
    if (!reader.bOk) return record;
    Reader data = {reader.pBytes, reader.i + cbData, reader.i}; // a name may point to before it, nothing goes beyond it
    reader.i += cbData;
    if (record.nType == DNS_TYPE_SRV) {
        record.nPriority = ReadWord(data);
        record.nWeight   = ReadWord(data);
        record.nPort     = ReadWord(data);
    }
    if (record.nType == DNS_TYPE_A) {
        const std::string sAddress = ReadBytes(data, sizeof(record.dwAddress));
        std::copy(sAddress.begin(), sAddress.end(), reinterpret_cast<char *>(&record.dwAddress));
    } else if (record.nType == DNS_TYPE_PTR || record.nType == DNS_TYPE_SRV || record.nType == DNS_TYPE_NSEC) {
        record.target = ReadName(data);
        if (record.nType == DNS_TYPE_NSEC && data.bOk) record.sData = ReadBytes(data, data.cb - data.i);
    } else {
        record.sData = ReadBytes(data, cbData);
    }
    reader.bOk = data.bOk && data.i == data.cb;
    return record;
}

// ---- writing ----

struct Writer {
    std::string               sBytes;
    std::map<DnsName, size_t> places; // of names and their ends, in lower case
    bool                      bCompress = true;
};

char LowerCase(char ch)
{
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + ('a' - 'A')) : ch;
}

DnsName LowerCase(DnsName name)
{
    for (std::string &sLabel : name)
        for (char &ch : sLabel) ch = LowerCase(ch);
    return name;
}

void WriteWord(Writer &writer, size_t n)
{
    writer.sBytes += static_cast<char>(n >> 8 & 0xFF);
    writer.sBytes += static_cast<char>(n & 0xFF);
}

void WriteName(Writer &writer, const DnsName &name)
{
    DnsName rest = LowerCase(name);
    for (const std::string &sLabel : name) {
        const auto it = writer.places.find(rest);
        if (writer.bCompress && it != writer.places.end()) {
            WriteWord(writer, size_t{POINTER} << 8 | it->second);
            return;
        }
        if (writer.sBytes.size() <= MAX_POINTER) writer.places.emplace(rest, writer.sBytes.size());
        writer.sBytes += static_cast<char>(sLabel.size());
        writer.sBytes += sLabel;
        rest.erase(rest.begin());
    }
    writer.sBytes += '\0';
}

void WriteContent(Writer &writer, const DnsRecord &record)
{
    if (record.nType == DNS_TYPE_SRV) {
        WriteWord(writer, record.nPriority);
        WriteWord(writer, record.nWeight);
        WriteWord(writer, record.nPort);
    }
    if (record.nType == DNS_TYPE_A) {
        writer.sBytes.append(reinterpret_cast<const char *>(&record.dwAddress), sizeof(record.dwAddress));
        return;
    }
    // In other records than PTR old readers do not look for pointers.
    const bool bCompress = writer.bCompress;
    if (record.nType != DNS_TYPE_PTR) writer.bCompress = false;
    if (record.nType == DNS_TYPE_PTR || record.nType == DNS_TYPE_SRV || record.nType == DNS_TYPE_NSEC)
        WriteName(writer, record.target);
    writer.bCompress = bCompress;
    if (record.nType != DNS_TYPE_PTR && record.nType != DNS_TYPE_SRV) writer.sBytes += record.sData;
}

void WriteRecord(Writer &writer, const DnsRecord &record)
{
    WriteName(writer, record.name);
    WriteWord(writer, record.nType);
    WriteWord(writer, record.nClass | (record.bFlush ? MARK_TOP_BIT : 0));
    WriteWord(writer, record.dwTtl >> 16);
    WriteWord(writer, record.dwTtl & 0xFFFF);
    const size_t iLength = writer.sBytes.size();
    WriteWord(writer, 0);
    WriteContent(writer, record);
    const size_t cbData        = writer.sBytes.size() - iLength - 2;
    writer.sBytes[iLength]     = static_cast<char>(cbData >> 8);
    writer.sBytes[iLength + 1] = static_cast<char>(cbData);
}

void PatchWord(std::string &sBytes, size_t i, size_t n)
{
    sBytes[i]     = static_cast<char>(n >> 8);
    sBytes[i + 1] = static_cast<char>(n);
}

} // namespace

bool DecodeDnsMessage(const void *pBytes, size_t cb, DnsMessage *pMessage)
{
    *pMessage = DnsMessage();
    if (cb < CB_HEADER || cb > DNS_MAX_PACKET) return false;
    Reader reader           = {static_cast<const uint8_t *>(pBytes), cb};
    pMessage->nId           = ReadWord(reader);
    const uint16_t nFlags   = ReadWord(reader);
    pMessage->bResponse     = (nFlags & FLAG_RESPONSE) != 0;
    pMessage->bTruncated    = (nFlags & FLAG_TRUNCATED) != 0;
    const size_t nQuestions = ReadWord(reader), nAnswers = ReadWord(reader), nAuthorities = ReadWord(reader),
                 nAdditionals = ReadWord(reader);
    if ((nFlags & (MASK_OPCODE | MASK_CODE)) != 0 || nQuestions > DNS_MAX_QUESTIONS ||
        nAnswers + nAuthorities + nAdditionals > DNS_MAX_RECORDS)
        return false;
    for (size_t n = 0; n < nQuestions && reader.bOk; n++) pMessage->aQuestions.push_back(ReadQuestion(reader));
    for (size_t n = 0; n < nAnswers && reader.bOk; n++) pMessage->aAnswers.push_back(ReadRecord(reader));
    for (size_t n = 0; n < nAuthorities && reader.bOk; n++) pMessage->aAuthorities.push_back(ReadRecord(reader));
    for (size_t n = 0; n < nAdditionals && reader.bOk; n++) pMessage->aAdditionals.push_back(ReadRecord(reader));
    return reader.bOk;
}

std::string EncodeDnsMessage(const DnsMessage &message, size_t cbMost)
{
    Writer writer;
    size_t aCounts[4] = {};
    bool   bFull      = false;
    writer.sBytes.resize(CB_HEADER);
    for (const DnsQuestion &question : message.aQuestions) {
        WriteName(writer, question.name);
        WriteWord(writer, question.nType);
        WriteWord(writer, question.nClass | (question.bUnicast ? MARK_TOP_BIT : 0));
        aCounts[0]++;
    }
    const std::vector<DnsRecord> *aSections[3] = {&message.aAnswers, &message.aAuthorities, &message.aAdditionals};
    for (size_t iSection = 0; iSection < 3; iSection++) {
        for (const DnsRecord &record : *aSections[iSection]) {
            const size_t cbBefore = writer.sBytes.size();
            if (!bFull) WriteRecord(writer, record);
            if (bFull || writer.sBytes.size() > cbMost) {
                // what follows may point into what was cut off: nothing does follow
                bFull = true;
                writer.sBytes.resize(cbBefore);
                break;
            }
            aCounts[iSection + 1]++;
        }
    }
    const bool   bCut   = message.bTruncated || aCounts[1] < message.aAnswers.size();
    const size_t nFlags = (message.bResponse ? FLAG_RESPONSE | FLAG_AUTHORITY : 0) | (bCut ? FLAG_TRUNCATED : 0);
    PatchWord(writer.sBytes, 0, message.nId);
    PatchWord(writer.sBytes, 2, nFlags);
    for (size_t n = 0; n < 4; n++) PatchWord(writer.sBytes, 4 + 2 * n, aCounts[n]);
    return writer.sBytes;
}

bool IsSameDnsName(const DnsName &a, const DnsName &b)
{
    const auto same = [](char chA, char chB) { return LowerCase(chA) == LowerCase(chB); };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](const std::string &sA, const std::string &sB) {
        return std::equal(sA.begin(), sA.end(), sB.begin(), sB.end(), same);
    });
}

bool IsSameDnsRecord(const DnsRecord &a, const DnsRecord &b)
{
    return a.nType == b.nType && a.nClass == b.nClass && a.nPriority == b.nPriority && a.nWeight == b.nWeight &&
           a.nPort == b.nPort && a.dwAddress == b.dwAddress && a.sData == b.sData &&
           IsSameDnsName(a.target, b.target) && IsSameDnsName(a.name, b.name);
}

std::string DnsRecordContent(const DnsRecord &record)
{
    Writer writer;
    writer.bCompress = false;
    WriteContent(writer, record);
    return writer.sBytes;
}
