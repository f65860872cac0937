// record_text.cpp: decoding and encoding of records for the console.
// Records come from a pipe that any user may write to: no text in them is trusted to be terminated.
#include "tools/record_text.h"
#include "platform/text.h"
#include <cerrno>
#include <cstdlib>

std::string ToUtf8(const char16_t *pszText, size_t cchBound)
{
    const size_t cch = platform::TextLengthBoundedW(pszText, cchBound);
    if (cch == 0) return {};
    std::string sText(cch * 3, '\0'); // one UTF-16 unit never takes more than three bytes
    const int cb = platform::WideCharToMultiByte(platform::CP_UTF8, 0, pszText, static_cast<int32_t>(cch), sText.data(),
                                                 static_cast<int32_t>(sText.size()), nullptr, nullptr);
    sText.resize(cb > 0 ? static_cast<size_t>(cb) : 0);
    return sText;
}

std::u16string ToWide(const std::string &sText)
{
    if (sText.empty()) return {};
    std::u16string sWide(sText.size(), u'\0');
    const int      cch =
        platform::MultiByteToWideChar(platform::CP_UTF8, 0, sText.data(), static_cast<int32_t>(sText.size()),
                                      sWide.data(), static_cast<int32_t>(sWide.size()));
    sWide.resize(cch > 0 ? static_cast<size_t>(cch) : 0);
    return sWide;
}

std::vector<std::string> RecordTexts(const IpcMessage &record)
{
    if (HasLongText(record.dwCommand)) {
        char16_t szLong[IPC_LONG_TEXT_UNITS]; // the three fields joined, field by field: no field is read past its end
        for (size_t i = 0; i < IPC_TEXT_UNITS; i++) {
            szLong[i]                      = record.szText1[i];
            szLong[IPC_TEXT_UNITS + i]     = record.szText2[i];
            szLong[2 * IPC_TEXT_UNITS + i] = record.szText3[i];
        }
        return {ToUtf8(szLong, IPC_LONG_TEXT_UNITS)};
    }
    return {ToUtf8(record.szText1, IPC_TEXT_UNITS), ToUtf8(record.szText2, IPC_TEXT_UNITS),
            ToUtf8(record.szText3, IPC_TEXT_UNITS)};
}

static std::string CommandLabel(uint32_t dwCommand)
{
    char szLabel[IPC_LABEL_BYTES];
    GetIpcCommandLabel(dwCommand, szLabel);
    return szLabel;
}

std::string RecordLine(const IpcMessage &record)
{
    char szHead[IPC_LABEL_BYTES + 96];
    platform::FormatTextA(szHead, sizeof(szHead), "%-32s 0x%03x  %d %d %d", CommandLabel(record.dwCommand).c_str(),
                          record.dwCommand, static_cast<int32_t>(record.dwParam1),
                          static_cast<int32_t>(record.dwParam2), static_cast<int32_t>(record.dwParam3));
    std::string sLine = szHead;
    const auto  texts = RecordTexts(record);
    size_t      nLast = texts.size();
    while (nLast > 0 && texts[nLast - 1].empty()) nLast--;
    for (size_t i = 0; i < nLast; i++) sLine += "  \"" + texts[i] + "\"";
    return sLine;
}

std::string JsonText(const std::string &sUtf8)
{
    std::string sOut = "\"";
    for (const char ch : sUtf8) {
        const unsigned char by = static_cast<unsigned char>(ch);
        if (ch == '"' || ch == '\\') {
            sOut += '\\';
            sOut += ch;
        } else if (by < 0x20) {
            char szCode[8];
            platform::FormatTextA(szCode, sizeof(szCode), "\\u%04x", by);
            sOut += szCode;
        } else {
            sOut += ch;
        }
    }
    return sOut + "\"";
}

