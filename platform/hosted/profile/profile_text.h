// profile_text.h: the text of one INI file in memory, with its sections and keys indexed.
// Threads  one at a time.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace hosted {

// One change of the text, for a writer that may do it in place.
struct ProfileEdit {
    size_t nAt      = 0; // units
    size_t nRemoved = 0;
    size_t nAdded   = 0;
    size_t nValueAt = 0; // where the value is among the added units, and its length
    size_t nValue   = 0;
    bool   bChanged = false;
};

class ProfileText {
public:
    // From the bytes of a file: FF FE makes it UTF-16LE, else it is in the ANSI code page.
    void Load(std::string_view sBytes);
    bool IsUtf16() const { return m_bUtf16; }
    // True when unit n of the text is at FileOffset(n) of the file that Load read.
    bool                  IsExact() const { return m_bExact; }
    size_t                FileOffset(size_t nUnit) const { return m_bUtf16 ? 2 + 2 * nUnit : nUnit; }
    const std::u16string &Text() const { return m_sText; }

    // The value with blanks and quotes stripped. False: no such section or key.
    bool Read(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view *psValue) const;
    // The names, each followed by a terminator.
    std::u16string Sections() const;
    bool           Keys(std::u16string_view sSection, std::u16string *psKeys) const;

    ProfileEdit Write(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view sValue);
    ProfileEdit RemoveKey(std::u16string_view sSection, std::u16string_view sKey);
    ProfileEdit RemoveSection(std::u16string_view sSection);
    size_t      MemoryUsed() const { return m_sText.capacity() * 2 + m_aSlots.capacity() * sizeof(Entry); }

private:
    struct Section {
        size_t nStart;  // of its header line
        size_t nLength; // up to the next header
        size_t nInsert; // from nStart: behind its last line that is not blank
    };
    struct Entry { // nLine 0 is a free slot: a header is before every key's line
        uint32_t nHash;
        uint32_t nSection;
        uint32_t nLine; // from the section's start
    };
    struct Line {
        std::u16string_view sName, sValue; // trimmed; the value as it stands
        size_t              nValueAt;      // behind the '='
        size_t              nEnd;          // of the line, without its break
        bool                bKey;
    };

    void        Index();
    size_t      LineEnd(size_t nAt) const;
    size_t      NextLine(size_t nEnd) const;
    Line        ReadLine(size_t nAt) const;
    const Entry *FindEntry(uint32_t nSection, std::u16string_view sKey) const;
    void        AddEntry(const Entry &entry);
    ProfileEdit Replace(size_t nAt, size_t nRemoved, std::u16string_view sNew);

    std::u16string                               m_sText;
    bool                                         m_bUtf16 = false;
    bool                                         m_bExact = true;
    std::vector<Section>                         m_aSections;
    std::unordered_map<std::u16string, uint32_t> m_aByName; // folded; the first section of a name
    std::vector<Entry>                           m_aSlots;  // open addressing
    size_t                                       m_nEntries = 0;
};

} // namespace hosted
