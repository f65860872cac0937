// special_data.cpp: requests and answers about special data. The new machine's service names paths below its own
// application-data root; the old one's service hears of them below its mapping folder and gathers the files there.
#include "tools/driver/special_data.h"
#include "tools/driver/profile.h"
#include "tools/driver/scenario.h"
#include <filesystem>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr uint32_t    QUESTION_MARK    = 7; // a question's third parameter, which comes back with the answer
constexpr uint32_t    GATHERED_PERCENT = 10, MOVED_PERCENT = 90;
const char *const     CACHE_RESERVED = "\"Global\\VORN VornMigrationService Cache Reserved Event\"";
const char *const     WITHIN         = " within=120";
constexpr const char *apszWords[]    = {"SYSTEMSETTINGSUPPORTED", "APPLICATIONSUPPORTED", "MIGRATIONSYSTEMSETTING",
                                        "MIGRATIONAPPLICATION"};

std::string Word(const SpecialData &data)
{
    return apszWords[static_cast<size_t>(data.eKind)];
}

std::string Quoted(const std::string &sText)
{
    return " \"" + sText + "\"";
}

std::string Parameters(const char *pszP1, uint32_t dwP2, uint32_t dwP3)
{
    return std::string(" p1=") + pszP1 + " p2=" + std::to_string(dwP2) + " p3=" + std::to_string(dwP3);
}

// Where the person's program keeps the data.
std::string SourceFolder(const MachinePtr &old, const SpecialData &data)
{
    return ApplicationDataRoot(old) + "\\" + data.sName;
}

std::string MappingFolder(const MachinePtr &machine)
{
    return KnownFolder(machine, "ProgramData") + "\\VORN\\VORN Qelvane\\VornTramsa\\uapmap";
}