std::string RecordJson(const IpcMessage &record)
{
    std::string sJson = "{\"label\":" + JsonText(CommandLabel(record.dwCommand)) +
                        ",\"code\":" + std::to_string(record.dwCommand) +
                        ",\"session\":" + std::to_string(record.dwSessionId) +
                        ",\"p1\":" + std::to_string(static_cast<int32_t>(record.dwParam1)) +
                        ",\"p2\":" + std::to_string(static_cast<int32_t>(record.dwParam2)) +
                        ",\"p3\":" + std::to_string(static_cast<int32_t>(record.dwParam3));
    const auto texts = RecordTexts(record);
    if (texts.size() == 1) return sJson + ",\"text\":" + JsonText(texts[0]) + "}";
    for (size_t i = 0; i < texts.size(); i++) sJson += ",\"t" + std::to_string(i + 1) + "\":" + JsonText(texts[i]);
    return sJson + "}";
}

bool ParseNumber(const std::string &sWord, uint32_t *pdwValue)
{
    if (sWord.empty()) return false;
    char      *pszEnd       = nullptr;
    const bool bHex         = sWord.rfind("0x", 0) == 0 || sWord.rfind("0X", 0) == 0;
    errno                   = 0;
    const long long llValue = std::strtoll(sWord.c_str(), &pszEnd, bHex ? 16 : 10);
    if (errno != 0 || *pszEnd != '\0' || llValue < INT32_MIN || llValue > UINT32_MAX) return false;
    *pdwValue = static_cast<uint32_t>(llValue);
    return true;
}

bool ParseCode(const std::string &sWord, uint32_t *pdwCode)
{
    if (ParseNumber(sWord, pdwCode)) return true;
    for (uint32_t dwCode = 0; dwCode < 0x10000; dwCode++) { // the lowest code of that label
        const std::string sLabel = CommandLabel(dwCode);
        if (sLabel == sWord && sLabel.back() != '_') {
            *pdwCode = dwCode;
            return true;
        }
    }
    return false;
}

bool SplitWords(const std::string &sLine, std::vector<std::string> *pWords)
{
    pWords->clear();
    size_t i = 0;
    while (i < sLine.size()) {
        if (sLine[i] == ' ' || sLine[i] == '\t' || sLine[i] == '\r') {
            i++;
            continue;
        }
        std::string sWord;
        bool        bQuoted = false;
        for (; i < sLine.size(); i++) {
            const char ch = sLine[i];
            if (ch == '"') {
                if (bQuoted && i + 1 < sLine.size() && sLine[i + 1] == '"') sWord += sLine[++i];
                else bQuoted = !bQuoted;
            } else if (!bQuoted && (ch == ' ' || ch == '\t' || ch == '\r')) {
                break;
            } else {
                sWord += ch;
            }
        }
        if (bQuoted) return false;
        pWords->push_back(sWord);
    }
    return true;
}

bool ParseRecord(const std::vector<std::string> &words, size_t nFirst, IpcMessage *pRecord, std::string *psError)
{
    *pRecord = IpcMessage{}; // session 0: a service's records
    if (nFirst >= words.size() || !ParseCode(words[nFirst], &pRecord->dwCommand)) {
        *psError = nFirst < words.size() ? "unknown code or label: " + words[nFirst] : "a code or label is missing";
        return false;
    }
    uint32_t *const apParams[] = {&pRecord->dwParam1, &pRecord->dwParam2, &pRecord->dwParam3};
    for (size_t i = 0; i < 3 && nFirst + 1 + i < words.size(); i++) {
        if (!ParseNumber(words[nFirst + 1 + i], apParams[i])) {
            *psError = "not a number: " + words[nFirst + 1 + i];
            return false;
        }
    }
    const bool   bLong     = HasLongText(pRecord->dwCommand);
    char16_t    *apTexts[] = {pRecord->szText1, pRecord->szText2, pRecord->szText3};
    const size_t nTexts    = bLong ? 1 : 3;
    for (size_t i = 0; nFirst + 4 + i < words.size(); i++) {
        const std::u16string sText = ToWide(words[nFirst + 4 + i]);
        if (i >= nTexts || sText.size() >= (bLong ? IPC_LONG_TEXT_UNITS : IPC_TEXT_UNITS)) {
            *psError = i >= nTexts ? "too many texts" : "text too long: " + words[nFirst + 4 + i];
            return false;
        }
        for (size_t u = 0; u < sText.size(); u++) apTexts[u / IPC_TEXT_UNITS + i][u % IPC_TEXT_UNITS] = sText[u];
    }
    return true;
}
