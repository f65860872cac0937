// show.cpp: lines, bar and JSON.
#include "tools/migrate/show.h"
#include "platform/modules.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unistd.h>

using nlohmann::json;

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

void PrepareConsole()
{
    using SetConsoleOutputCPProc    = int32_t (*)(uint32_t);
    constexpr uint32_t      UTF8    = 65001;
    const platform::HMODULE hKernel = platform::LoadLibraryW(u"kernel32.dll"); // a hosted machine has no console
    const platform::FARPROC pfn =
        hKernel != nullptr ? platform::GetProcAddress(hKernel, "SetConsoleOutputCP") : nullptr;
    if (pfn != nullptr) reinterpret_cast<SetConsoleOutputCPProc>(pfn)(UTF8);
}

void Say(const std::string &sLine)
{
    if (g_bJson) return;
    EndProgress();
    std::printf("%s\n", sLine.c_str());
    std::fflush(stdout);
}

void Tell(const json &object)
{
    if (!g_bJson) return;
    std::printf("%s\n", object.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    std::fflush(stdout);
}

void SayTrouble(const Trouble &trouble)
{
    Tell({{"event", "trouble"}, {"cause", trouble.sCause}, {"advice", trouble.sAdvice}});
    if (g_bJson) return;
    EndProgress();
    std::fprintf(stderr, "%s\n%s\n", trouble.sCause.c_str(), trouble.sAdvice.c_str());
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

void ShowProgress(const ProgressView &view)
{
    constexpr size_t BAR = 24, FOLDER = 30;
    if (g_bJson) return;
    if (isatty(1)) {
        const auto  nFull   = static_cast<size_t>(PartOf(view) * BAR);
        std::string sFolder = view.sFolder;
        if (sFolder.size() > FOLDER) {
            size_t nFrom = sFolder.size() - FOLDER;
            while (nFrom < sFolder.size() && (sFolder[nFrom] & 0xC0) == 0x80) nFrom++; // no character is cut
            sFolder = "..." + sFolder.substr(nFrom);
        }
        std::printf("\r[%s%s] %s  %s    ", std::string(nFull, '#').c_str(), std::string(BAR - nFull, '.').c_str(),
                    ProgressText(view).c_str(), Harmless(sFolder).c_str());
        g_bBarShown = true;
    } else if (const int nTenth = static_cast<int>(PartOf(view) * 10); nTenth != g_nLastTenth) {
        g_nLastTenth = nTenth;
        std::printf("%s  %s\n", ProgressText(view).c_str(), Harmless(view.sFolder).c_str());
    }
    std::fflush(stdout);
}

void EndProgress()
{
    if (g_bBarShown) std::printf("\n");
    g_bBarShown = false;
}
