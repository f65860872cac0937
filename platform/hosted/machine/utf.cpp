// utf.cpp: UTF-16 of the interfaces, UTF-8 of the host.
// A Windows name is any sequence of 16-bit units and a host name any sequence of bytes, so both directions must keep
// what is not valid: otherwise a file could be listed and then not be found again.
#include "platform/hosted/machine/utf.h"

namespace {

constexpr uint32_t BYTE_ESCAPE = 0xDC00; // U+DC80..U+DCFF stand for the bytes 80..FF that are no UTF-8

bool IsLead(uint32_t ch)
{
    return ch >= 0xD800 && ch <= 0xDBFF;
}

bool IsTrail(uint32_t ch)
{
    return ch >= 0xDC00 && ch <= 0xDFFF;
}

void AppendUtf8(std::string &sOut, uint32_t ch)
{
    if (ch < 0x80) {
        sOut += static_cast<char>(ch);
    } else if (ch < 0x800) {
        sOut += static_cast<char>(0xC0 | ch >> 6);
        sOut += static_cast<char>(0x80 | (ch & 0x3F));
    } else if (ch < 0x10000) {
        sOut += static_cast<char>(0xE0 | ch >> 12);
        sOut += static_cast<char>(0x80 | (ch >> 6 & 0x3F));
        sOut += static_cast<char>(0x80 | (ch & 0x3F));
    } else {
        sOut += static_cast<char>(0xF0 | ch >> 18);
        sOut += static_cast<char>(0x80 | (ch >> 12 & 0x3F));
        sOut += static_cast<char>(0x80 | (ch >> 6 & 0x3F));
        sOut += static_cast<char>(0x80 | (ch & 0x3F));
    }
}

// Length of the sequence at the start of sText and its code point; 0 when it is not well formed. Surrogates count as
// well formed here, except those that stand for bytes.
size_t DecodeUtf8(std::string_view sText, uint32_t *pch)
{
    const auto     byAt   = [&](size_t i) { return static_cast<unsigned char>(sText[i]); };
    const uint32_t byLead = byAt(0);
    const size_t   cb = byLead < 0x80   ? 1
                        : byLead < 0xC2 ? 0
                        : byLead < 0xE0 ? 2
                        : byLead < 0xF0 ? 3
                        : byLead < 0xF5 ? 4
                                        : 0;
    if (cb == 0 || cb > sText.size()) return 0;
    uint32_t ch = cb == 1 ? byLead : byLead & (0xFFu >> (cb + 1));
    for (size_t i = 1; i < cb; i++) {
        if ((byAt(i) & 0xC0) != 0x80) return 0;
        ch = ch << 6 | (byAt(i) & 0x3F);
    }
    static const uint32_t aLowest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (ch < aLowest[cb] || ch > 0x10FFFF || (ch >= BYTE_ESCAPE + 0x80 && ch <= BYTE_ESCAPE + 0xFF)) return 0;
    *pch = ch;
    return cb;
}

} // namespace

std::string hosted::ToUtf8(std::u16string_view sText)
{
    std::string sOut;
    sOut.reserve(sText.size() + sText.size() / 2);
    for (size_t i = 0; i < sText.size(); i++) {
        const uint32_t ch = sText[i];
        if (IsLead(ch) && i + 1 < sText.size() && IsTrail(sText[i + 1])) {
            AppendUtf8(sOut, 0x10000 + ((ch - 0xD800) << 10) + (sText[i + 1] - 0xDC00u));
            i++;
        } else if (ch >= BYTE_ESCAPE + 0x80 && ch <= BYTE_ESCAPE + 0xFF) {
            sOut += static_cast<char>(ch - BYTE_ESCAPE);
        } else {
            AppendUtf8(sOut, ch);
        }
    }
    return sOut;
}

std::u16string hosted::ToUtf16(std::string_view sText)
{
    std::u16string sOut;
    sOut.reserve(sText.size());
    while (!sText.empty()) {
        uint32_t     ch = 0;
        const size_t cb = DecodeUtf8(sText, &ch);
        if (cb == 0) {
            sOut += static_cast<char16_t>(BYTE_ESCAPE + static_cast<unsigned char>(sText[0]));
        } else if (ch < 0x10000) {
            sOut += static_cast<char16_t>(ch);
        } else {
            sOut += static_cast<char16_t>(0xD800 + ((ch - 0x10000) >> 10));
            sOut += static_cast<char16_t>(0xDC00 + ((ch - 0x10000) & 0x3FF));
        }
        sText.remove_prefix(cb == 0 ? 1 : cb);
    }
    return sOut;
}
