// show.cpp: lines, bar and JSON.
#include "tools/migrate/show.h"
#include "platform/console.h"
#include <algorithm>
#include <cmath>
#include <cstdio>

using nlohmann::json;
using platform::Standard;
using platform::WriteStandard;

static bool g_bJson      = false;
static int  g_nLastTenth = -1;
static bool g_bBarShown  = false;

void UseJson()
{
    g_bJson = true;
}

bool IsJson()
{
    return g_bJson;
}

void SayPart(const std::string &sText)
{
    if (g_bJson) return;
    EndProgress();
    WriteStandard(Standard::Output, sText.c_str());
}

void Say(const std::string &sLine)
{
    SayPart(sLine + "\n");
}

void Tell(const json &object)
{
    if (!g_bJson) return;
    WriteStandard(Standard::Output, (object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n").c_str());
}

void SayTrouble(const Trouble &trouble)
{
    Tell({{"event", "trouble"}, {"cause", trouble.sCause}, {"advice", trouble.sAdvice}});
    if (g_bJson) return;
    EndProgress();
    WriteStandard(Standard::Error, (trouble.sCause + "\n" + trouble.sAdvice + "\n").c_str());
}

std::string BytesText(uint64_t cb)
{
    static const char *const s_apszUnits[] = {"KB", "MB", "GB", "TB"};
    char                     szText[32];
    if (cb < 1000) return std::to_string(cb) + " B";
    double dValue = static_cast<double>(cb) / 1000;
    size_t nUnit  = 0;
    for (; dValue >= 999.95 && nUnit < 3; nUnit++) dValue /= 1000;
    std::snprintf(szText, sizeof(szText), "%.1f %s", dValue, s_apszUnits[nUnit]);
    return szText;
}

std::string CountText(uint64_t n, const char *pszOne, const char *pszMany)
{
    return std::to_string(n) + " " + (n == 1 ? pszOne : pszMany);
}

std::string LargePin(const std::string &sPin)
{
    static const char *const s_aapszDigits[10][5] = {
        {" ### ", "#   #", "#   #", "#   #", " ### "}, {"  #  ", " ##  ", "  #  ", "  #  ", " ### "},
        {"#### ", "    #", " ### ", "#    ", "#####"}, {"#### ", "    #", " ### ", "    #", "#### "},
        {"#   #", "#   #", "#####", "    #", "    #"}, {"#####", "#    ", "#### ", "    #", "#### "},
        {" ### ", "#    ", "#### ", "#   #", " ### "}, {"#####", "    #", "   # ", "  #  ", "  #  "},
        {" ### ", "#   #", " ### ", "#   #", " ### "}, {" ### ", "#   #", " ####", "    #", " ### "}};
    std::string sText;
    for (size_t nRow = 0; nRow < 5; nRow++) {
        sText += "   ";
        for (const char ch : sPin)
            if (ch >= '0' && ch <= '9') sText += std::string(s_aapszDigits[ch - '0'][nRow]) + "  ";
        while (sText.back() == ' ') sText.pop_back();
        sText += "\n";
    }
    return sText;
}

std::string Harmless(const std::string &sText)
{
    std::string sResult = sText;
    for (char &ch : sResult)
        if (static_cast<unsigned char>(ch) < 32 || ch == 127) ch = '?';
    return sResult;
}

static double PartOf(const ProgressView &view)
{
    if (view.cbTotal == 0) return 1;
    return std::min(1.0, static_cast<double>(view.cbDone) / static_cast<double>(view.cbTotal));
}

std::string ProgressText(const ProgressView &view)
{
    char           szPercent[16];
    const uint64_t cbLeft = view.cbTotal - std::min(view.cbTotal, view.cbDone);
    std::snprintf(szPercent, sizeof(szPercent), "%3.0f %%", PartOf(view) * 100);
    std::string sText = std::string(szPercent) + "  " + BytesText(view.cbDone) + " of " + BytesText(view.cbTotal) +
                        ", " + std::to_string(view.nFiles) + " of " + CountText(view.nFilesTotal, "file", "files");
    if (view.dRate >= 1) {
        const auto nSeconds = std::llround(static_cast<double>(cbLeft) / view.dRate);
        sText += ", " + BytesText(static_cast<uint64_t>(view.dRate)) + "/s, ";
        sText += nSeconds < 120 ? std::to_string(nSeconds) + " s left" : std::to_string(nSeconds / 60) + " min left";
    }
    return sText;
}

std::string CutToColumns(const std::string &sText, size_t nColumns)
{
    size_t nAt = 0;
    while (nAt < sText.size()) {
        size_t nNext = nAt + 1;
        while (nNext < sText.size() && (sText[nNext] & 0xC0) == 0x80) nNext++;
        const size_t nWidth = static_cast<unsigned char>(sText[nAt]) >= 0xE1 ? 2 : 1; // from U+1000 on
        if (nWidth > nColumns) break;
        nColumns -= nWidth;
        nAt = nNext;
    }
    return sText.substr(0, nAt);
}

// One line that is written over: one that reaches the last column would make a new line each time.
static void ShowBar(const ProgressView &view)
{
    constexpr size_t  BAR = 20, COLUMNS = 80;
    const auto        nFull    = static_cast<size_t>(PartOf(view) * BAR);
    const uint32_t    nScreen  = platform::ConsoleColumns(Standard::Output);
    const size_t      nColumns = nScreen > 1 ? nScreen - 1 : COLUMNS - 1;
    const std::string sText    = "[" + std::string(nFull, '#') + std::string(BAR - nFull, '.') + "] " +
                              ProgressText(view) + "  " + Harmless(view.sFolder);
    const std::string sCut = CutToColumns(sText, nColumns);
    WriteStandard(Standard::Output, ("\r" + std::string(nColumns, ' ') + "\r" + sCut).c_str());
    g_bBarShown = true;
}

void ShowProgress(const ProgressView &view)
{
    if (g_bJson) return;
    if (platform::IsConsole(Standard::Output)) return ShowBar(view);
    const int nTenth = static_cast<int>(PartOf(view) * 10);
    if (nTenth == g_nLastTenth) return;
    g_nLastTenth = nTenth;
    WriteStandard(Standard::Output, (ProgressText(view) + "  " + Harmless(view.sFolder) + "\n").c_str());
}

void EndProgress()
{
    if (g_bBarShown) WriteStandard(Standard::Output, "\n");
    g_bBarShown = false;
}
