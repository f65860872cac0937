// record_text.h: records as people and scripts read and write them.
#pragma once
#include "ipc/ipc_message.h"
#include <cstdint>
#include <string>
#include <vector>

std::string    ToUtf8(const char16_t *pszText, size_t cchBound);
std::u16string ToWide(const std::string &sText);

// "NTOS_IPCREADY (0x330)  1 0 0  text1=..."
std::string RecordLine(const IpcMessage &record);
// One JSON object on one line: label, code, session, p1 p2 p3 (signed), t1 t2 t3, or text for the codes with one long
// text.
std::string RecordJson(const IpcMessage &record);
std::string JsonText(const std::string &sUtf8);
// The record's texts as UTF-8; for codes with one long text the first holds all of it.
std::vector<std::string> RecordTexts(const IpcMessage &record);

// A label ("STON_GETPINCODE") or a number (decimal or 0x...). False when it is neither.
bool ParseCode(const std::string &sWord, uint32_t *pdwCode);
// Decimal with sign, or 0x...; must fit 32 bits.
bool ParseNumber(const std::string &sWord, uint32_t *pdwValue);
// Words of a line: blanks separate, double quotes hold a word together, "" inside them is one quote. Backslashes are
// plain text. False when a quote is not closed.
bool SplitWords(const std::string &sLine, std::vector<std::string> *pWords);
// CODE [P1 [P2 [P3 [TEXT1 [TEXT2 [TEXT3]]]]]] from words[nFirst] on. False with *psError.
bool ParseRecord(const std::vector<std::string> &words, size_t nFirst, IpcMessage *pRecord, std::string *psError);
