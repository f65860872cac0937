// shell_link_format.cpp: the parts of a .lnk file.
// Links of other writers are read with and without an id list, with ANSI or Unicode texts, and keep what is not
// understood. What is written has an id list and link information in both widths, as the system's shell resolves a link
// by the list. ANSI text of other writers is UTF-8 where it is valid UTF-8, else code page 1252; the narrow form that
// is written is ASCII with '?' for the rest. No path has a '?', so a reader that meets one takes the other form.
#include "platform/hosted/desktop/shell_link_format.h"
#include "platform/unicode.h"
#include <algorithm>

namespace hosted {
namespace {

constexpr size_t   CB_HEADER   = 76;
constexpr char     CLASS_ID[]  = "\x01\x14\x02\x00\x00\x00\x00\x00\xC0\x00\x00\x00\x00\x00\x00\x46";
constexpr uint32_t HAS_ID_LIST = 0x01, HAS_LINK_INFO = 0x02, HAS_TEXT = 0x04, IS_UNICODE = 0x80, NO_LINK_INFO = 0x100;
constexpr uint32_t HAS_EXPANDABLE = 0x200, PREFERS_ENVIRONMENT = 0x2000000;
constexpr uint32_t PART_FLAGS       = HAS_ID_LIST | HAS_LINK_INFO | 0x7C | IS_UNICODE;
constexpr uint32_t VOLUME_AND_LOCAL = 1, NETWORK_AND_SUFFIX = 2;
constexpr size_t   CB_LINK_INFO_WIDE = 0x24; // header with the offsets of the Unicode forms

// Little-endian fields of a bounded piece of bytes; a read outside gives 0 and is remembered.
struct Reader {
    std::string_view sBytes;
    bool             bBad = false;
    uint64_t         Field(size_t nAt, size_t cb)
    {
        if (nAt > sBytes.size() || cb > sBytes.size() - nAt) {
            bBad = true;
            return 0;
        }
        uint64_t n = 0;
        for (size_t i = 0; i < cb; i++)
            n |= static_cast<uint64_t>(static_cast<unsigned char>(sBytes[nAt + i])) << (8 * i);
        return n;
    }
    uint16_t         U16(size_t nAt) { return static_cast<uint16_t>(Field(nAt, 2)); }
    uint32_t         U32(size_t nAt) { return static_cast<uint32_t>(Field(nAt, 4)); }
    std::string_view Piece(size_t nAt, size_t cb)
    {
        Field(nAt, 0);
        if (bBad || cb > sBytes.size() - nAt) {
            bBad = true;
            return {};
        }
        return sBytes.substr(nAt, cb);
    }
    // Terminated text; without a terminator it is bad.
    std::string_view Text(size_t nAt)
    {
        const size_t nEnd = nAt <= sBytes.size() ? sBytes.find('\0', nAt) : std::string_view::npos;
        if (nEnd == std::string_view::npos) {
            bBad = true;
            return {};
        }
        return sBytes.substr(nAt, nEnd - nAt);
    }
    std::u16string WideText(size_t nAt)
    {
        std::u16string sText;
        while (const uint16_t ch = U16(nAt + 2 * sText.size())) sText += static_cast<char16_t>(ch);
        return bBad ? u"" : sText;
    }
};

void Put(std::string *ps, uint64_t n, size_t cb)
{
    for (size_t i = 0; i < cb; i++) *ps += static_cast<char>(i < sizeof(n) ? n >> (8 * i) : 0);
}

void PutWide(std::string *ps, std::u16string_view sText)
{
    for (const char16_t ch : sText) Put(ps, ch, 2);
}

// What code page 1252 has from 80 to 9F; above that it is Unicode.
constexpr char16_t g_szUpper[] =
    u"\u20AC\u0081\u201A\u0192\u201E\u2026\u2020\u2021\u02C6\u2030\u0160\u2039\u0152\u008D\u017D\u008F"
    u"\u0090\u2018\u2019\u201C\u201D\u2022\u2013\u2014\u02DC\u2122\u0161\u203A\u0153\u009D\u017E\u0178";

std::u16string FromAnsi(std::string_view sText)
{
    std::u16string sWide;
    bool           bUtf8 = true;
    for (size_t i = 0, n = 0; bUtf8 && i < sText.size(); i += n) {
        char16_t       aUnits[2];
        const uint32_t nPoint = platform::DecodeUtf8(sText.data() + i, sText.size() - i, &n, false);
        bUtf8                 = nPoint != platform::NO_CODE_POINT;
        if (bUtf8) sWide.append(aUnits, platform::EncodeUtf16(nPoint, aUnits));
    }
    if (bUtf8) return sWide;
    sWide.clear();
    for (const char c : sText) {
        const unsigned char ch = static_cast<unsigned char>(c);
        sWide += ch >= 0x80 && ch < 0xA0 ? g_szUpper[ch - 0x80] : ch;
    }
    return sWide;
}

std::string ToAnsi(std::u16string_view sText)
{
    std::string sNarrow;
    for (const char16_t ch : sText) sNarrow += ch < 0x80 ? static_cast<char>(ch) : '?';
    return sNarrow;
}

std::u16string TargetOfLinkInfo(std::string_view sInfo)
{
    Reader         info   = {sInfo};
    const uint32_t cbHead = info.U32(4), dwFlags = info.U32(8);
    const bool     bWide = cbHead >= CB_LINK_INFO_WIDE;
    std::u16string sBase;
    if ((dwFlags & VOLUME_AND_LOCAL) != 0) {
        sBase = bWide && info.U32(28) != 0 ? info.WideText(info.U32(28)) : FromAnsi(info.Text(info.U32(16)));
    } else if ((dwFlags & NETWORK_AND_SUFFIX) != 0) {
        const uint32_t nNet = info.U32(20), nName = info.U32(nNet + 8u);
        sBase = nName > 0x14 && info.U32(nNet + 20u) != 0 ? info.WideText(size_t(nNet) + info.U32(nNet + 20u))
                                                          : FromAnsi(info.Text(size_t(nNet) + nName));
    }
    std::u16string sSuffix =
        bWide && info.U32(32) != 0 ? info.WideText(info.U32(32)) : FromAnsi(info.Text(info.U32(24)));
    if (info.bBad || sBase.empty()) return u"";
    if (!sSuffix.empty() && sBase.back() != u'\\') sBase += u'\\';
    return sBase + sSuffix;
}

// The name of one file-system item: the long one of its extension block, else the short one.
std::u16string NameOfItem(std::string_view sItem)
{
    Reader               item       = {sItem};
    const uint8_t        nType      = static_cast<uint8_t>(item.Field(2, 1));
    const uint16_t       nExtension = item.U16(sItem.size() - 2);
    const std::u16string sShort     = (nType & 4) != 0 ? item.WideText(14) : FromAnsi(item.Text(14));
    if (item.bBad) return u"";
    Reader         extension  = {sItem};
    const uint32_t nSignature = extension.U32(nExtension + 4u); // some writers leave it out
    if (nExtension < 14 || (nSignature != 0xBEEF0004 && nSignature != 0)) return sShort;
    const uint16_t nVersion = extension.U16(nExtension + 2u);
    const size_t   nName    = nExtension + (nVersion >= 9 ? 46u : nVersion >= 8 ? 42u : nVersion >= 7 ? 38u : 20u);
    std::u16string sLong    = extension.WideText(nName);
    return extension.bBad || sLong.empty() ? sShort : sLong;
}

std::u16string TargetOfIdList(std::string_view sList)
{
    std::u16string sPath;
    for (size_t nAt = 0; nAt + 2 <= sList.size();) {
        Reader         list = {sList};
        const uint16_t cb   = list.U16(nAt);
        if (cb < 3) break;
        const std::string_view sItem = list.Piece(nAt, cb);
        if (list.bBad) return u"";
        const uint8_t nType = static_cast<uint8_t>(sItem[2]);
        if ((nType & 0x70) == 0x20 && nType != 0x2E) {
            sPath = FromAnsi(sItem.substr(3, std::min(sItem.substr(3).find('\0'), sItem.size() - 3)));
        } else if ((nType & 0x70) == 0x30 && cb > 16 && !sPath.empty()) {
            const std::u16string sName = NameOfItem(sItem);
            if (sName.empty()) return u"";
            if (sPath.back() != u'\\') sPath += u'\\';
            sPath += sName;
        } else if (!sPath.empty()) {
            return u"";
        }
        nAt += cb;
    }
    return sPath;
}

std::string FileItem(std::u16string_view sName, bool bFolder)
{
    std::string sItem("\0\0", 2);
    sItem += bFolder ? '\x31' : '\x32';
    sItem += '\0';
    Put(&sItem, 0, 8); // size, date, time
    Put(&sItem, bFolder ? 0x10 : 0x20, 2);
    sItem += ToAnsi(sName);
    sItem.append(sItem.size() % 2 == 0 ? 2 : 1, '\0');
    const size_t nExtension = sItem.size();
    Put(&sItem, 20 + 2 * (sName.size() + 1) + 2, 2);
    Put(&sItem, 3, 2);
    Put(&sItem, 0xBEEF0004, 4);
    Put(&sItem, 0, 8);
    Put(&sItem, 20, 2);
    Put(&sItem, 0, 2);
    PutWide(&sItem, sName);
    Put(&sItem, 0, 2);
    Put(&sItem, nExtension, 2);
    sItem[0] = static_cast<char>(sItem.size());
    sItem[1] = static_cast<char>(sItem.size() >> 8);
    return sItem;
}

std::string IdListFor(std::u16string_view sPath, bool bFolder)
{
    std::string sList("\x14\0\x1F\x50\xE0\x4F\xD0\x20\xEA\x3A\x69\x10\xA2\xD8\x08\0\x2B\x30\x30\x9D",
                      20); // the computer
    std::string sDrive("\x19\0\x2F", 3);
    sDrive += ToAnsi(sPath.substr(0, 3));
    sDrive.resize(25, '\0');
    sList += sDrive;
    for (size_t nAt = 3; nAt < sPath.size();) {
        const size_t nEnd = std::min(sPath.find(u'\\', nAt), sPath.size());
        if (nEnd > nAt) sList += FileItem(sPath.substr(nAt, nEnd - nAt), bFolder || nEnd < sPath.size());
        nAt = nEnd + 1;
    }
    return sList + std::string(2, '\0');
}

std::string LinkInfoFor(std::u16string_view sPath)
{
    const std::string sVolume("\x11\0\0\0\x03\0\0\0\0\0\0\0\x10\0\0\0\0", 17); // fixed, no serial number, no label
    const std::string sNarrow  = ToAnsi(sPath) + '\0';
    const size_t      nLocal   = CB_LINK_INFO_WIDE + sVolume.size();
    const size_t      nSuffix  = nLocal + sNarrow.size();
    const size_t      nWide    = nSuffix + 1 + (nSuffix + 1) % 2;
    const size_t      nSuffixW = nWide + 2 * (sPath.size() + 1);
    std::string       sInfo;
    for (const size_t n : {nSuffixW + 2, CB_LINK_INFO_WIDE, size_t(VOLUME_AND_LOCAL), CB_LINK_INFO_WIDE, nLocal,
                           size_t(0), nSuffix, nWide, nSuffixW})
        Put(&sInfo, n, 4);
    (sInfo += sVolume) += sNarrow;
    sInfo.resize(nWide, '\0');
    PutWide(&sInfo, sPath);
    sInfo.resize(nSuffixW + 2, '\0');
    return sInfo;
}

} // namespace

bool ParseLink(std::string_view sBytes, LinkParts *pParts)
{
    Reader file = {sBytes};
    if (file.U32(0) != CB_HEADER || file.Piece(4, 16) != std::string_view(CLASS_ID, 16)) return false;
    const uint32_t dwFlags = file.U32(20);
    *pParts                = LinkParts();
    pParts->dwFlags        = dwFlags & ~PART_FLAGS;
    pParts->dwAttributes   = file.U32(24);
    for (size_t i = 0; i < 3; i++) pParts->aTimes[i] = file.Field(28 + 8 * i, 8);
    pParts->cbTarget = file.U32(52);
    pParts->nIcon    = file.U32(56);
    pParts->nShow    = file.U32(60);
    pParts->nHotKey  = file.U16(64);
    file.Piece(0, CB_HEADER);
    size_t nAt = CB_HEADER;
    if ((dwFlags & HAS_ID_LIST) != 0) {
        pParts->sIdList = file.Piece(nAt + 2, file.U16(nAt));
        nAt += 2 + pParts->sIdList.size();
    }
    if ((dwFlags & HAS_LINK_INFO) != 0) {
        const uint32_t cb = file.U32(nAt);
        if (cb < 4) return false;
        pParts->sLinkInfo = file.Piece(nAt, cb);
        nAt += cb;
    }
    for (uint32_t i = 0; i < 5 && !file.bBad; i++) {
        if ((dwFlags & HAS_TEXT << i) == 0) continue;
        const size_t cch = file.U16(nAt);
        nAt += 2;
        pParts->aHasText[i] = true;
        if ((dwFlags & IS_UNICODE) == 0) {
            pParts->aTexts[i] = FromAnsi(file.Piece(nAt, cch));
            nAt += cch;
        } else if (!file.Piece(nAt, 2 * cch).empty()) {
            for (size_t n = 0; n < cch; n++) pParts->aTexts[i] += static_cast<char16_t>(file.U16(nAt + 2 * n));
            nAt += 2 * cch;
        }
        pParts->aTexts[i].resize(
            std::min(pParts->aTexts[i].find(u'\0'), pParts->aTexts[i].size())); // some count a terminator
    }
    if (file.bBad) return false;
    const size_t nExtra = nAt;
    while (nAt + 4 <= sBytes.size()) { // a missing end block hurts nobody
        const uint32_t cb = file.U32(nAt);
        if (cb < 4 || cb > sBytes.size() - nAt) break;
        nAt += cb;
    }
    pParts->sExtra = sBytes.substr(nExtra, nAt - nExtra);
    return true;
}

std::string LinkBytes(const LinkParts &parts)
{
    uint32_t dwFlags = parts.dwFlags | IS_UNICODE;
    if (!parts.sIdList.empty()) dwFlags |= HAS_ID_LIST;
    if (!parts.sLinkInfo.empty()) dwFlags |= HAS_LINK_INFO;
    for (uint32_t i = 0; i < 5; i++)
        if (parts.aHasText[i]) dwFlags |= HAS_TEXT << i;
    std::string sBytes;
    Put(&sBytes, CB_HEADER, 4);
    sBytes.append(CLASS_ID, 16);
    Put(&sBytes, dwFlags, 4);
    Put(&sBytes, parts.dwAttributes, 4);
    for (const uint64_t n : parts.aTimes) Put(&sBytes, n, 8);
    Put(&sBytes, parts.cbTarget, 4);
    Put(&sBytes, parts.nIcon, 4);
    Put(&sBytes, parts.nShow, 4);
    Put(&sBytes, parts.nHotKey, 2);
    sBytes.append(10, '\0');
    if (!parts.sIdList.empty()) {
        Put(&sBytes, parts.sIdList.size(), 2);
        sBytes += parts.sIdList;
    }
    sBytes += parts.sLinkInfo;
    for (int i = 0; i < 5; i++) {
        if (!parts.aHasText[i]) continue;
        Put(&sBytes, parts.aTexts[i].size(), 2);
        PutWide(&sBytes, parts.aTexts[i]);
    }
    sBytes += parts.sExtra;
    Put(&sBytes, 0, 4);
    return sBytes;
}

std::u16string LinkTarget(const LinkParts &parts)
{
    std::u16string sPath;
    if (!parts.sLinkInfo.empty() && (parts.dwFlags & NO_LINK_INFO) == 0) sPath = TargetOfLinkInfo(parts.sLinkInfo);
    if (!sPath.empty() && sPath.find(u'?') == std::u16string::npos) return sPath;
    const std::u16string sListed = parts.sIdList.empty() ? u"" : TargetOfIdList(parts.sIdList);
    return sListed.empty() ? sPath : sListed;
}

void SetLinkTarget(LinkParts *pParts, std::u16string_view sPath, bool bFolder)
{
    // Blocks that name the old target: environment path, tracker, special and known folder, id list of newer systems.
    constexpr uint32_t aOfTarget[] = {0xA0000001, 0xA0000003, 0xA0000005, 0xA000000B, 0xA000000C};
    std::string        sKept;
    Reader             extra = {pParts->sExtra};
    for (size_t nAt = 0; nAt + 8 <= pParts->sExtra.size();) {
        const uint32_t cb = extra.U32(nAt), nKind = extra.U32(nAt + 4);
        bool           bKeep = true;
        for (const uint32_t n : aOfTarget) bKeep = bKeep && n != nKind;
        if (cb < 8) break;
        if (bKeep) sKept += extra.Piece(nAt, cb);
        nAt += cb;
    }
    pParts->sExtra = sKept;
    pParts->dwFlags &= ~(HAS_EXPANDABLE | PREFERS_ENVIRONMENT | NO_LINK_INFO);
    pParts->sIdList   = IdListFor(sPath, bFolder);
    pParts->sLinkInfo = LinkInfoFor(sPath);
    pParts->cbTarget  = 0;
    for (uint64_t &n : pParts->aTimes) n = 0;
    pParts->dwAttributes = bFolder ? 0x10 : 0x20;
}

} // namespace hosted
