// profile_text.cpp: sections, keys and values of an INI text.
// Every line that is not written stays as it is, byte for byte. A new key goes behind the last line of its section that
// is not blank; a new section to the end. A section ends at the last ']' of its line: folder names with brackets are
// section names here.
#include "platform/hosted/profile/profile_text.h"
#include "platform/hosted/machine/utf.h"
#include "platform/text.h"
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "units go to the file and back as they are");

namespace hosted {
namespace {

constexpr std::u16string_view LINE_BREAK = u"\r\n";
constexpr std::string_view    UTF16_MARK = "\xFF\xFE";

bool IsBlank(char16_t ch)
{
    return ch == u' ' || ch == u'\t';
}
bool IsBreak(char16_t ch)
{
    return ch == u'\r' || ch == u'\n';
}

std::u16string_view Trimmed(std::u16string_view s)
{
    while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
    return s;
}

bool SameName(std::u16string_view sLeft, std::u16string_view sRight)
{
    return sLeft.size() == sRight.size() &&
           platform::CompareTextNoCaseN_W(sLeft.data(), sRight.data(), sLeft.size()) == 0;
}

// The name in a header line; false when it is none.
bool HeaderName(std::u16string_view sTrimmed, std::u16string_view *psName)
{
    const size_t nLast = sTrimmed.rfind(u']');
    if (sTrimmed.empty() || sTrimmed[0] != u'[' || nLast == std::u16string_view::npos) return false;
    *psName = Trimmed(sTrimmed.substr(1, nLast - 1));
    return true;
}

} // namespace

void ProfileText::Load(std::string_view sBytes)
{
    m_bUtf16 = sBytes.starts_with(UTF16_MARK);
    if (m_bUtf16) {
        m_sText.resize(sBytes.size() / 2 - 1); // half a unit at the end is dropped
        std::memcpy(m_sText.data(), sBytes.data() + UTF16_MARK.size(), m_sText.size() * sizeof(char16_t));
    } else {
        m_sText = ToUtf16(sBytes);
    }
}

std::string ProfileText::Bytes() const
{
    if (!m_bUtf16) return ToUtf8(m_sText);
    std::string sBytes(UTF16_MARK);
    return sBytes.append(reinterpret_cast<const char *>(m_sText.data()), m_sText.size() * sizeof(char16_t));
}

size_t ProfileText::Start() const
{
    return !m_sText.empty() && m_sText[0] == 0xFEFF ? 1 : 0;
} // a UTF-8 file's mark

ProfileText::Line ProfileText::LineAt(size_t nAt) const
{
    const size_t nEnd  = std::min(m_sText.find_first_of(LINE_BREAK, nAt), m_sText.size());
    const bool   bTwo  = m_sText.compare(nEnd, LINE_BREAK.size(), LINE_BREAK) == 0;
    const size_t nNext = std::min(nEnd + (bTwo ? 2 : 1), m_sText.size());
    return {nAt, nEnd, nNext, Trimmed(std::u16string_view(m_sText).substr(nAt, nEnd - nAt))};
}

bool ProfileText::FindSection(std::u16string_view sName, Section *pSection) const
{
    bool                bFound = false;
    std::u16string_view sHeader;
    sName = Trimmed(sName);
    for (Line line = LineAt(Start()); line.nAt < m_sText.size(); line = LineAt(line.nNext)) {
        const bool bHeader = HeaderName(line.sTrimmed, &sHeader);
        if (bFound && bHeader) {
            pSection->nEnd = line.nAt;
            return true;
        }
        if (bFound && !line.sTrimmed.empty()) pSection->nInsert = line.nNext;
        if (!bFound && bHeader && SameName(sHeader, sName)) {
            *pSection = {line.nAt, m_sText.size(), line.nNext, line.nNext};
            bFound    = true;
        }
    }
    return bFound;
}

bool ProfileText::NextKey(const Section &section, size_t *pnAt, Key *pKey) const
{
    while (*pnAt < section.nEnd) {
        pKey->line          = LineAt(*pnAt);
        *pnAt               = pKey->line.nNext;
        const auto   sLine  = std::u16string_view(m_sText).substr(pKey->line.nAt, pKey->line.nEnd - pKey->line.nAt);
        const size_t nEqual = sLine.find(u'=');
        if (nEqual == std::u16string_view::npos || pKey->line.sTrimmed[0] == u';') continue;
        pKey->sName    = Trimmed(sLine.substr(0, nEqual));
        pKey->nValueAt = pKey->line.nAt + nEqual + 1;
        return true;
    }
    return false;
}

bool ProfileText::FindKey(std::u16string_view sSection, std::u16string_view sKey, Key *pKey) const
{
    Section section;
    if (!FindSection(sSection, &section)) return false;
    for (size_t nAt = section.nBody; NextKey(section, &nAt, pKey);)
        if (SameName(pKey->sName, Trimmed(sKey))) return true;
    return false;
}

bool ProfileText::Read(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view *psValue) const
{
    Key key;
    if (!FindKey(sSection, sKey, &key)) return false;
    std::u16string_view sValue =
        Trimmed(std::u16string_view(m_sText).substr(key.nValueAt, key.line.nEnd - key.nValueAt));
    if (sValue.size() >= 2 && (sValue[0] == u'"' || sValue[0] == u'\'') && sValue.back() == sValue[0])
        sValue = sValue.substr(1, sValue.size() - 2);
    *psValue = sValue;
    return true;
}

bool ProfileText::Write(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view sValue)
{
    Section        section;
    Key            key;
    std::u16string sNew;
    if (FindKey(sSection, sKey, &key)) {
        const size_t nOld = key.line.nEnd - key.nValueAt;
        if (m_sText.compare(key.nValueAt, nOld, sValue) == 0) return false;
        m_sText.replace(key.nValueAt, nOld, sValue);
        return true;
    }
    const bool   bFound  = FindSection(sSection, &section);
    const size_t nInsert = bFound ? section.nInsert : m_sText.size();
    if (nInsert > Start() && !IsBreak(m_sText[nInsert - 1])) sNew = LINE_BREAK;
    if (!bFound) (((sNew += u'[') += Trimmed(sSection)) += u']') += LINE_BREAK;
    (((sNew += Trimmed(sKey)) += u'=') += sValue) += LINE_BREAK;
    m_sText.insert(nInsert, sNew);
    return true;
}

bool ProfileText::RemoveKey(std::u16string_view sSection, std::u16string_view sKey)
{
    Key key;
    if (!FindKey(sSection, sKey, &key)) return false;
    m_sText.erase(key.line.nAt, key.line.nNext - key.line.nAt);
    return true;
}

bool ProfileText::RemoveSection(std::u16string_view sSection)
{
    Section section;
    if (!FindSection(sSection, &section)) return false;
    m_sText.erase(section.nStart, section.nEnd - section.nStart);
    return true;
}

} // namespace hosted
