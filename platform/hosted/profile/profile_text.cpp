// profile_text.cpp: sections, keys and values of an INI text.
// Every line that is not written stays as it is, byte for byte. A new key goes behind the last line of its section that
// is not blank; a new section to the end. The state file of a long migration has a line for each file sent, so adding a
// line costs no more than moving the text behind it, and finding one costs a hash. A section ends at the last ']' of
// its line: folder names with brackets are section names here.
#include "platform/hosted/profile/profile_text.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "units go to the file and back as they are");

namespace hosted {
namespace {

constexpr std::u16string_view LINE_BREAK = u"\r\n";

bool IsBlank(char16_t ch) { return ch == u' ' || ch == u'\t'; }
bool IsBreak(char16_t ch) { return ch == u'\r' || ch == u'\n'; }

std::u16string_view Trimmed(std::u16string_view s)
{
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

std::u16string Folded(std::u16string_view s)
{
    std::u16string sFolded(s);
    for (char16_t &ch : sFolded) ch = platform::FoldCaseW(ch);
    return sFolded;
}

bool SameName(std::u16string_view sLeft, std::u16string_view sRight)
{
    return sLeft.size() == sRight.size() &&
           platform::CompareTextNoCaseN_W(sLeft.data(), sRight.data(), sLeft.size()) == 0;
}

uint32_t KeyHash(uint32_t nSection, std::u16string_view sKey)
{
    uint64_t n = (14695981039346656037u ^ nSection) * 1099511628211u;
    for (const char16_t ch : sKey) n = (n ^ platform::FoldCaseW(ch)) * 1099511628211u;
    return static_cast<uint32_t>(n ^ n >> 32);
}

// The name in a header line; false when it is none.
bool HeaderName(std::u16string_view sLine, std::u16string_view *psName)
{
    sLine              = Trimmed(sLine);
    const size_t nLast = sLine.rfind(u']');
    if (sLine.empty() || sLine[0] != u'[' || nLast == std::u16string_view::npos) return false;
    *psName = Trimmed(sLine.substr(1, nLast - 1));
    return true;
}

} // namespace

void ProfileText::Load(std::string_view sBytes)
{
    m_sText.clear();
    m_bUtf16 = sBytes.substr(0, 2) == "\xFF\xFE";
    m_bExact = true;
    if (m_bUtf16) {
        const size_t nUnits = sBytes.size() / 2 - 1;
        m_bExact            = sBytes.size() % 2 == 0; // half a unit at the end is dropped by the next whole write
        m_sText.resize(nUnits);
        memcpy(m_sText.data(), sBytes.data() + 2, 2 * nUnits);
    } else {
        for (const char ch : sBytes) m_bExact = m_bExact && static_cast<unsigned char>(ch) < 0x80;
        m_sText = ToUtf16(sBytes);
    }
    Index();
}

size_t ProfileText::LineEnd(size_t nAt) const
{
    while (nAt < m_sText.size() && !IsBreak(m_sText[nAt])) nAt++;
    return nAt;
}

size_t ProfileText::NextLine(size_t nEnd) const
{
    if (nEnd >= m_sText.size()) return nEnd;
    return m_sText[nEnd] == u'\r' && nEnd + 1 < m_sText.size() && m_sText[nEnd + 1] == u'\n' ? nEnd + 2 : nEnd + 1;
}

ProfileText::Line ProfileText::ReadLine(size_t nAt) const
{
    Line line                      = {};
    line.nEnd                      = LineEnd(nAt);
    const std::u16string_view sAll = std::u16string_view(m_sText).substr(nAt, line.nEnd - nAt);
    const size_t              nEqual = sAll.find(u'=');
    line.bKey = nEqual != std::u16string_view::npos;
    if (!line.bKey) return line;
    line.sName    = Trimmed(sAll.substr(0, nEqual));
    line.sValue   = sAll.substr(nEqual + 1);
    line.nValueAt = nAt + nEqual + 1;
    return line;
}

void ProfileText::Index()
{
    m_aSections.clear();
    m_aByName.clear();
    m_aSlots.clear();
    m_nEntries = 0;
    size_t nAt = !m_sText.empty() && m_sText[0] == 0xFEFF ? 1 : 0; // the mark of a UTF-8 file
    while (nAt < m_sText.size()) {
        const size_t              nEnd  = LineEnd(nAt);
        const size_t              nNext = NextLine(nEnd);
        const std::u16string_view sLine = Trimmed(std::u16string_view(m_sText).substr(nAt, nEnd - nAt));
        std::u16string_view       sName;
        if (HeaderName(sLine, &sName)) {
            if (!m_aSections.empty()) m_aSections.back().nLength = nAt - m_aSections.back().nStart;
            m_aByName.try_emplace(Folded(sName), static_cast<uint32_t>(m_aSections.size()));
            m_aSections.push_back({nAt, m_sText.size() - nAt, nNext - nAt});
        } else if (!sLine.empty() && !m_aSections.empty()) {
            Section &section = m_aSections.back();
            section.nInsert  = nNext - section.nStart;
            const Line line  = ReadLine(nAt);
            if (line.bKey && sLine[0] != u';') {
                const uint32_t nSection = static_cast<uint32_t>(m_aSections.size() - 1);
                if (FindEntry(nSection, line.sName) == nullptr)
                    AddEntry({KeyHash(nSection, line.sName), nSection, static_cast<uint32_t>(nAt - section.nStart)});
            }
        }
        nAt = nNext;
    }
}

const ProfileText::Entry *ProfileText::FindEntry(uint32_t nSection, std::u16string_view sKey) const
{
    if (m_aSlots.empty()) return nullptr;
    const uint32_t nHash = KeyHash(nSection, sKey);
    const size_t   nMask = m_aSlots.size() - 1;
    for (size_t i = nHash & nMask; m_aSlots[i].nLine != 0; i = (i + 1) & nMask) {
        const Entry &entry = m_aSlots[i];
        if (entry.nHash == nHash && entry.nSection == nSection &&
            SameName(ReadLine(m_aSections[nSection].nStart + entry.nLine).sName, sKey))
            return &entry;
    }
    return nullptr;
}

void ProfileText::AddEntry(const Entry &entry)
{
    const auto put = [](std::vector<Entry> &aSlots, const Entry &e) {
        const size_t nMask = aSlots.size() - 1;
        size_t       i     = e.nHash & nMask;
        while (aSlots[i].nLine != 0) i = (i + 1) & nMask;
        aSlots[i] = e;
    };
    if (m_nEntries * 3 >= m_aSlots.size() * 2) {
        std::vector<Entry> aLarger(m_aSlots.empty() ? 16 : m_aSlots.size() * 2);
        for (const Entry &e : m_aSlots)
            if (e.nLine != 0) put(aLarger, e);
        m_aSlots = std::move(aLarger);
    }
    put(m_aSlots, entry);
    m_nEntries++;
}

bool ProfileText::Read(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view *psValue) const
{
    const auto it = m_aByName.find(Folded(Trimmed(sSection)));
    if (it == m_aByName.end()) return false;
    const Entry *pEntry = FindEntry(it->second, Trimmed(sKey));
    if (pEntry == nullptr) return false;
    std::u16string_view sValue = Trimmed(ReadLine(m_aSections[it->second].nStart + pEntry->nLine).sValue);
    if (sValue.size() >= 2 && (sValue[0] == u'"' || sValue[0] == u'\'') && sValue.back() == sValue[0])
        sValue = sValue.substr(1, sValue.size() - 2);
    *psValue = sValue;
    return true;
}

std::u16string ProfileText::Sections() const
{
    std::u16string sNames;
    for (const Section &section : m_aSections) {
        std::u16string_view sName;
        if (!HeaderName(std::u16string_view(m_sText).substr(section.nStart, LineEnd(section.nStart) - section.nStart),
                        &sName))
            continue;
        sNames += sName;
        sNames += u'\0';
    }
    return sNames;
}

bool ProfileText::Keys(std::u16string_view sSection, std::u16string *psKeys) const
{
    const auto it = m_aByName.find(Folded(Trimmed(sSection)));
    if (it == m_aByName.end()) return false;
    const Section &section = m_aSections[it->second];
    for (size_t nAt = NextLine(LineEnd(section.nStart)); nAt < section.nStart + section.nLength;) {
        const Line line = ReadLine(nAt);
        if (line.bKey && (line.sName.empty() || line.sName[0] != u';')) {
            *psKeys += line.sName;
            *psKeys += u'\0';
        }
        nAt = NextLine(line.nEnd);
    }
    return true;
}

// Changes the text alone; the index is the caller's.
ProfileEdit ProfileText::Replace(size_t nAt, size_t nRemoved, std::u16string_view sNew)
{
    const size_t nSize = m_sText.size() - nRemoved + sNew.size();
    if (nSize > m_sText.capacity()) m_sText.reserve(nSize + nSize / 8 + 256); // doubling would cost too much memory
    m_sText.replace(nAt, nRemoved, sNew);
    if (!m_bUtf16)
        for (const char16_t ch : sNew) m_bExact = m_bExact && ch < 0x80;
    return {nAt, nRemoved, sNew.size(), 0, 0, true};
}

ProfileEdit ProfileText::Write(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view sValue)
{
    sSection              = Trimmed(sSection);
    sKey                  = Trimmed(sKey);
    const auto     it     = m_aByName.find(Folded(sSection));
    const Entry   *pEntry = it == m_aByName.end() ? nullptr : FindEntry(it->second, sKey);
    std::u16string sNew;
    if (pEntry != nullptr) {
        const Line line = ReadLine(m_aSections[it->second].nStart + pEntry->nLine);
        if (line.sValue == sValue) return {};
        const bool  bSameLength = line.nEnd - line.nValueAt == sValue.size();
        ProfileEdit edit        = Replace(line.nValueAt, line.nEnd - line.nValueAt, sValue);
        edit.nValue             = sValue.size();
        if (!bSameLength || sValue.find_first_of(LINE_BREAK) != std::u16string_view::npos) Index();
        return edit;
    }
    const size_t nInsert =
        it == m_aByName.end() ? m_sText.size() : m_aSections[it->second].nStart + m_aSections[it->second].nInsert;
    if (nInsert > 0 && !IsBreak(m_sText[nInsert - 1]) && !(nInsert == 1 && m_sText[0] == 0xFEFF)) sNew = LINE_BREAK;
    if (it == m_aByName.end()) (((sNew += u'[') += sSection) += u']') += LINE_BREAK;
    const size_t nLine = sNew.size();
    (sNew += sKey) += u'=';
    const size_t nValueAt = sNew.size();
    (sNew += sValue) += LINE_BREAK;
    ProfileEdit edit = Replace(nInsert, 0, sNew);
    edit.nValueAt    = nValueAt;
    edit.nValue      = sValue.size();
    // A key that reads as something else, or a value of several lines: the text is looked at anew.
    const bool bPlain = it != m_aByName.end() && !sKey.empty() && sKey[0] != u'[' && sKey[0] != u';' &&
                        sNew.find_first_of(LINE_BREAK, nLine) == sNew.size() - 2 &&
                        sKey.find(u'=') == std::u16string_view::npos;
    if (!bPlain) {
        if (it == m_aByName.end() && !sKey.empty() && sKey.find_first_of(u"[];=\r\n") == std::u16string_view::npos &&
            sSection.find_first_of(LINE_BREAK) == std::u16string_view::npos &&
            sValue.find_first_of(LINE_BREAK) == std::u16string_view::npos) {
            // A new section at the end, the usual case of a folder begun: indexed without looking at the rest.
            const size_t   nHeader  = nInsert + (sNew[0] == u'\r' ? 2 : 0);
            const uint32_t nSection = static_cast<uint32_t>(m_aSections.size());
            if (!m_aSections.empty()) m_aSections.back().nLength = nHeader - m_aSections.back().nStart;
            if (nSection > 0 && nHeader != nInsert) { // the break that its last line lacked
                Section &last = m_aSections.back();
                if (last.nStart + last.nInsert == nInsert) last.nInsert += 2;
            }
            m_aSections.push_back({nHeader, m_sText.size() - nHeader, m_sText.size() - nHeader});
            m_aByName.try_emplace(Folded(sSection), nSection);
            AddEntry({KeyHash(nSection, sKey), nSection, static_cast<uint32_t>(nInsert + nLine - nHeader)});
            return edit;
        }
        Index();
        return edit;
    }
    Section &section = m_aSections[it->second];
    AddEntry({KeyHash(it->second, sKey), it->second, static_cast<uint32_t>(section.nInsert + nLine)});
    section.nInsert += sNew.size();
    section.nLength += sNew.size();
    for (size_t i = it->second + 1; i < m_aSections.size(); i++) m_aSections[i].nStart += sNew.size();
    return edit;
}

ProfileEdit ProfileText::RemoveKey(std::u16string_view sSection, std::u16string_view sKey)
{
    const auto it = m_aByName.find(Folded(Trimmed(sSection)));
    if (it == m_aByName.end()) return {};
    const Entry *pEntry = FindEntry(it->second, Trimmed(sKey));
    if (pEntry == nullptr) return {};
    const size_t nAt  = m_aSections[it->second].nStart + pEntry->nLine;
    ProfileEdit  edit = Replace(nAt, NextLine(LineEnd(nAt)) - nAt, {});
    Index();
    return edit;
}

ProfileEdit ProfileText::RemoveSection(std::u16string_view sSection)
{
    const auto it = m_aByName.find(Folded(Trimmed(sSection)));
    if (it == m_aByName.end()) return {};
    ProfileEdit edit = Replace(m_aSections[it->second].nStart, m_aSections[it->second].nLength, {});
    Index();
    return edit;
}

} // namespace hosted
