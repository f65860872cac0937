// wide_files.cpp: the UTF-16 text files that services and agents exchange, seen from the host. Written independently of
// the product's own readers, so that a fault of theirs cannot hide itself.
#include "tools/driver/machine.h"
#include <algorithm>
#include <fstream>
#include <iterator>
#include <strings.h>

static std::u16string DecodeUtf8(const std::string &sText)
{
    std::u16string sWide;
    for (size_t i = 0; i < sText.size();) {
        const unsigned char by    = static_cast<unsigned char>(sText[i]);
        const int           nMore = by < 0x80 ? 0 : by < 0xE0 ? 1 : by < 0xF0 ? 2 : 3;
        uint32_t            dw    = nMore == 0 ? by : by & (0x3F >> nMore);
        for (int n = 1; n <= nMore && i + static_cast<size_t>(n) < sText.size(); n++) {
            dw = dw << 6 | (static_cast<unsigned char>(sText[i + static_cast<size_t>(n)]) & 0x3F);
        }
        i += static_cast<size_t>(nMore) + 1;
        if (dw >= 0x10000) {
            sWide += static_cast<char16_t>(0xD800 + ((dw - 0x10000) >> 10));
            sWide += static_cast<char16_t>(0xDC00 + ((dw - 0x10000) & 0x3FF));
        } else {
            sWide += static_cast<char16_t>(dw);
        }
    }
    return sWide;
}

static std::string EncodeUtf8(const std::u16string &sWide)
{
    std::string sText;
    for (size_t i = 0; i < sWide.size(); i++) {
        uint32_t dw = sWide[i];
        if (dw >= 0xD800 && dw < 0xDC00 && i + 1 < sWide.size())
            dw = 0x10000 + ((dw - 0xD800) << 10) + (sWide[++i] - 0xDC00U);
        if (dw < 0x80) {
            sText += static_cast<char>(dw);
        } else if (dw < 0x800) {
            sText += static_cast<char>(0xC0 | dw >> 6);
            sText += static_cast<char>(0x80 | (dw & 0x3F));
        } else if (dw < 0x10000) {
            sText += static_cast<char>(0xE0 | dw >> 12);
            sText += static_cast<char>(0x80 | (dw >> 6 & 0x3F));
            sText += static_cast<char>(0x80 | (dw & 0x3F));
        } else {
            sText += static_cast<char>(0xF0 | dw >> 18);
            sText += static_cast<char>(0x80 | (dw >> 12 & 0x3F));
            sText += static_cast<char>(0x80 | (dw >> 6 & 0x3F));
            sText += static_cast<char>(0x80 | (dw & 0x3F));
        }
    }
    return sText;
}

static bool ReadAny(const std::string &sHostPath, std::string *psText)
{
    std::ifstream file(sHostPath, std::ios::binary);
    if (!file) return false;
    const std::string sBytes((std::istreambuf_iterator<char>(file)), {});
    if (sBytes.size() < 2 || sBytes[0] != '\xFF' || sBytes[1] != '\xFE') {
        *psText = sBytes;
        return true;
    }
    std::u16string sWide;
    for (size_t i = 2; i + 1 < sBytes.size(); i += 2) {
        sWide += static_cast<char16_t>(static_cast<unsigned char>(sBytes[i]) | static_cast<unsigned char>(sBytes[i + 1])
                                                                                   << 8);
    }
    *psText = EncodeUtf8(sWide);
    return true;
}

std::vector<std::string> ReadWideLines(const std::string &sHostPath)
{
    std::vector<std::string> lines;
    std::string              sText;
    if (!ReadAny(sHostPath, &sText)) return lines;
    for (size_t nStart = 0; nStart < sText.size();) {
        const size_t nEnd  = std::min(sText.find('\n', nStart), sText.size());
        std::string  sLine = sText.substr(nStart, nEnd - nStart);
        if (!sLine.empty() && sLine.back() == '\r') sLine.pop_back();
        lines.push_back(sLine);
        nStart = nEnd + 1;
    }
    return lines;
}

bool WriteWideText(const std::string &sHostPath, const std::string &sText)
{
    std::string sBytes = "\xFF\xFE";
    for (const char16_t ch : DecodeUtf8(sText)) {
        sBytes += static_cast<char>(ch & 0xFF);
        sBytes += static_cast<char>(ch >> 8);
    }
    std::ofstream file(sHostPath, std::ios::binary | std::ios::trunc);
    file << sBytes;
    return static_cast<bool>(file.flush());
}

std::string IniValue(const std::string &sHostPath, const std::string &sSection, const std::string &sKey)
{
    bool bIn = false;
    for (const std::string &sLine : ReadWideLines(sHostPath)) {
        if (!sLine.empty() && sLine[0] == '[') {
            bIn = strcasecmp(sLine.c_str(), ("[" + sSection + "]").c_str()) == 0;
            continue;
        }
        const size_t nEqual = sLine.find('=');
        if (!bIn || nEqual == std::string::npos || strcasecmp(sLine.substr(0, nEqual).c_str(), sKey.c_str()) != 0)
            continue;
        std::string sValue = sLine.substr(nEqual + 1);
        if (sValue.size() >= 2 && sValue.front() == '"' && sValue.back() == '"')
            sValue = sValue.substr(1, sValue.size() - 2);
        return sValue;
    }
    return {};
}
