// utf.cpp: UTF-16 of the interfaces, UTF-8 of the host.
// A Windows name is any sequence of 16-bit units and a host name any sequence of bytes, so both directions must keep
// what is not valid: otherwise a file could be listed and then not be found again.
#include "platform/hosted/machine/utf.h"
#include "platform/unicode.h"

namespace {

constexpr uint32_t BYTE_ESCAPE = 0xDC00; // U+DC80..U+DCFF stand for the bytes 80..FF that are no UTF-8

bool IsEscape(uint32_t nPoint)
{
    return nPoint >= BYTE_ESCAPE + 0x80 && nPoint <= BYTE_ESCAPE + 0xFF;
}

} // namespace

std::string hosted::ToUtf8(std::u16string_view sText)
{
    std::string sOut;
    sOut.reserve(sText.size() + sText.size() / 2);
    for (size_t i = 0, cch = 0; i < sText.size(); i += cch) {
        char           aBytes[4];
        const uint32_t nPoint = platform::DecodeUtf16(sText.data() + i, sText.size() - i, &cch);
        if (IsEscape(nPoint)) sOut += static_cast<char>(nPoint - BYTE_ESCAPE);
        else sOut.append(aBytes, platform::EncodeUtf8(nPoint, aBytes));
    }
    return sOut;
}

std::u16string hosted::ToUtf16(std::string_view sText)
{
    std::u16string sOut;
    sOut.reserve(sText.size());
    for (size_t i = 0, cb = 0; i < sText.size(); i += cb) {
        char16_t       aUnits[2];
        const uint32_t nPoint = platform::DecodeUtf8(sText.data() + i, sText.size() - i, &cb, true);
        if (nPoint == platform::NO_CODE_POINT || IsEscape(nPoint)) {
            sOut += static_cast<char16_t>(BYTE_ESCAPE + static_cast<unsigned char>(sText[i]));
            cb = 1;
        } else {
            sOut.append(aUnits, platform::EncodeUtf16(nPoint, aUnits));
        }
    }
    return sOut;
}