// The old machine's service copies the data to where its agent is to send it from.
bool Gather(const MachinePtr &old, const SpecialData &data, const std::string &sFolder)
{
    std::error_code error;
    fs::create_directories(HostPathOf(old, sFolder), error);
    fs::copy(HostPathOf(old, SourceFolder(old, data)), HostPathOf(old, sFolder),
             fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
    return !error;
}

bool AskAndAnswer(const MachinePtr &old, const MachinePtr &next, const SpecialData &data)
{
    // Which applications are supported is asked for all at once, and the agents say so in the parameters.
    const bool        bAll   = data.eKind == SpecialKind::ApplicationsSupported;
    const uint32_t    dwItem = bAll ? 0 : data.dwItem, dwMark = bAll ? 1 : QUESTION_MARK;
    const std::string sBelow = "\\" + data.sName + "\\" + data.files[0].first;
    const std::string sAsked = ApplicationDataRoot(next) + sBelow, sGathered = MappingFolder(old) + sBelow;
    const std::string sValues = " " + std::to_string(dwItem) + " " + std::to_string(dwMark);
    return Command(next, "send STON_" + Word(data) + " 1" + sValues + Quoted(sAsked)) &&
           Command(old, "expect NTOS_" + Word(data) + Parameters("1", dwItem, dwMark) + Quoted("t1=" + sGathered) +
                            WITHIN) &&
           Gather(old, data, MappingFolder(old) + "\\" + data.sName) &&
           Command(old, "send NTOS_" + Word(data) + " 2" + sValues + Quoted(sGathered)) &&
           Command(next,
                   "expect STON_" + Word(data) + Parameters("2", dwItem, dwMark) + Quoted("t1=" + sAsked) + WITHIN);
}

// Tells the total, so that the new machine's agent can report progress. The percentage behind it shows, when it has
// come, that the total has come too.
bool AnnounceTotal(const MachinePtr &old, const MachinePtr &next, const SpecialData &data)
{
    const std::string sItem = std::to_string(data.dwItem), sPercent = std::to_string(GATHERED_PERCENT);
    return Command(old, "send ATOS_UPDATEPERCENTAGE 128 " + sItem + " 0 " + std::to_string(data.cb)) &&
           Command(old, "send ATOS_UPDATEPERCENTAGE " + sPercent + " " + sItem + " 0" + Quoted(data.sName)) &&
           Command(next, "expect ATOS_UPDATEPERCENTAGE p1=" + sPercent + " p2=" + sItem + Quoted("t1=" + data.sName) +
                             WITHIN);
}

bool MoveData(const MachinePtr &old, const MachinePtr &next, const SpecialData &data)
{
    const std::string sItem = " " + std::to_string(data.dwItem), sCache = CacheFolder(old, data);
    const bool        bApplication = data.eKind == SpecialKind::Application;
    return Command(next, "send STON_" + Word(data) + " 1" + sItem + " 0" + Quoted(data.sName)) &&
           Command(old, "expect NTOS_" + Word(data) + Parameters("1", data.dwItem, 1) + Quoted("t1=" + data.sName) +
                            WITHIN) &&
           Gather(old, data, sCache) && Command(old, std::string("event create ") + CACHE_RESERVED) &&
           Command(old, std::string(data.bReserved ? "event set " : "event reset ") + CACHE_RESERVED) &&
           (!bApplication || AnnounceTotal(old, next, data)) &&
           Command(old, "send NTOS_" + Word(data) + " 2" + sItem + " 1" + Quoted(sCache)) &&
           (!bApplication || Command(next, "expect NTOS_UPDATEPERCENTAGE p1=" + std::to_string(MOVED_PERCENT) +
                                               " p2=" + std::to_string(data.dwItem) + WITHIN)) &&
           Command(next,
                   "expect STON_" + Word(data) + Parameters("2", data.dwItem, 0) + Quoted("t1=" + sCache) + WITHIN);
}

// The reports about one tag, which may only rise. False when one does not.
bool CountReports(const MachinePtr &next, SpecialData *pData)
{
    int nLast = GATHERED_PERCENT;
    for (const auto &record : ReceivedRecords(next)) {
        if (record.value("label", "") != "NTOS_UPDATEPERCENTAGE" || record.value("p2", 0U) != pData->dwItem) continue;
        if (record.value("p1", 0) <= nLast) return false;
        nLast = record.value("p1", 0);
        pData->nReports++;
    }
    return true;
}

// The agent removes the cache after it has passed the answer on.
bool IsCacheGone(const MachinePtr &old, const SpecialData &data)
{
    const fs::path  cache = HostPathOf(old, CacheFolder(old, data));
    std::error_code error;
    for (int i = 0; i < 600 && fs::exists(cache, error); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return !fs::exists(cache, error);
}

} // namespace

std::vector<SpecialData> UsualSpecialData()
{
    std::vector<SpecialData> all = {
        {SpecialKind::SettingsSupported, "Einstellungen", 3, {{"moeglich.xml", 3000}}},
        {SpecialKind::ApplicationsSupported,
         "Programme",
         0,
         {{"moeglich.xml", 5000}, {"Symbole\\Zeichner.ico", 65537}, {"Symbole\\Brief.ico", 0}}},
        {SpecialKind::Setting, "Bildschirm", 3, {{"Hintergrund.bmp", 2000000}, {"Farben\\dunkel.theme", 812}}},
        {SpecialKind::Setting, "Tastatur", 11, {{"Belegung.reg", 4321}}},
        {SpecialKind::Application, "Zeichner", 77, {{"Vorlagen\\Рамка.dat", 100}}},
    };
    for (unsigned i = 0; i < 5; i++)
        all.back().files.emplace_back("Pinsel\\Satz " + std::to_string(i) + ".dat", 1000000 + i);
    return all;
}

std::string CacheFolder(const MachinePtr &machine, const SpecialData &data)
{
    return KnownFolder(machine, "ProgramData") + "\\VORN\\VORN Qelvane\\VornTramsa\\cache\\" + data.sName;
}

std::string CompareSpecialData(const MachinePtr &old, const MachinePtr &machine, const SpecialData &data,
                               const std::string &sFolder)
{
    std::error_code error;
    size_t          nThere = 0;
    for (const auto &[sFile, cb] : data.files) {
        const std::string sBelow = "\\" + sFile;
        if (!SameContent(HostPathOf(old, SourceFolder(old, data) + sBelow), HostPathOf(machine, sFolder + sBelow)))
            return sFolder + sBelow + " is missing or differs";
    }
    for (const auto &entry : fs::recursive_directory_iterator(HostPathOf(machine, sFolder), error))
        nThere += entry.is_regular_file();
    return nThere == data.files.size() ? "" : "there are " + std::to_string(nThere) + " files in " + sFolder;
}

bool PlaySpecialData(const MachinePtr &old, const MachinePtr &next, SpecialData *pData, std::string *psError)
{
    const bool bQuestion =
        pData->eKind == SpecialKind::SettingsSupported || pData->eKind == SpecialKind::ApplicationsSupported;
    unsigned nSeed = 1000 * pData->dwItem;
    for (const auto &[sFile, cb] : pData->files) {
        if (!WriteHostFile(HostPathOf(old, SourceFolder(old, *pData) + "\\" + sFile), cb, ++nSeed)) {
            *psError = "the old machine's " + sFile + " cannot be made";
            return false;
        }
        pData->cb += cb;
    }
    pData->sPlace = bQuestion ? MappingFolder(next) + "\\" + pData->sName : CacheFolder(next, *pData);
    if (!(bQuestion ? AskAndAnswer(old, next, *pData) : MoveData(old, next, *pData))) {
        *psError = "no answer: " + old->sLastError + " " + next->sLastError;
        return false;
    }
    *psError = CompareSpecialData(old, next, *pData, pData->sPlace);
    if (psError->empty() && !CountReports(next, pData)) *psError = "the progress does not rise";
    if (psError->empty() && !bQuestion && !pData->bReserved && !IsCacheGone(old, *pData))
        *psError = "the old machine's cache is still there";
    return psError->empty();
}
