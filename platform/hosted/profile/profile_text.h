// profile_text.h: the text of one INI file in memory.
// Threads  one at a time.
#pragma once
#include <string>
#include <string_view>

namespace hosted {

class ProfileText {
  public:
    // From the bytes of a file: FF FE makes it UTF-16LE, else it is in the ANSI code page.
    void        Load(std::string_view sBytes);
    std::string Bytes() const; // as the file has them
    size_t      MemoryUsed() const { return m_sText.capacity() * sizeof(char16_t); }

    // The value with blanks and quotes stripped. False: no such section or key.
    bool Read(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view *psValue) const;

    // False: there was nothing to change.
    bool Write(std::u16string_view sSection, std::u16string_view sKey, std::u16string_view sValue);
    bool RemoveKey(std::u16string_view sSection, std::u16string_view sKey);
    bool RemoveSection(std::u16string_view sSection);

  private:
    struct Line {                             // places in the text
        size_t              nAt, nEnd, nNext; // without and with its break
        std::u16string_view sTrimmed;
    };
    struct Section {
        size_t nStart, nEnd;   // of its header line; up to the next header
        size_t nBody, nInsert; // behind the header; behind its last line that is not blank
    };
    struct Key {
        Line                line;
        std::u16string_view sName;
        size_t              nValueAt; // behind the '='
    };
    size_t Start() const;
    Line   LineAt(size_t nAt) const;
    bool   FindSection(std::u16string_view sName, Section *pSection) const; // the first of that name
    bool   NextKey(const Section &section, size_t *pnAt, Key *pKey) const;
    bool   FindKey(std::u16string_view sSection, std::u16string_view sKey, Key *pKey) const;

    std::u16string m_sText;
    bool           m_bUtf16 = false;
};

} // namespace hosted
