// show.h: what migrate says: plain lines, a bar on a terminal, or one JSON object a line.
#pragma once
#include "tools/migrate/conversation.h"
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

void UseJson();
bool IsJson();

void Say(const std::string &sLine);      // nothing with --json
void SayPart(const std::string &sText);  // the same without an end of line
void Tell(const nlohmann::json &object); // nothing without
void SayTrouble(const Trouble &trouble); // either way; plain lines go to standard error

std::string BytesText(uint64_t cb);
std::string CountText(uint64_t n, const char *pszOne, const char *pszMany);
std::string LargePin(const std::string &sPin); // five lines of block digits
// Control characters, which a terminal would obey, become '?'.
std::string Harmless(const std::string &sText);

struct ProgressView {
    uint64_t    cbDone = 0, cbTotal = 0, nFiles = 0, nFilesTotal = 0;
    double      dRate = 0; // bytes a second
    std::string sFolder;
};
std::string ProgressText(const ProgressView &view);
// At most nColumns wide on a screen; no character is cut. Those of East Asia are two columns wide.
std::string CutToColumns(const std::string &sText, size_t nColumns);
void        ShowProgress(const ProgressView &view); // on a terminal one line that grows; else a line each tenth
void        EndProgress();
